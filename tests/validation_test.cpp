// The gate between the bytes of a peer and the readers: every rule, its line, and its limit.
#include "support.h"

namespace {

using ValidationTest = CommTest;

// Every part a packet can have, and 16 bytes behind it that can be taken for 4 arguments or a pair.
constexpr std::uint32_t L = 474, kMax = UINT32_MAX;
std::string good_bytes() {
  return bytes_of(rich_packet().get()) + std::string("\1\0\0\0\1\0\0\0\1\0\0\0\1\0\0\0", 16);
}

// The good packet, to be damaged in place.
struct __attribute__((packed)) Form {
  comm_socket_v4_packet_header h;
  unsigned char texts_and_values[195];
  comm_socket_v4_packet_argv argument[4];
  comm_socket_v4_packet_nv_pair pair[9];

  void argv(std::uint8_t count, std::uint32_t offset) {
    h.argv_count = count;
    h.argv_offset = offset;
  }
  void pairs(std::uint16_t count, std::uint32_t offset) {
    h.nv_pair_table_count = count;
    h.nv_pair_table_offset = offset;
  }
  void data(std::uint32_t offset, std::uint32_t length) {
    h.data_offset = offset;
    h.data_length = length;
  }
  void set_argument(std::size_t i, std::uint8_t type, std::uint32_t offset) {
    std::memcpy(argument[i].value_offset, &offset, 3);
    argument[i].type_code = type;
  }
  void set_pair(std::size_t i, std::uint32_t name, std::uint32_t value, std::uint32_t length,
                std::uint32_t type = comm_v4_type_text) {
    pair[i] = {name, value, length, type};
  }
};

const std::string kAccepted;
const struct {
  std::string line;
  void (*damage)(Form& f);
} kRows[] = {
    {kAccepted, [](Form&) {}},
    {kAccepted, [](Form& f) { f.h.header_length = f.h.flags = kMax; }},
    {"sighdr wrong", [](Form& f) { f.h.sighdr = 0xABCD0200; }},
    {"sighdr wrong", [](Form& f) { f.h.sighdr = 0x2BCD0201; }},
    {"nv_pair_table_count >= 4096", [](Form& f) { f.h.nv_pair_table_count = 4096; }},
    {"argv_offset out of bounds", [](Form& f) { f.h.argv_offset = L; }},
    {"nv_pair_table_offset out of bounds", [](Form& f) { f.h.nv_pair_table_offset = L; }},
    {"argv invalid: count != 0 offset == 0", [](Form& f) { f.argv(1, 0); }},
    {"argv invalid: count == 0 offset != 0", [](Form& f) { f.argv(0, 1); }},
    {kAccepted, [](Form& f) { f.argv(0, 0); }},
    {"nv_pair_table invalid: count != 0 offset == 0", [](Form& f) { f.pairs(1, 0); }},
    {"nv_pair_table invalid: count == 0 offset != 0", [](Form& f) { f.pairs(0, 1); }},
    {kAccepted, [](Form& f) { f.pairs(0, 0); }},
    {kAccepted, [](Form& f) { f.h.argv_offset = L - 16; }},
    {"argv invalid: offset+count > buffer_length", [](Form& f) { f.argv(4, L - 15); }},
    {kAccepted, [](Form& f) { f.pairs(1, L - 16); }},
    {"nv_pair_table invalid: offset+count > buffer_length", [](Form& f) { f.pairs(1, L - 15); }},
    {"nv_pair_table invalid: offset+count > buffer_length", [](Form& f) { f.pairs(4095, 1); }},
    {kAccepted, [](Form& f) { f.h.error_string_offset = 0; }},
    {kAccepted, [](Form& f) { f.h.error_string_offset = L - 1; }},
    {"error string out of bounds", [](Form& f) { f.h.error_string_offset = L; }},
    {kAccepted, [](Form& f) { f.h.command_offset = L - 1; }},
    {"command string out of bounds or missing (0)", [](Form& f) { f.h.command_offset = 0; }},
    {"command string out of bounds or missing (474)", [](Form& f) { f.h.command_offset = L; }},
    {"binary data: offset != 0 length == 0", [](Form& f) { f.data(L, 0); }},
    {"binary data: offset+length > buffer_length", [](Form& f) { f.data(L, 1); }},
    {"binary data: offset+length > buffer_length", [](Form& f) { f.data(1, kMax); }},
    {"binary data: offset == 0 length != 0", [](Form& f) { f.data(0, 1); }},
    {kAccepted, [](Form& f) { f.data(0, 0); }},
    {kAccepted, [](Form& f) { f.data(L - 1, 1); }},
    {"binary data: offset+length > buffer_length", [](Form& f) { f.data(L - 1, 2); }},
    {"argv[0] unsupported type 1", [](Form& f) { f.set_argument(0, 1, L); }},
    {kAccepted, [](Form& f) { f.set_argument(0, 0, L - 1); }},
    {kAccepted, [](Form& f) { f.set_argument(0, 0, 0); }},
    {"argv[0] out of bounds (474)", [](Form& f) { f.set_argument(0, 0, L); }},
    {"argv[1] unsupported type 4", [](Form& f) { f.set_argument(1, 4, 1); }},
    {kAccepted, [](Form& f) { f.set_argument(1, 2, L - 8); }},
    {"argv[1] out of bounds (467)", [](Form& f) { f.set_argument(1, 2, L - 7); }},
    {kAccepted, [](Form& f) { f.set_argument(2, 3, L - 8); }},
    {"argv[2] out of bounds (467)", [](Form& f) { f.set_argument(2, 3, L - 7); }},
    {kAccepted, [](Form& f) { f.set_argument(3, 5, L - 8); }},
    {"argv[3] out of bounds (467)", [](Form& f) { f.set_argument(3, 5, L - 7); }},
    {kAccepted, [](Form& f) { f.set_pair(0, L - 1, L - 1, 0); }},
    {kAccepted, [](Form& f) { f.set_pair(0, 1, L - 1, 1); }},
    {kAccepted, [](Form& f) { f.set_pair(0, 1, 1, L - 1, kMax); }},
    {kAccepted, [](Form& f) { f.set_pair(0, 1, 1, 7, comm_v4_type_double); }},
    {"nv_pair[0] name missing or out of bounds (0)", [](Form& f) { f.set_pair(0, 0, 0, kMax); }},
    {"nv_pair[0] name missing or out of bounds (474)", [](Form& f) { f.set_pair(0, L, 0, kMax); }},
    {"nv_pair[0] value missing or out of bounds (0)", [](Form& f) { f.set_pair(0, 1, 0, kMax); }},
    {"nv_pair[0] value missing or out of bounds (474)", [](Form& f) { f.set_pair(0, 1, L, 0); }},
    {"nv_pair[0] value+length > buffer_length", [](Form& f) { f.set_pair(0, 1, L - 1, 2); }},
    {"nv_pair[0] value+length > buffer_length", [](Form& f) { f.set_pair(0, 1, 1, kMax); }},
    {"nv_pair[1] name missing or out of bounds (474)", [](Form& f) { f.set_pair(1, L, 1, 1); }},
};

TEST_F(ValidationTest, AcceptsTheLastByteThatFitsAndNamesTheRuleThatTheNextOneBreaks) {
  const Endpoint endpoint = make_endpoint();
  comm_socket_v4_debug_logging(endpoint.get());
  int row = 0;
  for (const auto& [line, damage] : kRows) {
    SCOPED_TRACE(testing::Message() << "row " << row++);
    std::string bytes = good_bytes();
    damage(*reinterpret_cast<Form*>(bytes.data()));
    const Packet p = exact_packet(bytes);
    const auto validate = [&] {
      auto* const header = reinterpret_cast<comm_socket_v4_packet_header*>(p->buffer);
      return comm_socket_v4_validate_packet_contents(endpoint.get(), p.get(), header);
    };
    const bool refused = line != kAccepted;
    EXPECT_EQ(
        Told(-refused, errno_before, Lines(refused, "DEBUG: packet validation failed. " + line)),
        told(validate));
    EXPECT_EQ(bytes, bytes_of(p.get()));
  }
}

}  // namespace
