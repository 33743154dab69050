// A packet as the command line describes it: a request of `call`, or the fixed answer of `serve`.
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
  "\n"                                                                                            \
  "An ARG is text:TEXT, uint64:N, int64:N or double:N; anything else is a text as it stands.\n"   \
  "A VALUE is one of these, where numbers may be many or none (uint64:1,2,3), or json:TEXT,\n"    \
  "json:@FILE, binary:HEX, binary:@FILE, fourcc:CODE:HEX or fourcc:CODE:@FILE with a CODE of "    \
  "four\n"                                                                                        \
  "characters or a number. Numbers are decimal, or hexadecimal after 0x. What begins with a "     \
  "dash\n"                                                                                        \
  "goes behind --.\n"
static_assert(COMM_V4_MAX_ATTACHED_FDS == 8, "the help says so");

class PacketRecipe {
 public:
  // The options above, and behind them those of the caller. They set this object.
  std::vector<Option> options(std::vector<Option> own);
  void set_data(const std::string& data) { data_ = data; }
  void set_command(const std::string& command);
  void add_argument(const std::string& text);
  bool empty() const { return !given_; }

  // A request; or the answer to one, with the ids and the command that the request has unless the
  // command line gives others.
  CommPacket build(const comm_socket_v4_packet* request) const;

 private:
  using Write = std::function<int(comm_socket_v4_packet&)>;

  void add_pair(std::string_view text);
  void add_typed_pair(const std::string& name, const std::string& type, const std::string& value);
  void add_bytes(const std::string& name, std::uint32_t type, const std::string& bytes);
  template <class Number>
  void add_numbers(const std::string& name, std::vector<Number> numbers, std::uint32_t type);
  void attach(const std::string& path, int flags);
  void set_multipart(const std::string& part, const std::string& name);

  bool given_ = false;
  std::optional<std::string> command_;
  std::optional<std::uint64_t> stream_id_;
  std::optional<std::uint64_t> message_id_;
  std::uint64_t error_code_ = 0;
  std::string error_string_;
  bool async_ = false;
  std::uint32_t multipart_ = comm_socket_v4_packet::multipart_none;
  std::vector<Write> writes_;  // arguments and pairs, in their order
  std::size_t arguments_ = 0;
  std::size_t pairs_ = 0;
  std::string data_;
  std::vector<CommDescriptor> descriptors_;
};

// What all answers share: no request, with the ids of the request, begun with its command.
CommPacket begin_answer(const comm_socket_v4_packet& request, std::uint64_t error_code,
                        const std::string& error_string);

#endif
