// Owner of one descriptor.
#ifndef TARN_LIB_UNIQUE_FD_H
#define TARN_LIB_UNIQUE_FD_H

#include <unistd.h>

#include "lib/errno_guard.h"

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) noexcept : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ < 0) return;
    ErrnoGuard keep_errno;
    ::close(fd_);
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }
  int release() noexcept {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

#endif
