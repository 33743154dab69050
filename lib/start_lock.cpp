#include "lib/start_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "lib/errno_guard.h"
#include "lib/pause.h"

namespace {

constexpr int tries = 2000;
constexpr std::uint64_t pause_us = 1000;

// "a/b" lies in "a/.", "/b" in "/." and "b" in ".".
int open_directory_of(const std::string& path) noexcept {
  ErrnoGuard keep_errno;
  char directory[sizeof(sockaddr_un::sun_path) + 2];
  const std::size_t slash = path.rfind('/');
  const std::size_t length = slash == std::string::npos ? 0 : slash + 1;
  if (length + 2 > sizeof(directory)) return -1;
  std::memcpy(directory, path.data(), length);
  std::memcpy(directory + length, ".", 2);
  return ::open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

}  // namespace

StartLock::StartLock(const std::string& path) noexcept : directory_(open_directory_of(path)) {
  ErrnoGuard keep_errno;
  if (!directory_.is_open()) return;
  for (int i = 0; i < tries && ::flock(directory_.get(), LOCK_EX | LOCK_NB) != 0; ++i) {
    if (errno != EWOULDBLOCK) return;
    pause_for(pause_us);
  }
}

StartLock::~StartLock() {
  ErrnoGuard keep_errno;
  // Unlocked by itself: a child that was forked meanwhile may hold a copy of the descriptor.
  if (directory_.is_open()) ::flock(directory_.get(), LOCK_UN);
}
