#include "lib/standard_error.h"

#include <signal.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lib/errno_guard.h"

namespace {

// While one of these lives a failing write raises no signal in this thread, and what it raised is
// gone before the mask is as it was. The kernel sends both signals to the thread that writes
// (write(2)), so one that somebody else sends meanwhile is another one, and stays.
class QuietWrites {
 public:
  QuietWrites() noexcept {
    sigset_t both;
    ::sigemptyset(&both);
    ::sigaddset(&both, SIGPIPE);
    ::sigaddset(&both, SIGXFSZ);
    ::sigpending(&pending_before_);
    ::pthread_sigmask(SIG_BLOCK, &both, &mask_before_);
  }
  ~QuietWrites() { ::pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr); }
  QuietWrites(const QuietWrites&) = delete;
  QuietWrites& operator=(const QuietWrites&) = delete;

  // A signal that the program itself holds back, and that was pending before, stays so.
  void discard(int signal) noexcept {
    if (::sigismember(&pending_before_, signal) == 1) return;
    sigset_t one;
    ::sigemptyset(&one);
    ::sigaddset(&one, signal);
    const struct timespec at_once = {};
    while (::sigtimedwait(&one, nullptr, &at_once) < 0 && errno == EINTR) {
    }
  }

 private:
  sigset_t mask_before_;
  sigset_t pending_before_;
};

}  // namespace

void write_to_standard_error(const char* text, std::size_t length) noexcept {
  ErrnoGuard keep_errno;
  QuietWrites quiet;
  if (std::fwrite(text, 1, length, stderr) == length) return;
  if (errno == EPIPE) quiet.discard(SIGPIPE);
  if (errno == EFBIG) quiet.discard(SIGXFSZ);
}

void write_to_standard_error(const char* text) noexcept {
  write_to_standard_error(text, std::strlen(text));
}
