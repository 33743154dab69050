// Packets that break a rule of the format: which one, and where.
#ifndef TOOL_PACKET_CHECK_H
#define TOOL_PACKET_CHECK_H

#include <string>
#include <vector>

#include "tool/handles.h"

// Empty when a receiver accepts the packet. A NUL must follow its bytes, inside the buffer.
std::string broken_rule(const comm_socket_v4_packet& packet);

// Packets that did not pass, kept from within a receive callback for whoever reports them.
struct Refused {
  CommPacket packet;
  std::string rule;
};

// The body of a receive callback: a packet that breaks a rule is refused.
int keep_if_refused(std::vector<Refused>& refused, comm_socket_v4_packet& packet);
// For all that the endpoint of a client receives. Its tag is used up.
void keep_refused(comm_socket_v4& endpoint, std::vector<Refused>& refused);

#endif
