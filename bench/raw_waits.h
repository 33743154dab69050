// Waiting until one of many descriptors can be read, by each of the calls that Linux has for it.
#ifndef COMM_BENCH_RAW_WAITS_H
#define COMM_BENCH_RAW_WAITS_H

#include <poll.h>
#include <sys/epoll.h>
#include <tarn_utils_v4/comm_cpp.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace raw {

// select(2) over any number of descriptors, since Linux takes a bit set of any length.
class SelectSet {
 public:
  void add(int fd);
  bool has(int fd) const { return words_[static_cast<std::size_t>(fd) / 64] >> (fd % 64) & 1; }
  // Waits until one can be read, or written; only those that can be are left. Returns how many.
  std::size_t keep_readable();
  std::size_t keep_writeable();

 private:
  fd_set* get() { return reinterpret_cast<fd_set*>(words_.data()); }

  std::vector<unsigned long> words_;
  int highest_ = -1;
};

// What is watched has a number, by which wait() names it. What wait() returns is good until the
// next call on the object.
using Ready = std::span<const std::uint64_t>;

class Select {
 public:
  void watch(int fd, std::uint64_t name);
  Ready wait();

 private:
  struct Watched {
    int fd;
    std::uint64_t name;
  };
  SelectSet all_;
  std::vector<Watched> watched_;
  std::vector<std::uint64_t> ready_;
};

class Poll {
 public:
  void watch(int fd, std::uint64_t name);
  Ready wait();

 private:
  std::vector<pollfd> watched_;
  std::vector<std::uint64_t> names_;
  std::vector<std::uint64_t> ready_;
};

class Epoll {
 public:
  Epoll();
  void watch(int fd, std::uint64_t name);
  Ready wait();

 private:
  static constexpr std::size_t most = 64;

  CommDescriptor epoll_;
  epoll_event events_[most];
  std::uint64_t ready_[most];
};

void wait_readable(int fd);
void wait_writeable(int fd);

}  // namespace raw

#endif
