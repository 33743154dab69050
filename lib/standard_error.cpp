#include "lib/standard_error.h"

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
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

void write_line_to_standard_error(const char* prefix, const char* format, va_list args) noexcept {
  ErrnoGuard keep_errno;
  char usual[1024];
  const std::size_t prefix_length = std::strlen(prefix);

  va_list again;
  va_copy(again, args);
  const int formatted =
      std::vsnprintf(usual + prefix_length, sizeof(usual) - prefix_length, format, args);
  // What cannot be formatted is an empty message.
  const std::size_t length = formatted > 0 ? static_cast<std::size_t>(formatted) : 0;
  const std::size_t size = prefix_length + length + 1;

  char* const longer = size > sizeof(usual) ? static_cast<char*>(std::malloc(size)) : nullptr;
  if (longer != nullptr) std::vsnprintf(longer + prefix_length, length + 1, format, again);
  va_end(again);

  char* const line = longer != nullptr ? longer : usual;
  const std::size_t line_length = longer != nullptr ? size : std::min(size, sizeof(usual));
  std::memcpy(line, prefix, prefix_length);
  line[line_length - 1] = '\n';
  write_to_standard_error(line, line_length);
  std::free(longer);
}
