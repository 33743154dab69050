#include "tool/captured_log.h"

#include <fcntl.h>
#include <sys/mman.h>

CapturedLog::CapturedLog()
    : file_(::memfd_create("log", MFD_CLOEXEC)),
      standard_error_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
  if (file_.is_open() && standard_error_.is_open()) ::dup2(file_.get(), STDERR_FILENO);
}

CapturedLog::~CapturedLog() {
  if (standard_error_.is_open()) ::dup2(standard_error_.get(), STDERR_FILENO);
}

std::string CapturedLog::first_message() const {
  char text[4096];
  const ssize_t length = ::pread(file_.get(), text, sizeof(text), 0);
  const std::string written(text, length > 0 ? static_cast<std::size_t>(length) : 0);
  const std::string line = written.substr(0, written.find('\n'));
  const std::size_t prefix_end = line.find("]: ");
  return prefix_end == std::string::npos ? line : line.substr(prefix_end + 3);
}
