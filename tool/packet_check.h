// Packets that break a rule of the format: which one, and where.
#ifndef TOOL_PACKET_CHECK_H
#define TOOL_PACKET_CHECK_H

#include <tarn_utils_v4/comm.h>

#include <string>
#include <string_view>

#include "tool/handles.h"

// Not yet known to be valid.
CommPacket packet_of(std::string_view bytes);

// Takes the packet as a receiver does, and returns an empty text when it passes. A NUL must follow
// its bytes, inside the buffer.
std::string broken_rule(comm_socket_v4_packet& packet);

#endif
