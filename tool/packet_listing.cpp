#include "tool/packet_listing.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "tool/descriptor_kind.h"
#include "tool/packet_print.h"
#include "tool/visible_text.h"

namespace {

using Pair = comm_socket_v4_packet_nv_pair;

constexpr std::size_t max_listing = 1'000'000;
// Without overlaps a byte takes 4 characters as an escape and not quite 5 among the bytes of the
// full listing; numbers, entries of tables and the rest of their lines take less.
static_assert(COMM_V4_MAX_RECEIVED_PACKET * 9 + 10'000 < max_listing);

template <class... Values>
std::string formatted(const char* format, Values... values) {
  char text[128];
  std::snprintf(text, sizeof(text), format, values...);
  return text;
}

// Small numbers are the same both ways.
std::string with_hex(std::uint64_t number) {
  const std::string decimal = std::to_string(number);
  return number < 10 ? decimal : decimal + formatted(" (0x%jx)", std::uintmax_t{number});
}

std::string decimal(double number) {
  char text[32];
  return {text, std::to_chars(text, text + sizeof(text), number).ptr};
}

bool printable(unsigned char byte) { return byte >= 0x20 && byte <= 0x7e; }

std::string type_name(std::uint32_t type) {
  constexpr const char* names[] = {"TEXT", "BINARY", "UINT64", "DOUBLE", "JSON", "INT64"};
  if (type < std::size(names)) return names[type];
  char code[sizeof(type)];
  std::memcpy(code, &type, sizeof(type));
  const bool is_text = std::all_of(code, code + sizeof(code), printable);
  return is_text ? in_quotes({code, sizeof(code)}) : formatted("0x%08x", type);
}

class Listing {
 public:
  Listing(const comm_socket_v4_packet& packet, bool full)
      : packet_(packet),
        header_(*reinterpret_cast<const comm_socket_v4_packet_header*>(packet.buffer)),
        full_(full) {}

  std::string text() {
    add_header();
    for (std::size_t i = 0; i < packet_.argc() && has_room(); ++i) add_argument(i);
    for (std::size_t i = 0; i < packet_.nv_entries() && has_room(); ++i)
      add_pair(*packet_.nv_entry(i));
    if (!packet_.attached_fd.empty()) add_descriptors();
    if (packet_.data_length() != 0 && has_room()) add_data();
    if (full_ && has_room()) add_bytes();
    if (!has_room())
      text_ +=
          "*Cut:        no more than " + std::to_string(max_listing) + " characters are shown\n";
    return std::move(text_);
  }

 private:
  bool has_room() const { return text_.size() < max_listing; }
  void add_visible(std::string_view text) { append_visible(text_, text, max_listing); }

  std::string at(std::uint64_t offset) const {
    return full_ && offset != 0 ? "@" + std::to_string(offset) : "";
  }

  void add_field(const std::string& label, std::string_view value, std::uint64_t offset = 0) {
    text_ += formatted("*%-11s ", (label + at(offset) + ":").c_str());
    add_visible(value);
    text_ += '\n';
  }

  void add_header() {
    static const char* const parts[] = {"", "First", "Middle", "Last"};
    const std::uint32_t part = (packet_.flags & comm_socket_v4_packet::multipart_mask) >>
                               comm_socket_v4_packet::multipart_shift;
    const bool async = (packet_.flags & comm_socket_v4_packet::flag_async) != 0;
    const bool request = (packet_.flags & comm_socket_v4_packet::flag_request) != 0;
    add_field("Message ID", with_hex(packet_.message_id));
    add_field("Stream ID", with_hex(packet_.stream_id));
    add_field("Error code", with_hex(packet_.error_code));
    add_field("Type",
              std::string(async ? "Asynchronous " : "") + (request ? "Request" : "Response"));
    if (part != 0) add_field("Multipart", parts[part]);
    if (header_.error_string_offset != 0)
      add_field("Error str", packet_.error_string(), header_.error_string_offset);
    add_field("Command", packet_.command(), header_.command_offset);
  }

  void add_argument(std::size_t index) {
    const comm_socket_v4_packet_argv* const entry = packet_.argv(index);
    const std::string label = "Argv[" + std::to_string(index) + "]";
    if (entry->type() == comm_v4_type_text)
      return add_field(label, packet_.argv_text(entry), entry->offset());
    const std::string value =
        !entry->is_present()                   ? "absent"
        : entry->type() == comm_v4_type_uint64 ? with_hex(packet_.argv_uint64(entry))
        : entry->type() == comm_v4_type_int64  ? std::to_string(packet_.argv_int64(entry))
                                               : decimal(packet_.argv_double(entry));
    add_field(label + "(" + type_name(entry->type()) + ")", value, entry->offset());
  }

  void add_pair(const Pair& pair) {
    std::string about;
    if (full_ || pair.type() != comm_v4_type_text) about = type_name(pair.type());
    if (full_) about += ", " + count_of(pair.length(), "byte") + at(pair.value_offset);
    text_ += "  ";
    add_visible(packet_.nv_pair_name(&pair));
    text_ += at(pair.name_offset) + (about.empty() ? ": " : ":(" + about + ") ");
    add_value(pair);
    text_ += '\n';
  }

  void add_value(const Pair& pair) {
    switch (pair.type()) {
      case comm_v4_type_text:
      case comm_v4_type_json:
        return add_visible(packet_.nv_pair_value_text(&pair));
      case comm_v4_type_uint64:
        return add_list<std::uint64_t>(pair, ",", [](auto n) { return std::to_string(n); });
      case comm_v4_type_int64:
        return add_list<std::int64_t>(pair, ",", [](auto n) { return std::to_string(n); });
      case comm_v4_type_double:
        return add_list<double>(pair, ",", decimal);
      default:
        return add_list<unsigned char>(pair, "", [](auto byte) { return formatted("%02x", byte); });
    }
  }

  // What does not fit the line of the name goes on in lines of its own.
  template <class Value, class Words>
  void add_list(const Pair& pair, const char* separator, Words words) {
    constexpr std::size_t width = 80;
    const unsigned char* const values = packet_.nv_pair_value_raw(&pair);
    const std::size_t count = pair.length() / sizeof(Value);
    std::size_t start = text_.rfind('\n') + 1;
    for (std::size_t i = 0; i < count && has_room(); ++i) {
      Value value;
      std::memcpy(&value, values + i * sizeof(value), sizeof(value));
      const std::string word = words(value) + (i + 1 < count ? separator : "");
      const bool is_full = text_.size() - start + word.size() >= width;
      if (is_full) text_ += "\n   ";
      if (is_full) start = text_.size() - 3;
      text_ += (i != 0 || is_full ? " " : "") + word;
    }
  }

  void add_descriptors() {
    add_field("Descriptors", std::to_string(packet_.attached_fd.size()));
    for (const int fd : packet_.attached_fd) {
      const DescriptorKind found = kind_of_descriptor(fd);
      text_ += std::string("  ") + found.kind + ", " + found.access;
      if (found.size.has_value()) text_ += ", " + count_of(*found.size, "byte");
      if (!found.link.empty()) text_ += ", ";
      add_visible(found.link);
      text_ += '\n';
    }
  }

  void add_data() {
    std::string_view data(reinterpret_cast<const char*>(packet_.data()), packet_.data_length());
    add_field("Data", count_of(data.size(), "byte"), header_.data_offset);
    while (!data.empty() && has_room()) {
      const std::string_view line = data.substr(0, data.find('\n'));
      text_ += "  ";
      add_visible(line);
      text_ += '\n';
      data.remove_prefix(std::min(line.size() + 1, data.size()));
    }
  }

  void add_bytes() {
    constexpr std::size_t per_line = 16;
    add_field("Bytes", std::to_string(packet_.buffer_length));
    for (std::size_t start = 0; start < packet_.buffer_length && has_room(); start += per_line) {
      std::string numbers;
      std::string characters;
      for (std::size_t i = start; i < std::min(start + per_line, packet_.buffer_length); ++i) {
        const unsigned char byte = packet_.buffer[i];
        numbers += formatted("%02x ", byte);
        characters += printable(byte) ? static_cast<char>(byte) : '.';
      }
      text_ += formatted("  %5zu  %-48s %s\n", start, numbers.c_str(), characters.c_str());
    }
  }

  const comm_socket_v4_packet& packet_;
  const comm_socket_v4_packet_header& header_;
  const bool full_;
  std::string text_;
};

}  // namespace

std::string listing_of(const comm_socket_v4_packet& packet, bool full) {
  return Listing(packet, full).text();
}
