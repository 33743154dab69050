// One server at a time looks at a path, clears it and binds to it.
#ifndef TARN_LIB_START_LOCK_H
#define TARN_LIB_START_LOCK_H

#include <tarn_utils_v4/comm_cpp.h>

#include <string>

// A lock (flock(2)) on the directory of the path, among the processes that use this library.
// Whoever can open the directory may hold it, so it is waited for about two seconds; without it
// the owner goes on all the same. Leaves errno alone.
class StartLock {
 public:
  explicit StartLock(const std::string& path) noexcept;
  ~StartLock();
  StartLock(const StartLock&) = delete;
  StartLock& operator=(const StartLock&) = delete;

 private:
  CommDescriptor directory_;
};

#endif
