// Keeps errno over whatever a scope does.
#ifndef TARN_LIB_ERRNO_GUARD_H
#define TARN_LIB_ERRNO_GUARD_H

#include <cerrno>

class ErrnoGuard {
 public:
  ErrnoGuard() noexcept : saved_(errno) {}
  ~ErrnoGuard() { errno = saved_; }
  ErrnoGuard(const ErrnoGuard&) = delete;
  ErrnoGuard& operator=(const ErrnoGuard&) = delete;

 private:
  int saved_;
};

#endif
