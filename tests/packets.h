// Packets put together by hand, for tests and fuzz targets.
#ifndef COMM_TESTS_PACKETS_H
#define COMM_TESTS_PACKETS_H

#include <tarn_utils_v4/comm_cpp.h>

#include <cstdlib>
#include <cstring>
#include <string>

inline std::string bytes_of(const comm_socket_v4_packet* p) {
  return std::string(reinterpret_cast<const char*>(p->buffer), p->buffer_length);
}
// These bytes as a packet, as if received but not validated: the heap block ends with `tail`, the
// NUL behind the packet.
inline CommPacket exact_packet(const std::string& bytes, const std::string& tail = {'\0'}) {
  CommPacket p(comm_socket_v4_packet_create());
  p->buffer_length = bytes.size();
  p->buffer_alloc = bytes.size() + tail.size();
  p->buffer = static_cast<unsigned char*>(std::malloc(p->buffer_alloc));
  std::memcpy(p->buffer, (bytes + tail).data(), p->buffer_alloc);
  return p;
}

#endif
