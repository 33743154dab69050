#include "lib/received_descriptors.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "lib/errno_guard.h"

namespace {

constexpr std::size_t most_descriptors = 253;  // in one record, SCM_MAX_FD of the kernel

void close_all(struct msghdr& message) noexcept {
  for (struct cmsghdr* control = CMSG_FIRSTHDR(&message); control != nullptr;
       control = CMSG_NXTHDR(&message, control)) {
    if (control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t count = (control->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(control) + i * sizeof(fd), sizeof(fd));
      close_received(fd);
    }
  }
}

// False when no record is left.
bool discard_record(int fd) noexcept {
  alignas(struct cmsghdr) char
      control[CMSG_SPACE(most_descriptors * sizeof(int)) + CMSG_SPACE(sizeof(struct ucred))];
  char byte;
  struct iovec bytes = {&byte, sizeof(byte)};
  struct msghdr message = {};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t count = ::recvmsg(fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  // A reset is reported once, in front of what waits.
  if (count < 0) return errno == ECONNRESET || errno == EINTR;
  close_all(message);
  return count > 0 || CMSG_FIRSTHDR(&message) != nullptr;
}

}  // namespace

void close_received(int fd) noexcept {
  struct linger how;
  socklen_t length = sizeof(how);
  if (::getsockopt(fd, SOL_SOCKET, SO_LINGER, &how, &length) == 0 && how.l_onoff != 0 &&
      how.l_linger > 0) {
    how.l_onoff = 0;
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &how, sizeof(how));
  }
  ::close(fd);
}

void discard_unread(int fd) noexcept {
  ErrnoGuard keep_errno;
  ::shutdown(fd, SHUT_RDWR);
  // Every record brings its sender then: an empty one looks like the end otherwise.
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on));
  while (discard_record(fd)) continue;
}
