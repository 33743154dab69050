// The clients of a server in an epoll(7), which tells what is ready in a large table without a look
// at each. It is made with the first look, and never needed: where it fails, every client is asked.
#ifndef TARN_LIB_WATCHED_CLIENTS_H
#define TARN_LIB_WATCHED_CLIENTS_H

#include <sys/types.h>
#include <tarn_utils_v4/comm_cpp.h>

#include <cstddef>
#include <cstdint>
#include <vector>

class WatchedClients {
 public:
  // Finds out which clients in the table have something to read; `accepted` were accepted so far.
  // False when that cannot be told.
  bool look(const std::vector<comm_socket_v4_client>& table, std::uint64_t accepted) noexcept;
  // Whether a read would have found nothing at the last look; false where that is not known.
  bool is_quiet(std::size_t slot, const comm_socket_v4_client& client) const noexcept;
  // Before the close of a client, of which a forked child may have a copy.
  void forget(std::size_t slot, int client_fd) noexcept;
  // Before the close of all.
  void clear() noexcept;
  // From now on every client is asked, until the server is closed. Returns whether that has left a
  // descriptor free.
  bool give_up() noexcept;

 private:
  struct Watched {
    std::uint64_t generation = 0;
    int fd = -1;
    std::uint32_t ready_at = 0;  // the last look that found it ready
  };

  bool open() noexcept;
  bool watch_newcomers(const std::vector<comm_socket_v4_client>& table) noexcept;
  bool watch(std::size_t slot, const comm_socket_v4_client& client) noexcept;
  bool mark_ready(std::uint64_t key) noexcept;

  CommDescriptor epoll_;
  pid_t process_ = 0;           // whose it is: a forked child has a copy of the same
  bool given_up_ = false;       // until the server is closed
  std::uint32_t look_ = 0;      // number of the last one
  std::uint64_t accepted_ = 0;  // by then
  int looks_to_skip_ = 0;
  std::vector<Watched> watched_;  // by slot
};

#endif
