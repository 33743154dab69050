#include "tool/descriptor_kind.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

namespace {

const char* name_of_type(mode_t mode, const std::string& link) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return link.starts_with("/memfd:") ? "memfd" : "file";
    case S_IFDIR:
      return "directory";
    case S_IFLNK:
      return "link";
    case S_IFCHR:
      return "character device";
    case S_IFBLK:
      return "block device";
    case S_IFIFO:
      return "pipe";
    case S_IFSOCK:
      return "socket";
    case 0:
      return "anonymous";
    default:
      return "unknown";
  }
}

const char* name_of_access(int flags) {
  if (flags < 0) return "unknown";
  if ((flags & O_PATH) != 0) return "path";
  const int access = flags & O_ACCMODE;
  if (access == O_RDWR) return "read-write";
  return access == O_WRONLY ? "write" : "read";
}

}  // namespace

DescriptorKind kind_of_descriptor(int fd) {
  DescriptorKind found;
  char link[PATH_MAX];
  const ssize_t length =
      ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), link, sizeof(link));
  if (length > 0) found.link.assign(link, static_cast<std::size_t>(length));
  found.access = name_of_access(::fcntl(fd, F_GETFL));
  // fstat would ask a user-space file system, which the sender may run, and wait for its answer.
  struct statx status;
  if (::statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE | STATX_SIZE, &status) != 0)
    return found;
  found.kind = name_of_type(status.stx_mode, found.link);
  if ((status.stx_mode & S_IFMT) == S_IFREG) found.size = status.stx_size;
  return found;
}
