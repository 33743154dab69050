// Packets as text, for debugging. A packet may be printed while it is being written, before it was
// validated, or after somebody put it together by hand: no offset, count or length is followed here
// except through View, which knows where the packet ends.
#include <tarn_utils_v4/comm_packet.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>

#include "lib/packet_layout.h"

namespace {

using Packet = comm_socket_v4_packet;
using Header = comm_socket_v4_packet_header;
using Argument = comm_socket_v4_packet_argv;
using Pair = comm_socket_v4_packet_nv_pair;
using Bytes = std::span<const unsigned char>;
using ullong = unsigned long long;  // what "%llX" prints

template <class Value>
Value load(const unsigned char* at) {
  Value value;
  std::memcpy(&value, at, sizeof(value));
  return value;
}

// Values that follow each other from any address on.
template <class Value>
class List {
 public:
  explicit List(Bytes bytes) : bytes_(bytes) {}
  std::size_t size() const { return bytes_.size() / sizeof(Value); }
  Value operator[](std::size_t i) const { return load<Value>(&bytes_[i * sizeof(Value)]); }

 private:
  Bytes bytes_;
};

// What lies inside a packet. Everything else is absent and reads as "", 0 or no bytes.
class View {
 public:
  explicit View(const Packet& p)
      : packet_(p.buffer, std::min(p.buffer_length, p.buffer_alloc)),
        readable_(std::min(packet_.size() + 1, p.buffer_alloc)),
        header_(packet_.size() >= sizeof(Header) ? load<Header>(p.buffer) : Header{}) {}

  const Header& header() const { return header_; }

  Bytes start(std::size_t length) const { return packet_.first(std::min(length, packet_.size())); }

  Bytes bytes(std::uint64_t offset, std::uint64_t length) const {
    if (offset == 0 || offset >= packet_.size()) return {};
    return packet_.subspan(offset, std::min<std::uint64_t>(length, packet_.size() - offset));
  }

  // The NUL behind the packet ends a text that runs to the packet's last byte.
  const char* text(std::uint64_t offset) const {
    if (offset == 0 || offset >= packet_.size()) return "";
    const unsigned char* const text = packet_.data() + offset;
    if (std::memchr(text, 0, readable_ - offset) == nullptr) return "";
    return reinterpret_cast<const char*>(text);
  }

  template <class Number>
  Number number(std::uint64_t offset) const {
    const List<Number> list(bytes(offset, sizeof(Number)));
    return list.size() != 0 ? list[0] : Number{};
  }

  List<Argument> arguments() const {
    return List<Argument>(bytes(header_.argv_offset, header_.argv_count * sizeof(Argument)));
  }
  List<Pair> pairs() const {
    const std::size_t length = header_.nv_pair_table_count * sizeof(Pair);
    return List<Pair>(bytes(header_.nv_pair_table_offset, length));
  }
  Bytes data() const { return bytes(header_.data_offset, header_.data_length); }

  template <class Value>
  List<Value> values(const Pair& pair) const {
    return List<Value>(bytes(pair.value_offset, pair.length()));
  }

 private:
  const Bytes packet_;
  const std::size_t readable_;
  const Header header_;
};

bool printable(unsigned char byte) { return byte >= 0x20 && byte <= 0x7e; }

// The characters of a four-character code; empty when the type is none.
std::string code_name(std::uint32_t type) {
  unsigned char code[sizeof(type)];
  std::memcpy(code, &type, sizeof(type));
  if (!std::all_of(code, code + sizeof(type), printable)) return std::string();
  return std::string(code, code + sizeof(type));
}

const char* request_word(const Packet& p) {
  return (p.flags & Packet::flag_request) != 0 ? "Request" : "Response";
}

std::uint32_t multipart(const Packet& p) {
  return (p.flags & Packet::multipart_mask) >> Packet::multipart_shift;
}

bool is_async(const Packet& p) { return (p.flags & Packet::flag_async) != 0; }

std::FILE* stream_or_stderr(std::FILE* out) { return out != nullptr ? out : stderr; }

// --- Full dump ----------------------------------------------------------------------------------

// Sixteen bytes to a line; a newline ends it even behind a full line.
void dump_block(std::FILE* out, Bytes block) {
  for (std::size_t i = 0; i < block.size(); ++i) {
    if (i % 16 == 0) std::fputs("  ", out);
    std::fprintf(out, printable(block[i]) ? "%c  " : "%02x ", block[i]);
    if (i % 16 == 15) std::fputc('\n', out);
  }
  std::fputc('\n', out);
}

void dump_fields(std::FILE* out, const Packet& p) {
  std::fprintf(out, "Refcount: %ld\n", long{p.refcount});
  std::fprintf(out, "Message ID: %llX\n", ullong{p.message_id});
  std::fprintf(out, "Stream ID: %llX\n", ullong{p.stream_id});
  std::fprintf(out, "Error code: %llX\n", ullong{p.error_code});
  std::fprintf(out, "Tag (internal): %llX\n", ullong{p.tag});
  std::fprintf(out, "Write state: %s\n", p.write_state_to_str());

  static const char* const multipart_words[] = {"multipart=none ", "multipart=first ",
                                                "multipart=middle ", "multipart=last "};
  std::fprintf(out, "Flags: Type=%s ", request_word(p));
  std::fputs(multipart_words[multipart(p)], out);
  if (is_async(p)) std::fputs("Async ", out);
  std::fputc('\n', out);

  if (p.attached_fd.empty()) return;
  std::fputs("File descriptors:", out);
  for (const int fd : p.attached_fd) std::fprintf(out, " %d", fd);
  std::fputc('\n', out);
}

void dump_strings(std::FILE* out, const View& view) {
  const unsigned long command = view.header().command_offset;
  const unsigned long error_string = view.header().error_string_offset;
  std::fprintf(out, "Command@%lu: '%s'\n", command, view.text(command));
  if (error_string != 0)
    std::fprintf(out, "ErrorString@%lu: '%s'\n", error_string, view.text(error_string));
}

void dump_argument(std::FILE* out, const View& view, std::size_t i, const Argument& argument) {
  const unsigned long offset = argument.offset();
  switch (argument.type()) {
    case comm_v4_type_text:
      std::fprintf(out, "   argv[%lu]@%lu: '%s'\n", i, offset, view.text(offset));
      break;
    case comm_v4_type_uint64:
      std::fprintf(out, "   argv[%lu]@%lu: 0x%016llx\n", i, offset, view.number<ullong>(offset));
      break;
    case comm_v4_type_int64:
      std::fprintf(out, "   argv[%lu]@%lu: %lld\n", i, offset, view.number<long long>(offset));
      break;
    case comm_v4_type_double:
      std::fprintf(out, "   argv[%lu]@%lu: %.20f\n", i, offset, view.number<double>(offset));
      break;
    default:
      std::fprintf(out, "   argv[%lu]@%lu: unknown type %u\n", i, offset, argument.type());
  }
}

// Indented lines of so many values each.
template <class Value, class Print>
void dump_rows(std::FILE* out, List<Value> list, std::size_t per_row, Print print) {
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (i % per_row == 0) std::fputs("      ", out);
    print(list[i]);
    if (i % per_row == per_row - 1 || i == list.size() - 1) std::fputc('\n', out);
  }
}

// Signed values are shown by their bits, too.
void dump_integers(std::FILE* out, List<unsigned long> list) {
  dump_rows(out, list, 4, [out](unsigned long value) { std::fprintf(out, "%016lx ", value); });
}

void dump_other_value(std::FILE* out, const View& view, const Pair& pair) {
  const std::string name = code_name(pair.type());
  const unsigned long type = pair.type();
  const unsigned long length = pair.length();
  if (type == comm_v4_type_binary)
    std::fprintf(out, "<BINARY LENGTH=%lu>\n", length);
  else if (!name.empty())
    std::fprintf(out, "<'%s' LENGTH=%lu>\n", name.c_str(), length);
  else
    std::fprintf(out, "<TYPE:0x%08lx LENGTH=%lu>\n", type, length);

  dump_rows(out, view.values<unsigned char>(pair), 16,
            [out](unsigned byte) { std::fprintf(out, "%02x ", byte); });

  if (type == comm_v4_type_binary)
    std::fputs("<END BINARY>\n", out);
  else if (!name.empty())
    std::fprintf(out, "<END '%s'>\n", name.c_str());
  else
    std::fprintf(out, "<END TYPE:0x%08lx>\n", type);
}

// LENGTH is what the pair says, also when less of it lies inside the packet.
void dump_pair(std::FILE* out, const View& view, const Pair& pair) {
  const unsigned long length = pair.length();
  const unsigned long count = length / 8;
  std::fprintf(out, "   nv: '%s' = ", view.text(pair.name_offset));
  switch (pair.type()) {
    case comm_v4_type_text:
      std::fprintf(out, "<TEXT LENGTH=%lu> '%s'\n", length, view.text(pair.value_offset));
      break;
    case comm_v4_type_json:
      std::fprintf(out, "<JSON LENGTH=%lu> '%s'\n", length, view.text(pair.value_offset));
      break;
    case comm_v4_type_double:
      std::fprintf(out, "<DOUBLE LENGTH=%lu, %lu entries>\n", length, count);
      dump_rows(out, view.values<double>(pair), 1,
                [out](double value) { std::fprintf(out, "%.20f ", value); });
      std::fputs("<END DOUBLE>\n", out);
      break;
    case comm_v4_type_uint64:
      std::fprintf(out, "<UINT64 LENGTH=%lu, %lu entries>\n", length, count);
      dump_integers(out, view.values<unsigned long>(pair));
      std::fputs("<END UINT64>\n", out);
      break;
    case comm_v4_type_int64:
      std::fprintf(out, "<INT64 LENGTH=%lu, %lu entries>\n", length, count);
      dump_integers(out, view.values<unsigned long>(pair));
      std::fputs("<END INT64>\n", out);
      break;
    default:
      dump_other_value(out, view, pair);
  }
}

void dump_data(std::FILE* out, const View& view) {
  const unsigned long length = view.header().data_length;
  const unsigned long offset = view.header().data_offset;
  if (length == 0) return;
  std::fprintf(out, "Data: %lu bytes at offset %lu\n", length, offset);
  dump_block(out, view.bytes(offset, std::min(length, 32ul)));
}

// --- User-friendly listing ----------------------------------------------------------------------

void list_fields(std::FILE* out, const Packet& p) {
  std::fprintf(out, "*Message ID: 0x%llX\n", ullong{p.message_id});
  std::fprintf(out, "*Stream ID:  0x%llX\n", ullong{p.stream_id});
  std::fprintf(out, "*Error code: 0x%llX\n", ullong{p.error_code});
  std::fprintf(out, "*Tag (int):  0x%llX\n", ullong{p.tag});
  std::fprintf(out, "*Type:       %s%s\n", is_async(p) ? "Asynchronous " : "", request_word(p));

  static const char* const multipart_lines[] = {"", "*Multipart:  First\n", "*Multipart:  Middle\n",
                                                "*Multipart:  Last\n"};
  std::fputs(multipart_lines[multipart(p)], out);
}

void list_strings(std::FILE* out, const View& view) {
  const Header& header = view.header();
  if (header.error_string_offset != 0)
    std::fprintf(out, "*Error str:  %s\n", view.text(header.error_string_offset));
  std::fprintf(out, "*Command:    %s\n", view.text(header.command_offset));
}

void list_argument(std::FILE* out, const View& view, std::size_t i, const Argument& argument) {
  const std::uint64_t offset = argument.offset();
  switch (argument.type()) {
    case comm_v4_type_text:
      std::fprintf(out, "*Argv[%lu]:    %s\n", i, view.text(offset));
      break;
    case comm_v4_type_uint64:
      std::fprintf(out, "*Argv[%lu]:    0x%016llx\n", i, view.number<ullong>(offset));
      break;
    case comm_v4_type_int64:
      std::fprintf(out, "*Argv[%lu]:    %lld\n", i, view.number<long long>(offset));
      break;
    case comm_v4_type_double:
      std::fprintf(out, "*Argv[%lu]:    %.20f\n", i, view.number<double>(offset));
      break;
    default:
      std::fprintf(out, "*Argv[%lu]:    (unknown type)\n", i);
  }
}

// All on the line of the name.
template <class Value, class Print>
void list_values(std::FILE* out, List<Value> list, Print print) {
  for (std::size_t i = 0; i < list.size(); ++i) print(list[i]);
  std::fputc('\n', out);
}

void list_other_value(std::FILE* out, const View& view, const Pair& pair) {
  const std::string name = code_name(pair.type());
  const unsigned long type = pair.type();
  if (type == comm_v4_type_binary)
    std::fputs(":(BINARY) ", out);
  else if (!name.empty())
    std::fprintf(out, ":('%s') ", name.c_str());
  else
    std::fprintf(out, ":(0x%08lx) ", type);
  list_values(out, view.values<unsigned char>(pair),
              [out](unsigned byte) { std::fprintf(out, "%02x ", byte); });
}

void list_pair(std::FILE* out, const View& view, const Pair& pair) {
  std::fputs(view.text(pair.name_offset), out);
  switch (pair.type()) {
    case comm_v4_type_text:
      std::fprintf(out, ": %s\n", view.text(pair.value_offset));
      break;
    case comm_v4_type_json:
      std::fprintf(out, ":(JSON) %s\n", view.text(pair.value_offset));
      break;
    case comm_v4_type_double:
      std::fputs(":(DOUBLE) ", out);
      list_values(out, view.values<double>(pair),
                  [out](double value) { std::fprintf(out, "%.6f ", value); });
      break;
    case comm_v4_type_uint64:
      std::fputs(":(UINT64) ", out);
      list_values(out, view.values<unsigned long>(pair),
                  [out](unsigned long value) { std::fprintf(out, "%016lx ", value); });
      break;
    case comm_v4_type_int64:
      std::fputs(":(INT64) ", out);
      list_values(out, view.values<long long>(pair),
                  [out](long long value) { std::fprintf(out, "%lld ", value); });
      break;
    default:
      list_other_value(out, view, pair);
  }
}

}  // namespace

void comm_socket_v4_packet::dump(std::FILE* out) const {
  out = stream_or_stderr(out);
  std::fprintf(out, "comm_socket_v4_packet[%p]: ", static_cast<const void*>(this));
  if (buffer == nullptr) {
    std::fputs("(no buffer)\n", out);
    return;
  }
  std::fputc('\n', out);
  if (buffer_length < COMM_V4_HEADER_LENGTH || buffer_length >= buffer_alloc) {
    std::fputs("(invalid buffer length)\n", out);
    return;
  }
  if (buffer[buffer_length] != 0) {
    std::fputs("(last byte of buffer is not nullptr)\n", out);
    return;
  }

  const View view(*this);
  dump_block(out, view.start(COMM_V4_HEADER_LENGTH + 1));
  dump_fields(out, *this);
  dump_strings(out, view);
  const List<Argument> arguments = view.arguments();
  for (std::size_t i = 0; i < arguments.size(); ++i) dump_argument(out, view, i, arguments[i]);
  const List<Pair> pairs = view.pairs();
  for (std::size_t i = 0; i < pairs.size(); ++i) dump_pair(out, view, pairs[i]);
  dump_data(out, view);
}

void comm_socket_v4_packet::dump_header_user_friendly(std::FILE* out) const {
  if (buffer == nullptr) return;
  out = stream_or_stderr(out);
  const View view(*this);
  list_fields(out, *this);
  list_strings(out, view);
  const List<Argument> arguments = view.arguments();
  for (std::size_t i = 0; i < arguments.size(); ++i) list_argument(out, view, i, arguments[i]);
  const List<Pair> pairs = view.pairs();
  for (std::size_t i = 0; i < pairs.size(); ++i) list_pair(out, view, pairs[i]);
}

void comm_socket_v4_packet::dump_user_friendly(std::FILE* out) const {
  dump_header_user_friendly(out);
  dump_body(out);
}

void comm_socket_v4_packet::dump_body(std::FILE* out) const {
  if (buffer == nullptr) return;
  const Bytes data = View(*this).data();
  if (!data.empty()) std::fwrite(data.data(), 1, data.size(), stream_or_stderr(out));
}

void comm_socket_v4_packet_dump(const comm_socket_v4_packet* p, std::FILE* out) {
  if (p != nullptr) return p->dump(out);
  std::fprintf(stream_or_stderr(out), "comm_socket_v4_packet[%p]: ", static_cast<const void*>(p));
  std::fputs("(null)\n", stream_or_stderr(out));
}

void comm_socket_v4_packet_dump_header_user_friendly(const comm_socket_v4_packet* p,
                                                     std::FILE* out) {
  p->dump_header_user_friendly(out);
}

void comm_socket_v4_packet_dump_user_friendly(const comm_socket_v4_packet* p, std::FILE* out) {
  if (p != nullptr) p->dump_user_friendly(out);
}

void comm_socket_v4_packet_dump_body(const comm_socket_v4_packet* p, std::FILE* out) {
  if (p != nullptr) p->dump_body(out);
}
