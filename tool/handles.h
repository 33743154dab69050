// New packets and endpoints, or std::bad_alloc, and what an endpoint logs.
#ifndef TOOL_HANDLES_H
#define TOOL_HANDLES_H

#include <tarn_utils_v4/comm_cpp.h>

#include <new>
#include <string>

inline CommPacket new_packet() {
  CommPacket packet(comm_socket_v4_packet_create());
  if (packet == nullptr) throw std::bad_alloc();
  return packet;
}

// Without its error lines, for which the caller has words of its own. With `verbose` it says
// everything. No program that is started inherits what it receives.
inline CommEndpoint new_endpoint(bool verbose) {
  CommEndpoint endpoint(comm_socket_v4_create());
  if (endpoint == nullptr) throw std::bad_alloc();
  endpoint->log_mask = verbose ? 15 : 2;
  comm_socket_v4_set_descriptors_cloexec(endpoint.get(), 1);
  return endpoint;
}

// A log sink: the first line goes to the std::string at `user`, the others nowhere.
inline void keep_first_line(void* user, const char* /*level*/, const char* text) noexcept {
  auto& line = *static_cast<std::string*>(user);
  if (line.empty()) line = text;
}

#endif
