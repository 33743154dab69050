// A client's connection to a server, used with a limit of time.
#ifndef TOOL_CONNECTION_H
#define TOOL_CONNECTION_H

#include <cstdint>
#include <optional>
#include <string>

#include "tool/handles.h"

std::uint64_t now_us();  // the clock of the library's deadlines

// The number in "fd:3", which stands for a socket that whoever started this program has opened.
std::optional<int> inherited_descriptor(const std::string& path);

// `timeout_us` is not 0. It throws Failure when no server answers in time.
CommEndpoint connect_to_server(const std::string& path, std::uint64_t timeout_us, bool verbose);

#endif
