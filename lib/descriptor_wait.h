// Waiting until descriptors are ready, with select(2), for the waits and for a pending connect.
#ifndef TARN_LIB_DESCRIPTOR_WAIT_H
#define TARN_LIB_DESCRIPTOR_WAIT_H

#include <cerrno>
#include <cstdint>

#include "suite/time.h"

enum class Direction { read, write };

// As a deadline and as a time-out. It needs no timer, which costs more than a look at a socket.
constexpr std::uint64_t endless = UINT64_MAX;

// A set for select(2) without the limit of fd_set: Linux takes a bit set of any length. Up to
// descriptor 1023 nothing is allocated.
class DescriptorSet {
 public:
  DescriptorSet() noexcept : words_(fixed_), word_count_(fixed_words) {}
  ~DescriptorSet();
  DescriptorSet(const DescriptorSet&) = delete;
  DescriptorSet& operator=(const DescriptorSet&) = delete;

  // A failure, EBADF for a negative descriptor or ENOMEM, is what the select that follows returns.
  void add(int fd) noexcept;
  // As select(2): the number of ready descriptors, 0 after the time-out, or -1 with errno.
  int select(Direction direction, std::uint64_t timeout_us) noexcept;

 private:
  static constexpr int bits_per_word = 64;
  static constexpr int fixed_words = 1024 / bits_per_word;

  bool grow(int word_count) noexcept;

  unsigned long fixed_[fixed_words] = {};
  unsigned long* words_;
  int word_count_;
  int highest_ = -1;
  int error_ = 0;
};

// Waits until a descriptor is ready or the deadline passes: 1, 0 (also when a signal came, with
// EINTR), or -1 with errno. `fill` adds the descriptors and returns whether something is ready
// already, which ends the wait with 1; it runs only while the deadline lies ahead.
template <class Fill>
int wait_for_descriptors(Direction direction, std::uint64_t deadline_us, Fill fill) {
  const std::uint64_t now = monotonic_clock_us();
  if (now >= deadline_us) return 0;
  DescriptorSet set;
  if (fill(set)) return 1;
  const int ready = set.select(direction, deadline_us != endless ? deadline_us - now : endless);
  if (ready < 0) return errno == EINTR ? 0 : -1;
  return ready > 0 ? 1 : 0;
}

inline int wait_for_descriptor(int fd, Direction direction, std::uint64_t deadline_us) {
  return wait_for_descriptors(direction, deadline_us, [fd](DescriptorSet& set) {
    set.add(fd);
    return false;
  });
}

#endif
