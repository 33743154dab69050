// A packet as people read it. No line that begins with a text of the packet begins at the margin:
// nobody who sends one makes it look like a line of the program.
#ifndef TOOL_PACKET_LISTING_H
#define TOOL_PACKET_LISTING_H

#include <tarn_utils_v4/comm.h>

#include <string>

// Of a packet that is valid. With `full` offsets, types, lengths and all bytes are in it, too. The
// parts of a packet that was put together by hand may lie over each other, each over all of it, and
// would take many thousand times its length: the listing has a limit, which says so. Other packets
// are always whole.
std::string listing_of(const comm_socket_v4_packet& packet, bool full);

#endif
