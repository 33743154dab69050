// Owners of packets and endpoints, and packets put together by hand, for tests and fuzz targets.
#ifndef COMM_TESTS_PACKETS_H
#define COMM_TESTS_PACKETS_H

#include <tarn_utils_v4/comm.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

struct ReleasePacket {
  void operator()(comm_socket_v4_packet* p) const { comm_socket_v4_packet_release(p); }
};
struct DestroyEndpoint {
  void operator()(comm_socket_v4* c) const { comm_socket_v4_destroy(c); }
};
using Packet = std::unique_ptr<comm_socket_v4_packet, ReleasePacket>;  // holds one reference
using Endpoint = std::unique_ptr<comm_socket_v4, DestroyEndpoint>;

inline std::string bytes_of(const comm_socket_v4_packet* p) {
  return std::string(reinterpret_cast<const char*>(p->buffer), p->buffer_length);
}
// These bytes as a packet, as if received but not validated: the heap block ends with `tail`, the
// NUL behind the packet.
inline Packet exact_packet(const std::string& bytes, const std::string& tail = {'\0'}) {
  Packet p(comm_socket_v4_packet_create());
  p->buffer_length = bytes.size();
  p->buffer_alloc = bytes.size() + tail.size();
  p->buffer = static_cast<unsigned char*>(std::malloc(p->buffer_alloc));
  std::memcpy(p->buffer, (bytes + tail).data(), p->buffer_alloc);
  return p;
}

#endif
