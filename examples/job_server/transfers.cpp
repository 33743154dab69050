#include "transfers.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

// Whether the call that just failed is worth another try.
bool may_try_again(int fd, short events) {
  if (errno == EINTR) return true;
  if (errno != EAGAIN) return false;
  struct pollfd ready = {fd, events, 0};
  return ::poll(&ready, 1, -1) > 0 || errno == EINTR;
}

CommMultipart place_in_series(bool is_first, bool is_last) {
  if (is_first) return is_last ? CommMultipart::none : CommMultipart::first;
  return is_last ? CommMultipart::last : CommMultipart::middle;
}

}  // namespace

ssize_t read_all(int fd, unsigned char* bytes, std::size_t count) {
  std::size_t done = 0;
  while (done < count) {
    const ssize_t got = ::read(fd, bytes + done, count - done);
    if (got == 0) break;
    if (got > 0)
      done += static_cast<std::size_t>(got);
    else if (!may_try_again(fd, POLLIN))
      return -1;
  }
  return static_cast<ssize_t>(done);
}

bool write_all(int fd, CommBytes bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t put = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (put >= 0)
      done += static_cast<std::size_t>(put);
    else if (!may_try_again(fd, POLLOUT))
      return false;
  }
  return true;
}

CommDescriptor make_temporary_file() {
  std::FILE* const file = std::tmpfile();
  if (file == nullptr) return CommDescriptor();
  CommDescriptor fd(::fcntl(::fileno(file), F_DUPFD_CLOEXEC, 0));
  std::fclose(file);
  return fd;
}

// A part that is not full is the last one; behind full ones it may be empty.
CommPacket Outgoing::next() {
  std::vector<unsigned char> part(file_.is_open() ? part_size : 0);
  const ssize_t count = read_all(file_.get(), part.data(), part.size());
  if (count < 0) return nullptr;
  part.resize(static_cast<std::size_t>(count));
  const bool is_first = !std::exchange(has_begun_, true);
  has_ended_ = part.size() < part_size;
  return begin_().multipart(place_in_series(is_first, has_ended_)).data(part).finish();
}
