#include "tool/packet_recipe.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>

#include "tool/files.h"
#include "tool/packet_check.h"

namespace {

// The writer cuts what is longer; what goes out is what was asked for, or nothing.
const std::string& bounded(const std::string& text, std::size_t max, const std::string& what) {
  if (text.find('\0') != std::string::npos) throw UsageError(what + " has a NUL in it");
  if (text.size() > max)
    throw UsageError(what + " has " + std::to_string(text.size()) + " bytes, at most " +
                     std::to_string(max) + " can be sent");
  return text;
}

void check_count(std::size_t count, std::size_t max, const char* things) {
  if (count > max) throw UsageError("a packet has at most " + std::to_string(max) + " " + things);
}

// "TYPE:REST" with one of the types; the type is empty for any other text.
std::pair<std::string, std::string> split_type(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) return {"", text};
  const std::string type = text.substr(0, colon);
  for (const char* known : {"text", "uint64", "int64", "double", "json", "binary", "fourcc"})
    if (type == known) return {type, text.substr(colon + 1)};
  return {"", text};
}

// Numbers with commas between them, or nothing.
template <class Parse>
auto parse_list(const std::string& text, Parse parse) {
  std::vector<decltype(parse(text))> numbers;
  for (std::size_t start = 0; !text.empty();) {
    const std::size_t comma = text.find(',', start);
    numbers.push_back(parse(text.substr(start, comma - start)));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return numbers;
}

std::string parse_hex(const std::string& text, const std::string& what) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    unsigned char byte = 0;
    const char* const end = text.data() + std::min(i + 2, text.size());
    const auto [stop, error] = std::from_chars(text.data() + i, end, byte, 16);
    if (error != std::errc() || stop != text.data() + i + 2)
      throw UsageError(what + ": " + in_quotes(text) +
                       " is not made of pairs of hexadecimal digits");
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

bool names_file(const std::string& value) { return value.starts_with('@'); }
std::string named_file(const std::string& value) {
  return read_file(value.substr(1), COMM_V4_MAX_RECEIVED_PACKET);
}

template <class Number>
std::string bytes_of(Number number) {
  return {reinterpret_cast<const char*>(&number), sizeof(number)};
}

template <class Number>
Number number_in(const std::string& bytes) {
  Number number = 0;
  std::memcpy(&number, bytes.data(), sizeof(number));
  return number;
}

// As CommPacketBuilder has it: an empty text is the NUL behind the command, which is near the start
// of the packet.
int write_entry(comm_socket_v4_packet& p, std::uint32_t type, std::size_t offset) {
  comm_socket_v4_packet_argv entry = {};
  entry.value_offset[0] = static_cast<std::uint8_t>(offset);
  entry.value_offset[1] = static_cast<std::uint8_t>(offset >> 8);
  entry.type_code = static_cast<std::uint8_t>(type);
  p.wr_argv.push_back(entry);
  return 0;
}

int write_argument(comm_socket_v4_packet& p, std::uint32_t type, const std::string& value) {
  if (type == comm_v4_type_uint64) return p.write_argv_uint64(number_in<std::uint64_t>(value));
  if (type == comm_v4_type_int64) return p.write_argv_int64(number_in<std::int64_t>(value));
  if (type == comm_v4_type_double) return p.write_argv_double(number_in<double>(value));
  if (!value.empty()) return p.write_argv(value.c_str());
  return write_entry(p, type, COMM_V4_HEADER_LENGTH + std::strlen(p.command()));
}

}  // namespace

std::uint32_t parse_type_code(const std::string& text, const std::string& what) {
  std::uint32_t code = 0;
  if (text.size() == sizeof(code))
    std::memcpy(&code, text.data(), sizeof(code));
  else
    code = static_cast<std::uint32_t>(parse_uint64(text, what, 0, UINT32_MAX));
  if (code <= comm_v4_type_int64)
    throw UsageError(what + ": " + in_quotes(text) + " is the code of a type of its own");
  return code;
}

// --- From the command line ----------------------------------------------------------------------

std::vector<Option> PacketRecipe::options(std::vector<Option> own) {
  std::vector<Option> all = {
      {"pair", 'p', true, [this](auto& text, auto&) { add_pair(text); }},
      {"data", 'd', true, [this](auto& text, auto&) { set_data(text); }},
      {"data-file", 'D', true,
       [this](auto& file, auto&) { set_data(read_file(file, COMM_V4_MAX_RECEIVED_PACKET)); }},
      {"fd", 0, true, [this](auto& file, auto&) { attach(file, O_RDONLY); }},
      {"fd-rw", 0, true, [this](auto& file, auto&) { attach(file, O_RDWR | O_CREAT); }},
      flag_option("async", 0, async_),
      {"multipart", 0, true, [this](auto& part, auto& what) { set_multipart(part, what); }},
      number_option("stream-id", 0, stream_id_),
      number_option("message-id", 0, message_id_),
      number_option("error-code", 0, error_code_),
      {"error-string", 0, true, [this](auto& text, auto&) { set_error_string(text); }}};
  for (Option& option : all)
    option.set = [this, set = option.set](auto& value, auto& what) {
      given_ = true;
      set(value, what);
    };
  all.insert(all.end(), own.begin(), own.end());
  return all;
}

void PacketRecipe::set_command(const std::string& command) {
  if (command.empty()) throw UsageError("the command is empty, and no receiver accepts that");
  command_ = bounded(command, COMM_V4_MAX_COMMAND, "the command");
  given_ = true;
}

void PacketRecipe::set_error_string(const std::string& text) {
  error_string_ = bounded(text, COMM_V4_MAX_ERROR_STRING, "the error string");
}

void PacketRecipe::set_data(const std::string& data) {
  if (data.size() > COMM_V4_MAX_RECEIVED_PACKET)
    throw UsageError("the data has " + std::to_string(data.size()) +
                     " bytes, a receiver takes packets of at most " +
                     std::to_string(COMM_V4_MAX_RECEIVED_PACKET));
  data_ = data;
}

std::string PacketRecipe::next_argument() const {
  check_count(arguments_.size() + 1, COMM_V4_MAX_ARGUMENTS, "arguments");
  return "argument " + std::to_string(arguments_.size() + 1);
}

void PacketRecipe::add_argument(std::uint32_t type, const std::string& value) {
  const std::string what = next_argument();
  if (type == comm_v4_type_text) bounded(value, COMM_V4_MAX_TEXT, what);
  arguments_.emplace_back(
      [type, value](comm_socket_v4_packet& p) { return write_argument(p, type, value); });
}

void PacketRecipe::add_absent_argument(std::uint32_t type) {
  next_argument();
  arguments_.emplace_back([type](comm_socket_v4_packet& p) { return write_entry(p, type, 0); });
}

void PacketRecipe::add_argument(const std::string& text) {
  const std::string what = "argument " + std::to_string(arguments_.size() + 1);
  const auto [type, value] = split_type(text);
  if (type == "uint64")
    add_argument(comm_v4_type_uint64, bytes_of(parse_uint64(value, what)));
  else if (type == "int64")
    add_argument(comm_v4_type_int64, bytes_of(parse_int64(value, what)));
  else if (type == "double")
    add_argument(comm_v4_type_double, bytes_of(parse_double(value, what)));
  else if (!type.empty() && type != "text")
    throw UsageError(what + ": " + type + " is for pairs only; text:" + text + " is a text");
  else if (value.empty())
    throw UsageError(what + ": an empty text cannot be sent as an argument");
  else
    add_argument(comm_v4_type_text, value);
}

void PacketRecipe::add_pair(std::string_view text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string_view::npos)
    throw UsageError("--pair: " + in_quotes(text) + " is not NAME=VALUE");
  const std::string name(text.substr(0, equals));
  const auto [type, value] = split_type(std::string(text.substr(equals + 1)));
  add_typed_pair(name, type, value);
}

void PacketRecipe::add_typed_pair(const std::string& name, const std::string& type,
                                  const std::string& value) {
  const std::string what = "pair " + in_quotes(name);
  const auto bytes = [&what](const std::string& given) {
    return names_file(given) ? named_file(given) : parse_hex(given, what);
  };
  if (type == "uint64") {
    add_numbers(name, parse_list(value, [&](auto n) { return parse_uint64(n, what); }),
                comm_v4_type_uint64);
  } else if (type == "int64") {
    add_numbers(name, parse_list(value, [&](auto n) { return parse_int64(n, what); }),
                comm_v4_type_int64);
  } else if (type == "double") {
    add_numbers(name, parse_list(value, [&](auto n) { return parse_double(n, what); }),
                comm_v4_type_double);
  } else if (type == "json") {
    add_pair(name, comm_v4_type_json, names_file(value) ? named_file(value) : value);
  } else if (type == "binary") {
    add_pair(name, comm_v4_type_binary, bytes(value));
  } else if (type == "fourcc") {
    const std::size_t colon = value.find(':', 1);
    if (colon == std::string::npos)
      throw UsageError(what + ": " + in_quotes(value) + " is not CODE:VALUE");
    add_pair(name, parse_type_code(value.substr(0, colon), what), bytes(value.substr(colon + 1)));
  } else {
    add_pair(name, comm_v4_type_text, value);
  }
}

void PacketRecipe::add_pair(const std::string& name, std::uint32_t type, const std::string& value) {
  check_count(pairs_.size() + 1, COMM_V4_MAX_PAIRS, "pairs");
  bounded(name, COMM_V4_MAX_NAME, "a pair's name");
  pairs_.emplace_back([name, type, value](comm_socket_v4_packet& p) {
    return p.write_nv_pair_raw(name.c_str(), reinterpret_cast<const unsigned char*>(value.data()),
                               value.size(), type);
  });
}

template <class Number>
void PacketRecipe::add_numbers(const std::string& name, std::vector<Number> numbers,
                               std::uint32_t type) {
  add_pair(
      name, type,
      std::string(reinterpret_cast<const char*>(numbers.data()), numbers.size() * sizeof(Number)));
}

void PacketRecipe::set_bytes(const std::string& bytes) {
  const CommPacket packet = packet_of(bytes);
  const std::string rule = broken_rule(*packet);
  if (!rule.empty()) throw UsageError("the bytes are no valid packet: " + rule);
  bytes_ = bytes;
}

void PacketRecipe::attach(const std::string& path, int flags) {
  check_count(descriptors_.size() + 1, COMM_V4_MAX_ATTACHED_FDS, "descriptors");
  descriptors_.push_back(open_file(path, flags));
}

void PacketRecipe::set_multipart(const std::string& part, const std::string& what) {
  const std::string parts[] = {"none", "first", "middle", "last"};
  const auto* const found = std::find(std::begin(parts), std::end(parts), part);
  if (found == std::end(parts))
    throw UsageError(what + ": " + in_quotes(part) + " is not none, first, middle or last");
  multipart_ = static_cast<CommMultipart>(found - std::begin(parts));
}

// --- To a packet --------------------------------------------------------------------------------

CommPacket PacketRecipe::build(const comm_socket_v4_packet* request) const {
  CommPacket packet = bytes_.empty() ? written(request) : packet_of(bytes_);
  if (!bytes_.empty()) broken_rule(*packet);  // It reads the header, and none is broken.
  packet->write_state = comm_socket_v4_packet::write_state_end;
  if (packet->buffer_length > COMM_V4_MAX_RECEIVED_PACKET)
    throw UsageError("the packet has " + std::to_string(packet->buffer_length) +
                     " bytes, a receiver takes at most " +
                     std::to_string(COMM_V4_MAX_RECEIVED_PACKET));
  for (const CommDescriptor& descriptor : descriptors_)
    if (!packet->attach_fd_to_send_cloexec(descriptor.get()))
      throw system_failure("cannot attach a descriptor");
  return packet;
}

CommPacket PacketRecipe::written(const comm_socket_v4_packet* request) const {
  CommPacket packet = new_packet();
  packet->flags = user_flags_;
  comm_set_multipart(*packet, multipart_);
  packet->set_async(async_);
  packet->set_request(request_.value_or(request == nullptr));
  packet->stream_id = stream_id_.value_or(request != nullptr ? request->stream_id : 0);
  packet->message_id = message_id_.value_or(request != nullptr ? request->message_id : 0);
  packet->error_code = error_code_;
  const std::string command = command_.value_or(request != nullptr ? request->command() : "");
  bool is_written = packet->write_begin(command.c_str(), error_string_.c_str(), 0) == 0;
  for (const std::vector<Write>* writes : {&arguments_, &pairs_})
    for (const Write& write : *writes) is_written = is_written && write(*packet) == 0;
  const auto* const data = reinterpret_cast<const unsigned char*>(data_.data());
  is_written = is_written && packet->write_data_binary(data, data_.size()) >= 0;
  if (!is_written || packet->write_end() != 0) throw std::bad_alloc();
  return packet;
}

CommPacket begin_answer(const comm_socket_v4_packet& request, std::uint64_t error_code,
                        const std::string& error_string) {
  CommPacket packet = new_packet();
  packet->stream_id = request.stream_id;
  packet->message_id = request.message_id;
  packet->error_code = error_code;
  if (packet->write_begin(request.command(), error_string.c_str(), 0) != 0) throw std::bad_alloc();
  return packet;
}
