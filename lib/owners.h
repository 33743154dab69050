// Owners of what the library and the kernel hand out: a reference to a packet, an endpoint, a
// descriptor. They give it back when their scope ends, and leave errno alone.
#ifndef TARN_LIB_OWNERS_H
#define TARN_LIB_OWNERS_H

#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

struct ReleasePacket {
  void operator()(comm_socket_v4_packet* p) const noexcept { comm_socket_v4_packet_release(p); }
};
struct DestroyEndpoint {
  void operator()(comm_socket_v4* c) const noexcept { comm_socket_v4_destroy(c); }
};
using Packet = std::unique_ptr<comm_socket_v4_packet, ReleasePacket>;  // holds one reference
using Endpoint = std::unique_ptr<comm_socket_v4, DestroyEndpoint>;

// Open, or none. There is no conversion to bool, since 0 is a descriptor.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() {
    if (!is_open()) return;
    const int error = errno;
    ::close(fd_);
    errno = error;
  }

  int get() const noexcept { return fd_; }
  bool is_open() const noexcept { return fd_ >= 0; }
  // The caller closes it from then on.
  int release() noexcept { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

#endif
