// For C++17 and later, on top of comm.h, and header only: what a program writes again and again
// around the library. Owners of what it hands out come first.
#ifndef TARN_UTILS_V4_COMM_CPP_H
#define TARN_UTILS_V4_COMM_CPP_H

#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

// ------------------------------------------------------------------------------------------------
// Owners of what the library and the kernel hand out: one reference to a packet, an endpoint, a
// descriptor. Each may be empty, moves and is never copied. They give back what they hold when
// their scope ends, and leave errno alone.

struct CommReleasePacket {
  void operator()(comm_socket_v4_packet* p) const noexcept { comm_socket_v4_packet_release(p); }
};
struct CommDestroyEndpoint {
  void operator()(comm_socket_v4* c) const noexcept { comm_socket_v4_destroy(c); }
};

// Like every std::unique_ptr these let go with release(), and the caller gives back from then on.
using CommPacket = std::unique_ptr<comm_socket_v4_packet, CommReleasePacket>;
using CommEndpoint = std::unique_ptr<comm_socket_v4, CommDestroyEndpoint>;

// Open, or none. There is no conversion to bool, since 0 is a descriptor.
class CommDescriptor {
 public:
  explicit CommDescriptor(int fd = -1) noexcept : fd_(fd) {}
  CommDescriptor(CommDescriptor&& other) noexcept : fd_(other.release()) {}
  CommDescriptor& operator=(CommDescriptor other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~CommDescriptor() {
    if (!is_open()) return;
    const int error = errno;
    ::close(fd_);
    errno = error;
  }

  int get() const noexcept { return fd_; }
  bool is_open() const noexcept { return fd_ >= 0; }
  // Returns the descriptor, which the caller closes from then on; -1 when there is none.
  int release() noexcept { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// Takes another reference to a packet, which may be null.
// Returns its owner; empty for null.
inline CommPacket comm_share_packet(comm_socket_v4_packet* p) noexcept {
  comm_socket_v4_packet_addref(p);
  return CommPacket(p);
}

#endif
