#include "suite/io.h"

#include <fcntl.h>

int fd_dont_close_on_exec(int fd) {
  const int flags = ::fcntl(fd, F_GETFD);
  if (flags < 0) return -1;
  return ::fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC);
}
