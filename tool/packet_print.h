// Packets and what they carry, for people and for files.
#ifndef TOOL_PACKET_PRINT_H
#define TOOL_PACKET_PRINT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "tool/arguments.h"
#include "tool/handles.h"

enum class Format { readable, full, json, data, none };

#define FORMAT_OPTION_HELP \
  "  -f, --format FORMAT       how packets are printed: readable, full, json, data or none\n"

Option format_option(Format& target);

// To standard output. The data format is the bytes of the data, as they are, and nothing else;
// `more` is appended to the members of a JSON object.
void print_packet(const comm_socket_v4_packet& packet, Format format, const std::string& more = "");
// One line with the time of day before it.
void print_event(std::FILE* out, std::string_view text);
// "'ping', 94 bytes, 1 descriptor"
std::string summary(const comm_socket_v4_packet& packet);
std::string count_of(std::size_t count, const char* thing);

// Writes what the received descriptors refer to into files of a folder.
class DescriptorFolder {
 public:
  explicit DescriptorFolder(std::string path) : path_(std::move(path)) {}
  // Takes them out of the packet. A pipe that has not ended at the deadline is a failure.
  void save(comm_socket_v4_packet& packet, std::uint64_t deadline_us);

 private:
  const std::string path_;
  unsigned next_ = 0;
};

#endif
