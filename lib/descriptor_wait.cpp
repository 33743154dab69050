#include "lib/descriptor_wait.h"

#include <sys/select.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "lib/errno_guard.h"

static_assert(sizeof(fd_set) == 1024 / 8, "the fixed part holds what an fd_set holds");

DescriptorSet::~DescriptorSet() {
  if (words_ == fixed_) return;
  ErrnoGuard keep_errno;
  std::free(words_);
}

bool DescriptorSet::grow(int word_count) noexcept {
  const std::size_t old_size = static_cast<std::size_t>(word_count_) * sizeof(*words_);
  const std::size_t new_size = static_cast<std::size_t>(word_count) * sizeof(*words_);
  void* const grown = std::realloc(words_ == fixed_ ? nullptr : words_, new_size);
  if (grown == nullptr) return false;
  if (words_ == fixed_) std::memcpy(grown, fixed_, old_size);
  std::memset(static_cast<char*>(grown) + old_size, 0, new_size - old_size);
  words_ = static_cast<unsigned long*>(grown);
  word_count_ = word_count;
  return true;
}

void DescriptorSet::add(int fd) noexcept {
  if (fd < 0) {
    error_ = EBADF;
    return;
  }
  const int word = fd / bits_per_word;
  // Doubling keeps the copies few while a large table is added.
  if (word >= word_count_ && !grow(std::max(word + 1, 2 * word_count_))) {
    error_ = ENOMEM;
    return;
  }
  words_[word] |= 1ul << (fd % bits_per_word);
  highest_ = std::max(highest_, fd);
}

int DescriptorSet::select(Direction direction, std::uint64_t timeout_us) noexcept {
  if (error_ != 0) {
    errno = error_;
    return -1;
  }
  struct timeval timeout;
  timeout.tv_sec = static_cast<time_t>(timeout_us / 1000000u);
  timeout.tv_usec = static_cast<suseconds_t>(timeout_us % 1000000u);
  auto* const set = reinterpret_cast<fd_set*>(words_);
  return ::select(highest_ + 1, direction == Direction::read ? set : nullptr,
                  direction == Direction::write ? set : nullptr, nullptr,
                  timeout_us != endless ? &timeout : nullptr);
}
