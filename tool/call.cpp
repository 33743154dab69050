// tarn-comm call: a request and its response, or several packets over one connection.
#include <tarn_utils_v4/comm.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tool/connection.h"
#include "tool/conversation.h"
#include "tool/files.h"
#include "tool/packet_print.h"
#include "tool/packet_recipe.h"
#include "tool/packet_source.h"
#include "tool/visible_text.h"

namespace {

constexpr char help[] =
    "usage: tarn-comm call [OPTION...] PATH COMMAND [ARG...]\n"
    "       tarn-comm call [OPTION...] --json FILE PATH\n"
    "Sends a request to the server at PATH and prints the response: the first packet that comes\n"
    "back, and those behind it while they are the first or a middle part of a series. Or sends\n"
    "several packets over one connection, and prints what comes back as it comes.\n\n"
    "  -t, --timeout SECONDS     for connecting, sending and the whole response (5); with several\n"
    "                            packets for each step; for --follow\n" FORMAT_OPTION_HELP
    "  -s, --save-fds FOLDER     save what received descriptors refer to, as descriptor-0 and so "
    "on\n"
    "  -n, --no-reply            do not wait for a response\n"
    "  -u, --upload FILE         send FILE, or standard input for -, as data in as many packets "
    "as\n"
    "                            it takes\n"
    "  -F, --follow              print every packet that comes until the server ends the "
    "connection\n"
    "                            or the time is over, which has no limit then unless given\n"
    "  -c, --count N             follow until N packets have come\n"
    "      --time                print to standard error how long its first packet took to come\n"
    "  -v, --verbose             let the library log what it does\n"
    "  -h, --help                this text\n" PACKET_OPTIONS_HELP
    "\nOf --json there may be any number of objects, each of them a packet. Requests among them "
    "that\n"
    "are not asynchronous await a response, which is told by its message id.\n"
    "\nExit status: 0 for a response; 1 for none in time, for one with an error code or an error\n"
    "string, or when something failed; 2 for wrong usage.\n";

struct Call {
  std::string path;
  PacketRecipe packet;
  std::optional<std::string> upload;
  std::optional<std::string> json;
  std::optional<std::uint64_t> timeout_us;
  Format format = Format::readable;
  std::optional<std::string> folder;
  bool reply = true;
  bool follow = false;
  std::uint64_t count = 0;
  bool time = false;
  bool verbose = false;

  std::uint64_t step_us() const { return timeout_us.value_or(5'000'000); }
};

void check(const Call& call, const std::vector<std::string>& words) {
  const bool is_described = !call.packet.empty() || words.size() > 1;
  if (call.json.has_value() && (is_described || call.upload.has_value()))
    throw UsageError("--json and another description of the packet exclude each other");
  if (!call.json.has_value() && words.size() < 2) throw UsageError("COMMAND is missing");
  if (call.upload.has_value() && (call.packet.has_data() || call.packet.is_part()))
    throw UsageError("--upload and other data or --multipart exclude each other");
  if (call.follow && !call.reply) throw UsageError("--follow and --no-reply exclude each other");
}

void parse(int argc, char** argv, Call& call) {
  const std::vector<std::string> words = parse_options(
      call_subcommand, argc, argv,
      call.packet.options(
          {seconds_option("timeout", 't', call.timeout_us), format_option(call.format),
           text_option("save-fds", 's', call.folder),
           flag_option("no-reply", 'n', call.reply, false), text_option("upload", 'u', call.upload),
           text_option("json", 'j', call.json), flag_option("follow", 'F', call.follow),
           number_option("count", 'c', call.count, 1), flag_option("time", 0, call.time),
           flag_option("verbose", 'v', call.verbose)}),
      {"PATH"}, SIZE_MAX);
  call.follow = call.follow || call.count != 0;
  check(call, words);
  call.path = words[0];
  if (words.size() > 1) call.packet.set_command(words[1]);
  for (std::size_t i = 2; i < words.size(); ++i) call.packet.add_argument(words[i]);
}

std::unique_ptr<PacketSource> source_of(Call& call) {
  if (call.json.has_value()) return std::make_unique<JsonPackets>(*call.json);
  if (call.upload.has_value())
    return std::make_unique<FileInParts>(std::move(call.packet), *call.upload);
  return std::make_unique<SinglePacket>(call.packet.build(nullptr));
}

ConversationRules rules_of(const Call& call) {
  ConversationRules rules;
  rules.any_response = !call.json.has_value() && !call.upload.has_value();
  rules.reply = call.reply;
  rules.error_ends = call.upload.has_value() || call.follow;
  rules.follow = call.follow;
  rules.count = call.count;
  rules.timeout_us = call.step_us();
  rules.follow_us = call.timeout_us;
  return rules;
}

// Listings and JSON show an error by themselves.
void report_error(const comm_socket_v4_packet& packet, Format format) {
  if (format != Format::data && format != Format::none) return;
  std::fprintf(stderr, "tarn-comm call: the response is error %llu: %s\n",
               static_cast<unsigned long long>(packet.error_code),
               visible(packet.error_string()).c_str());
}

int run(int argc, char** argv) {
  Call call;
  parse(argc, argv, call);
  const std::unique_ptr<PacketSource> source = source_of(call);
  std::optional<DescriptorFolder> folder;
  if (call.folder.has_value()) {
    make_empty_folder(*call.folder);
    folder.emplace(*call.folder);
  }
  const std::uint64_t deadline_us = now_us() + call.step_us();
  const CommEndpoint endpoint = connect_to_server(call.path, call.step_us(), call.verbose);
  const std::uint64_t start_us = now_us();
  bool timed = !call.time;
  int status = exit_ok;
  Conversation conversation(*endpoint, *source, rules_of(call),
                            [&](comm_socket_v4_packet& packet, std::uint64_t until_us) {
                              if (!std::exchange(timed, true))
                                std::fprintf(stderr, "round trip: %.3f ms\n",
                                             static_cast<double>(now_us() - start_us) / 1e3);
                              print_packet(packet, call.format);
                              flush_standard_output();
                              if (is_error(packet)) status = exit_failed;
                              if (is_error(packet)) report_error(packet, call.format);
                              if (folder.has_value()) folder->save(packet, until_us);
                            });
  conversation.run(deadline_us);
  return status;
}

}  // namespace

const Subcommand call_subcommand = {"call", "send a request and print the response", help, run};
