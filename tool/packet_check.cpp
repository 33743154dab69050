#include "tool/packet_check.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "tool/handles.h"

namespace {

using Header = comm_socket_v4_packet_header;
using Argument = comm_socket_v4_packet_argv;
using Pair = comm_socket_v4_packet_nv_pair;

// The part of the packet that a message of the validation is about.
struct Field {
  const char* message;  // how the message begins, behind the entry's index if it is about an entry
  const char* name;
  std::size_t offset;
  std::size_t width;
};

#define FIELD(message, type, name) \
  { message, #name, offsetof(type, name), sizeof(type::name) }
constexpr Field header_fields[] = {FIELD("sighdr", Header, sighdr),
                                   FIELD("nv_pair_table_count", Header, nv_pair_table_count),
                                   FIELD("argv_offset", Header, argv_offset),
                                   FIELD("nv_pair_table_offset", Header, nv_pair_table_offset),
                                   FIELD("argv invalid", Header, argv_count),
                                   FIELD("argv invalid", Header, argv_offset),
                                   FIELD("nv_pair_table invalid", Header, nv_pair_table_count),
                                   FIELD("nv_pair_table invalid", Header, nv_pair_table_offset),
                                   FIELD("error string", Header, error_string_offset),
                                   FIELD("command string", Header, command_offset),
                                   FIELD("binary data", Header, data_offset),
                                   FIELD("binary data", Header, data_length)};
constexpr Field argument_fields[] = {FIELD("unsupported type", Argument, type_code),
                                     FIELD("out of bounds", Argument, value_offset)};
constexpr Field pair_fields[] = {
    FIELD("name", Pair, name_offset), FIELD("value missing", Pair, value_offset),
    FIELD("value+length", Pair, value_offset), FIELD("value+length", Pair, value_length)};
#undef FIELD

const Header* header_of(const comm_socket_v4_packet& packet) {
  return reinterpret_cast<const Header*>(packet.buffer);
}

// "NAME at byte OFFSET is VALUE; " for each field of the structure at `base` that the message
// names.
template <std::size_t count>
std::string places(const comm_socket_v4_packet& packet, const Field (&fields)[count],
                   const std::string& message, const std::string& owner, std::size_t base) {
  std::string text;
  for (const Field& field : fields) {
    if (!message.starts_with(field.message)) continue;
    const std::size_t at = base + field.offset;
    std::uint64_t value = 0;
    for (std::size_t i = field.width; i-- > 0;) value = value << 8 | packet.buffer[at + i];
    text += owner + field.name + " at byte " + std::to_string(at) + " is " + std::to_string(value) +
            "; ";
  }
  return text;
}

// `message` as the library words it, "argv[3] unsupported type 9" for instance.
std::string places_in(const comm_socket_v4_packet& packet, const std::string& message) {
  const std::size_t bracket = message.find("] ");
  std::size_t index = 0;
  if (bracket == std::string::npos) return places(packet, header_fields, message, "", 0);
  const std::string owner = message.substr(0, bracket + 1) + ".";
  const std::string rest = message.substr(bracket + 2);
  if (std::sscanf(message.c_str(), "argv[%zu]", &index) == 1)
    return places(packet, argument_fields, rest, owner,
                  header_of(packet)->argv_offset + index * sizeof(Argument));
  if (std::sscanf(message.c_str(), "nv_pair[%zu]", &index) == 1)
    return places(packet, pair_fields, rest, owner,
                  header_of(packet)->nv_pair_table_offset + index * sizeof(Pair));
  return std::string();
}

}  // namespace

CommPacket packet_of(std::string_view bytes) {
  CommPacket packet = new_packet();
  if (packet->resize_buffer(bytes.size() + 1) != 0) throw std::bad_alloc();
  std::memcpy(packet->buffer, bytes.data(), bytes.size());
  packet->buffer[bytes.size()] = 0;
  packet->buffer_length = bytes.size();
  return packet;
}

std::string broken_rule(comm_socket_v4_packet& packet) {
  const std::string length = "the packet has " + std::to_string(packet.buffer_length) + " bytes";
  if (packet.buffer_length < COMM_V4_MIN_RECEIVED_PACKET)
    return "too short: " + length + ", at least " + std::to_string(COMM_V4_MIN_RECEIVED_PACKET) +
           " are needed";

  std::string message;
  const CommEndpoint checker = new_endpoint(true);
  comm_socket_v4_set_log_sink(checker.get(), keep_first_line, &message);
  if (comm_socket_v4_client_on_recv_packet(checker.get(), &packet) == 0) return "";
  const std::string prefix = "packet validation failed. ";
  if (message.starts_with(prefix)) message.erase(0, prefix.size());
  return message + " (" + places_in(packet, message) + length + ")";
}
