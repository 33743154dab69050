// A packet as the command line or a JSON object describes it: a request of `call`, or the fixed
// answer of `serve`.
#ifndef TOOL_PACKET_RECIPE_H
#define TOOL_PACKET_RECIPE_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tool/arguments.h"
#include "tool/handles.h"

#define PACKET_OPTIONS_HELP                                                                       \
  "\n"                                                                                            \
  "The packet:\n"                                                                                 \
  "  -p, --pair NAME=VALUE     add a name/value pair; may be repeated\n"                          \
  "  -d, --data TEXT           binary data, as it stands\n"                                       \
  "  -D, --data-file FILE      binary data from FILE, or from standard input for -\n"             \
  "      --fd FILE             attach FILE, opened for reading; up to 8 in all\n"                 \
  "      --fd-rw FILE          attach FILE, opened for reading and writing, created if need be\n" \
  "      --async               mark it asynchronous\n"                                            \
  "      --multipart PART      mark it as the first, middle or last of a series\n"                \
  "      --stream-id N, --message-id N\n"                                                         \
  "      --error-code N, --error-string TEXT\n"                                                   \
  "  -j, --json FILE           all of it as a JSON object from FILE, or from standard input for " \
  "-\n"                                                                                           \
  "\n"                                                                                            \
  "An ARG is text:TEXT, uint64:N, int64:N or double:N; anything else is a text as it stands.\n"   \
  "A VALUE is one of these, where numbers may be many or none (uint64:1,2,3), or json:TEXT,\n"    \
  "json:@FILE, binary:HEX, binary:@FILE, fourcc:CODE:HEX or fourcc:CODE:@FILE with a CODE of "    \
  "four\n"                                                                                        \
  "characters or a number. Numbers are decimal, or hexadecimal after 0x. What begins with a "     \
  "dash\n"                                                                                        \
  "goes behind --.\n"
static_assert(COMM_V4_MAX_ATTACHED_FDS == 8, "the help says so");

// What a packet cannot hold is a UsageError.
class PacketRecipe {
 public:
  // The options above without --json, and behind them those of the caller. They set this object.
  std::vector<Option> options(std::vector<Option> own);
  void add_argument(const std::string& text);
  // Whether nothing was set by an option or set_command.
  bool empty() const { return !given_; }

  void set_command(const std::string& command);
  void set_error_string(const std::string& text);
  void set_data(const std::string& data);
  void set_request(bool request) { request_ = request; }
  void set_async(bool async) { async_ = async; }
  void set_multipart(const std::string& part, const std::string& what);
  void set_multipart(CommMultipart part) { multipart_ = part; }
  void set_user_flags(std::uint32_t flags) { user_flags_ = flags; }
  void set_stream_id(std::uint64_t id) { stream_id_ = id; }
  void set_message_id(std::uint64_t id) { message_id_ = id; }
  void set_error_code(std::uint64_t code) { error_code_ = code; }
  // `value` is a text or the eight bytes of a number. One that is absent has a type and no value.
  void add_argument(std::uint32_t type, const std::string& value);
  void add_absent_argument(std::uint32_t type);
  void add_pair(const std::string& name, std::uint32_t type, const std::string& value);
  void attach(const std::string& path, int flags);
  void drop_descriptors() { descriptors_.clear(); }
  // All the bytes of a packet, in the place of everything else but descriptors.
  void set_bytes(const std::string& bytes);

  bool has_command() const { return command_.has_value() || !bytes_.empty(); }
  bool has_data() const { return !data_.empty(); }
  bool is_part() const { return multipart_ != CommMultipart::none; }
  bool has_message_id() const { return message_id_.has_value() || !bytes_.empty(); }

  // A request; or the answer to one, with the ids and the command that the request has unless
  // others are set.
  CommPacket build(const comm_socket_v4_packet* request) const;

 private:
  using Write = std::function<int(comm_socket_v4_packet&)>;

  std::string next_argument() const;
  void add_pair(std::string_view text);
  void add_typed_pair(const std::string& name, const std::string& type, const std::string& value);
  template <class Number>
  void add_numbers(const std::string& name, std::vector<Number> numbers, std::uint32_t type);
  CommPacket written(const comm_socket_v4_packet* request) const;

  bool given_ = false;
  std::optional<std::string> command_;
  std::optional<std::uint64_t> stream_id_;
  std::optional<std::uint64_t> message_id_;
  std::uint64_t error_code_ = 0;
  std::string error_string_;
  std::optional<bool> request_;
  bool async_ = false;
  CommMultipart multipart_ = CommMultipart::none;
  std::uint32_t user_flags_ = 0;
  std::vector<Write> arguments_;
  std::vector<Write> pairs_;
  std::string data_;
  std::string bytes_;
  std::vector<CommDescriptor> descriptors_;
};

// The code of a type of four characters, which are given, or a number.
std::uint32_t parse_type_code(const std::string& text, const std::string& what);

// What all answers share: no request, with the ids of the request, begun with its command.
CommPacket begin_answer(const comm_socket_v4_packet& request, std::uint64_t error_code,
                        const std::string& error_string);

#endif
