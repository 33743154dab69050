// A descriptor that is closed when its scope ends, errno untouched.
#ifndef TARN_LIB_OWNED_DESCRIPTOR_H
#define TARN_LIB_OWNED_DESCRIPTOR_H

#include <unistd.h>

#include "lib/errno_guard.h"

class OwnedDescriptor {
 public:
  explicit OwnedDescriptor(int fd) noexcept : fd_(fd) {}
  ~OwnedDescriptor() {
    if (!is_open()) return;
    ErrnoGuard keep_errno;
    ::close(fd_);
  }
  OwnedDescriptor(const OwnedDescriptor&) = delete;
  OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

  int get() const noexcept { return fd_; }
  bool is_open() const noexcept { return fd_ >= 0; }

 private:
  int fd_;
};

#endif
