// Owners of what the library and the kernel hand out.
#ifndef TOOL_HANDLES_H
#define TOOL_HANDLES_H

#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <utility>

struct PacketRelease {
  void operator()(comm_socket_v4_packet* p) const { comm_socket_v4_packet_release(p); }
};
using PacketPtr = std::unique_ptr<comm_socket_v4_packet, PacketRelease>;

struct EndpointDestroy {
  void operator()(comm_socket_v4* c) const { comm_socket_v4_destroy(c); }
};
using EndpointPtr = std::unique_ptr<comm_socket_v4, EndpointDestroy>;

inline PacketPtr new_packet() {
  PacketPtr packet(comm_socket_v4_packet_create());
  if (packet == nullptr) throw std::bad_alloc();
  return packet;
}

// Without its error lines, for which the caller has words of its own. With `verbose` it says
// everything.
inline EndpointPtr new_endpoint(bool verbose) {
  EndpointPtr endpoint(comm_socket_v4_create());
  if (endpoint == nullptr) throw std::bad_alloc();
  endpoint->log_mask = verbose ? 15 : 2;
  return endpoint;
}

// A descriptor, or none.
class OwnedFd {
 public:
  OwnedFd() = default;
  explicit OwnedFd(int fd) : fd_(fd) {}
  OwnedFd(OwnedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  OwnedFd& operator=(OwnedFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~OwnedFd() {
    if (fd_ >= 0) ::close(fd_);
  }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

#endif
