// Packets as JSON, an object each, and back: the schema is in the manual page.
#ifndef TOOL_PACKET_JSON_H
#define TOOL_PACKET_JSON_H

#include <string>

#include "tool/handles.h"
#include "tool/json_reader.h"
#include "tool/packet_recipe.h"

// One line, of a packet that is valid. `more` is appended to its members: ", \"name\": value". One
// whose parts lie over each other so often that it had no end is there as its bytes.
std::string json_of(const comm_socket_v4_packet& packet, const std::string& more);

// Throws Failure where the text is no such object, or no packet can be made of it. The command of
// an answer may be left to its request.
PacketRecipe recipe_of(const JsonText& text, bool is_answer);

#endif
