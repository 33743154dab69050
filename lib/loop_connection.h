// The connection of a loop's member, be it a client of a server or an endpoint's own: what differs
// between the two is known here alone.
#ifndef TARN_LIB_LOOP_CONNECTION_H
#define TARN_LIB_LOOP_CONNECTION_H

#include <cerrno>
#include <cstdint>

#include "lib/endpoint_internal.h"
#include "lib/loop_member.h"

namespace loop_connection {

// Null for an endpoint's own.
inline comm_socket_v4_client* record(const LoopMember& m) {
  return m.kind == LoopKind::client ? &m.home->endpoint->client[m.record] : nullptr;
}
int fd(const LoopMember& m);
bool is_open(const LoopMember& m);
// Whether bytes wait in the socket. True where that is not known.
bool has_bytes(const LoopMember& m);
struct ucred peer(const LoopMember& m);

struct Retrieved {
  CommPacket packet;
  bool dropped = false;  // one was received and is not handed out
  int error = 0;         // where there is no packet

  bool nothing() const { return packet == nullptr && !dropped; }
};
inline Retrieved retrieve(LoopMember& m) {
  comm_socket_v4* const endpoint = m.home->endpoint.get();
  const comm_v4_internals& own = comm_v4_internals::of(endpoint);
  const std::uint64_t dropped_before = own.packets_dropped;
  errno = 0;
  Retrieved result;
  result.packet.reset(m.kind == LoopKind::client
                          ? comm_socket_v4_client_get_packet(record(m))
                          : comm_socket_v4_client_get_packet_from_server(endpoint));
  if (result.packet == nullptr) result.error = errno;
  result.dropped = own.packets_dropped != dropped_before;
  return result;
}
// As the two sends.
inline int transmit(LoopMember& m, comm_socket_v4_packet& p) {
  return m.kind == LoopKind::client
             ? comm_socket_v4_packet_send_to_client(record(m), &p)
             : comm_socket_v4_packet_send_to_server(m.home->endpoint.get(), &p);
}
int end_sending(const LoopMember& m);
// Ends the connection for the peer, too, whoever else has a copy of the descriptor. What was sent
// to it can still be read.
void close(LoopMember& m);
void release(comm_socket_v4_client& client);

}  // namespace loop_connection

#endif
