#include "tool/packet_json.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <utility>
#include <vector>

#include "tool/descriptor_kind.h"
#include "tool/files.h"
#include "tool/json_text.h"
#include "tool/visible_text.h"

namespace {

using Packet = comm_socket_v4_packet;

constexpr std::size_t max_json = 1'000'000;
// Without overlaps a byte takes 6 characters as an escape at most, and an entry of a table less
// than 8 for each of its bytes.
static_assert(COMM_V4_MAX_RECEIVED_PACKET * 14 + 10'000 < max_json);

constexpr std::uint32_t first_user_flag = 1u << 4;
constexpr const char* multipart_names[] = {"none", "first", "middle", "last"};
constexpr const char* type_names[] = {"text", "binary", "uint64", "double", "json", "int64"};
constexpr std::string_view fourcc_prefix = "fourcc:";
constexpr std::string_view base64_suffix = "_base64";
constexpr std::string_view nan_prefix = "NaN:";

// --- Out ----------------------------------------------------------------------------------------

std::string type_in_json(std::uint32_t type) {
  if (type < std::size(type_names)) return type_names[type];
  char code[sizeof(type)];
  std::memcpy(code, &type, sizeof(type));
  const bool is_text =
      std::all_of(std::begin(code), std::end(code), [](char c) { return c >= ' ' && c <= '~'; });
  if (is_text) return std::string(fourcc_prefix) + std::string(code, sizeof(code));
  char number[16];
  std::snprintf(number, sizeof(number), "0x%08x", type);
  return std::string(fourcc_prefix) + number;
}

template <class Number>
std::string in_json(Number number) {
  char text[32];
  return {text, std::to_chars(text, text + sizeof(text), number).ptr};
}

// JSON has no numbers for these.
std::string in_json(double number) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &number, sizeof(bits));
  if (std::isinf(number)) return number > 0 ? "\"Infinity\"" : "\"-Infinity\"";
  if (std::isfinite(number)) return in_json<double>(number);
  char text[32];
  std::snprintf(text, sizeof(text), "\"NaN:0x%016jx\"", std::uintmax_t{bits});
  return text;
}

class JsonPacket {
 public:
  explicit JsonPacket(const Packet& packet) : packet_(packet), read_(packet) {}

  std::string text(const std::string& more) {
    json_ = "{";
    add_header();
    add_list("arguments", read_.arguments(), [this](auto& value) { add_argument(value); });
    add_list("pairs", read_.pairs(), [this](auto& pair) { add_pair(pair); });
    add_bytes("data", read_.data().as_characters(), false);
    // A writer leaves an empty command out.
    if (!has_room() || read_.command().empty()) {
      json_ = "{";
      add_bytes("packet", {reinterpret_cast<const char*>(packet_.buffer), packet_.buffer_length},
                true);
    }
    is_limited_ = false;  // There are 60 at most.
    add_list("descriptors", packet_.attached_fd, [this](int fd) { add_descriptor(fd); });
    return json_ + more + "}\n";
  }

 private:
  bool has_room() const { return !is_limited_ || json_.size() < max_json; }

  void add_name(const std::string& name) {
    if (json_.back() != '{') json_ += ", ";
    json_ += '"' + name + "\": ";
  }
  void add(const std::string& name, const std::string& value) {
    add_name(name);
    json_ += value;
  }
  void add_string(const std::string& name, std::string_view text) {
    add_name(name);
    append_json_string(json_, text);
  }
  void add_bytes(const std::string& name, std::string_view bytes, bool is_binary) {
    if (!is_binary && is_utf8(bytes)) return add_string(name, bytes);
    add(name + std::string(base64_suffix), '"' + base64_of(bytes) + '"');
  }
  template <class List, class Add>
  void add_list(const std::string& name, const List& list, Add add_one) {
    add_name(name);
    json_ += '[';
    const char* separator = "";
    for (const auto& element : list) {
      if (!has_room()) return;
      json_ += separator;
      add_one(element);
      separator = ", ";
    }
    json_ += ']';
  }

  void add_header() {
    const auto flag = [](bool is_set) { return std::string(is_set ? "true" : "false"); };
    add_bytes("command", read_.command(), false);
    add("request", flag(read_.is_request()));
    add("async", flag(read_.is_async()));
    add_string("multipart", multipart_names[static_cast<std::uint32_t>(read_.multipart())]);
    add("user_flags", in_json(packet_.flags / first_user_flag * first_user_flag));
    add("stream_id", in_json(packet_.stream_id));
    add("message_id", in_json(packet_.message_id));
    add("error_code", in_json(packet_.error_code));
    add_bytes("error_string", read_.error_string(), false);
  }

  void add_argument(const CommValue& value) {
    json_ += '{';
    add_string("type", type_in_json(value_type_of(value)));
    if (!value.is_present())
      add("value", "null");
    else if (value.type() == comm_v4_type_text)
      add_bytes("value", value.bytes().as_characters(), false);
    else
      add("value", value.type() == comm_v4_type_uint64  ? in_json(*value.as_uint64())
                   : value.type() == comm_v4_type_int64 ? in_json(*value.as_int64())
                                                        : in_json(*value.as_double()));
    json_ += '}';
    ++argument_;
  }
  // The reader knows nothing of a value that is absent.
  std::uint32_t value_type_of(const CommValue& value) const {
    return value.is_present() ? value.type() : packet_.argv(argument_)->type();
  }

  void add_pair(const CommPair& pair) {
    json_ += '{';
    add_bytes("name", pair.name(), false);
    add_string("type", type_in_json(pair.type()));
    const std::string_view bytes = pair.bytes().as_characters();
    const bool is_whole = bytes.size() % sizeof(std::uint64_t) == 0;
    if (pair.type() == comm_v4_type_uint64 && is_whole)
      add_numbers(pair.uint64_list());
    else if (pair.type() == comm_v4_type_int64 && is_whole)
      add_numbers(pair.int64_list());
    else if (pair.type() == comm_v4_type_double && is_whole)
      add_numbers(pair.double_list());
    else
      add_bytes("value", bytes,
                pair.type() != comm_v4_type_text && pair.type() != comm_v4_type_json);
    json_ += '}';
  }
  template <class Numbers>
  void add_numbers(const Numbers& numbers) {
    add_list("value", numbers, [this](auto number) { json_ += in_json(number); });
  }

  void add_descriptor(int fd) {
    const DescriptorKind found = kind_of_descriptor(fd);
    json_ += '{';
    add_string("kind", found.kind);
    add_string("access", found.access);
    if (found.size.has_value()) add("size", in_json(*found.size));
    add_bytes("link", found.link, false);
    json_ += '}';
  }

  const Packet& packet_;
  const CommPacketReader read_;
  bool is_limited_ = true;
  std::size_t argument_ = 0;
  std::string json_;
};

// --- In -----------------------------------------------------------------------------------------

class RecipeReader {
 public:
  explicit RecipeReader(const JsonText& text) : reader_(text) {}

  PacketRecipe read(bool is_answer) {
    reader_.object([this](auto& name) { read_member(name); });
    reader_.end();
    if (has("packet") && members_.size() > std::size_t{1} + has("descriptors") + has("peer"))
      reader_.fail("packet_base64 and other members exclude each other", 0);
    if (!is_answer && !recipe_.has_command()) reader_.fail("the packet has no command", 0);
    return std::move(recipe_);
  }

 private:
  // Errors of the packet's rules get the place of the value.
  template <class Act>
  void attempt(std::size_t place, const Act& act) {
    try {
      act();
    } catch (const UsageError& error) {
      reader_.fail(visible(error.what()), place);
    }
  }
  [[noreturn]] void refuse(const std::string& name, std::size_t place) const {
    reader_.fail(visible(in_quotes(name)) + " is not known here", place);
  }

  bool has(std::string_view member) const {
    return std::find(members_.begin(), members_.end(), member) != members_.end();
  }

  void read_member(const std::string& name) {
    const std::size_t suffix = is_base64(name) ? base64_suffix.size() : 0;
    members_.push_back(name.substr(0, name.size() - suffix));
    if (std::count(members_.begin(), members_.end(), members_.back()) > 1)
      reader_.fail(visible(in_quotes(members_.back())) + " is there twice", reader_.name_place());
    attempt(reader_.place(), [&] {
      if (is_bytes(name, "command")) return recipe_.set_command(bytes(name));
      if (is_bytes(name, "error_string")) return recipe_.set_error_string(bytes(name));
      if (is_bytes(name, "data")) return recipe_.set_data(bytes(name));
      if (name == "packet_base64") return recipe_.set_bytes(bytes(name));
      if (name == "arguments") return reader_.array([this] { read_argument(); });
      if (name == "pairs") return reader_.array([this] { read_pair(); });
      if (name == "descriptors") return reader_.array([this] { read_descriptor(); });
      if (name == "peer") return reader_.object([this](auto&) { reader_.skip_scalar(); });
      read_header_value(name);
    });
  }

  void read_header_value(const std::string& name) {
    if (name == "request") return recipe_.set_request(reader_.boolean());
    if (name == "async") return recipe_.set_async(reader_.boolean());
    if (name == "multipart") return recipe_.set_multipart(reader_.text(), name);
    if (name == "user_flags") return recipe_.set_user_flags(user_flags());
    if (name == "stream_id") return recipe_.set_stream_id(reader_.uint64());
    if (name == "message_id") return recipe_.set_message_id(reader_.uint64());
    if (name == "error_code") return recipe_.set_error_code(reader_.uint64());
    refuse(name, reader_.name_place());
  }

  std::uint32_t user_flags() {
    const std::size_t place = reader_.place();
    const std::uint64_t flags = reader_.uint64(UINT32_MAX);
    if (flags % first_user_flag != 0)
      reader_.fail("the lowest four bits have members of their own", place);
    return static_cast<std::uint32_t>(flags);
  }

  static bool is_base64(std::string_view name) { return name.ends_with(base64_suffix); }
  // `name`, or that in base64.
  static bool is_bytes(std::string_view member, std::string_view name) {
    return member == name || (is_base64(member) && member.starts_with(name) &&
                              member.size() == name.size() + base64_suffix.size());
  }
  std::string bytes(std::string_view member) {
    const std::size_t place = reader_.place();
    std::string text = reader_.text();
    if (!is_base64(member)) return text;
    const std::optional<std::string> decoded = bytes_of_base64(text);
    if (!decoded.has_value()) reader_.fail("expected base64", place);
    return *decoded;
  }

  // Members of arguments and pairs: the value is read when its type is known.
  struct Entry {
    std::string name;
    std::uint32_t type = comm_v4_type_text;
    std::string member;  // "value" or "value_base64"
    std::size_t start = 0;
    std::size_t value = 0;
  };

  template <class Add>
  void read_entry(bool is_pair, const Add& add) {
    Entry entry;
    bool has_name = !is_pair;
    reader_.is_next('{');
    entry.start = reader_.place();
    reader_.object([&](auto& name) {
      if (is_pair && is_bytes(name, "name")) {
        entry.name = bytes(name);
        has_name = true;
      } else if (name == "type") {
        entry.type = type(is_pair);
      } else if (is_bytes(name, "value") && entry.member.empty()) {
        entry.member = name;
        entry.value = reader_.place();
        reader_.skip_value();
      } else {
        refuse(name, reader_.name_place());
      }
    });
    if (!has_name) reader_.fail("the pair has no name", entry.start);
    if (entry.member.empty()) reader_.fail("there is no value", entry.start);
    const std::size_t end = reader_.place();
    reader_.go_to(entry.value);
    attempt(entry.value, [&] { add(entry); });
    reader_.go_to(end);
  }

  std::uint32_t type(bool of_pair) {
    const std::size_t place = reader_.place();
    const std::string name = reader_.text();
    for (std::uint32_t i = 0; i < std::size(type_names); ++i) {
      const bool is_known = of_pair || (i != comm_v4_type_binary && i != comm_v4_type_json);
      if (is_known && name == type_names[i]) return i;
    }
    std::uint32_t code = 0;
    if (!of_pair || !name.starts_with(fourcc_prefix))
      reader_.fail(visible(in_quotes(name)) + " is no type", place);
    attempt(place, [&] { code = parse_type_code(name.substr(fourcc_prefix.size()), "type"); });
    return code;
  }

  void read_argument() {
    read_entry(false, [this](const Entry& entry) {
      const bool is_text = entry.type == comm_v4_type_text;
      if (is_base64(entry.member) && !is_text) refuse(entry.member, entry.value);
      if (!is_base64(entry.member) && reader_.take_null())
        return recipe_.add_absent_argument(entry.type);
      recipe_.add_argument(entry.type, is_text ? bytes(entry.member) : number(entry.type));
    });
  }

  void read_pair() {
    read_entry(true, [this](const Entry& entry) {
      const bool has_numbers = entry.type == comm_v4_type_uint64 ||
                               entry.type == comm_v4_type_int64 ||
                               entry.type == comm_v4_type_double;
      std::string value;
      if (is_base64(entry.member) || !has_numbers)
        value = bytes(entry.member);
      else
        reader_.array([&] { value += number(entry.type); });
      recipe_.add_pair(entry.name, entry.type, value);
    });
  }

  // Its eight bytes.
  std::string number(std::uint32_t type) {
    if (type == comm_v4_type_uint64) return bytes_of(reader_.uint64());
    if (type == comm_v4_type_int64) return bytes_of(reader_.int64());
    return reader_.is_next('"') ? bytes_of(special_number()) : bytes_of(reader_.number());
  }
  template <class Number>
  static std::string bytes_of(Number number) {
    return {reinterpret_cast<const char*>(&number), sizeof(number)};
  }
  // The bits of what JSON has no number for.
  std::uint64_t special_number() {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    const std::size_t place = reader_.place();
    const std::string text = reader_.text();
    std::uint64_t bits = 0;
    double number = text == "Infinity" ? infinity : -infinity;
    if (text.starts_with(nan_prefix))
      attempt(place, [&] { bits = parse_uint64(text.substr(nan_prefix.size()), "NaN"); });
    if (bits != 0) std::memcpy(&number, &bits, sizeof(number));
    const bool is_infinity = text == "Infinity" || text == "-Infinity";
    if (!is_infinity && !std::isnan(number))
      reader_.fail("expected a number, Infinity, -Infinity or NaN:BITS", place);
    std::memcpy(&bits, &number, sizeof(bits));
    return bits;
  }

  // What a peer's descriptor referred to is not opened by its name: a peer that may not open a file
  // can have a descriptor that is called like it.
  void read_descriptor() {
    reader_.is_next('{');
    const std::size_t place = reader_.place();
    bool is_open = false;
    reader_.object([&](auto& name) {
      if (name == "open" || name == "open_rw") {
        recipe_.attach(reader_.text(), name == "open" ? O_RDONLY : O_RDWR | O_CREAT);
        is_open = true;
      } else {
        reader_.skip_scalar();
      }
    });
    if (!is_open) reader_.fail("a descriptor is sent only with an 'open' or 'open_rw'", place);
  }

  JsonReader reader_;
  std::vector<std::string> members_;  // without _base64
  PacketRecipe recipe_;
};

}  // namespace

std::string json_of(const comm_socket_v4_packet& packet, const std::string& more) {
  return JsonPacket(packet).text(more);
}

PacketRecipe recipe_of(const JsonText& text, bool is_answer) {
  return RecipeReader(text).read(is_answer);
}
