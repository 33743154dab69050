// The connection of a loop's member, be it a client of a server or an endpoint's own: what differs
// between the two is known here alone.
#ifndef TARN_LIB_LOOP_CONNECTION_H
#define TARN_LIB_LOOP_CONNECTION_H

#include "lib/loop_member.h"

namespace loop_connection {

// Null for an endpoint's own.
comm_socket_v4_client* record(const LoopMember& m);
int fd(const LoopMember& m);
bool is_open(const LoopMember& m);
// Whether bytes wait in the socket. True where that is not known.
bool has_bytes(const LoopMember& m);
struct ucred peer(const LoopMember& m);

struct Retrieved {
  CommPacket packet;
  bool dropped = false;     // one was received and is not handed out
  bool more_waits = false;  // behind it, as far as is known
  int error = 0;            // where there is no packet
};
Retrieved retrieve(LoopMember& m);
// As the two sends.
int transmit(LoopMember& m, comm_socket_v4_packet& p);
int end_sending(const LoopMember& m);
// Ends the connection for the peer, too, whoever else has a copy of the descriptor. What was sent
// to it can still be read.
void close(LoopMember& m);

}  // namespace loop_connection

#endif
