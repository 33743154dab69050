// tarn-comm call: one request, and its response.
#include <tarn_utils_v4/comm.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tool/connection.h"
#include "tool/files.h"
#include "tool/packet_check.h"
#include "tool/packet_print.h"
#include "tool/packet_recipe.h"
#include "tool/visible_text.h"

namespace {

constexpr char help[] =
    "usage: tarn-comm call [OPTION...] PATH COMMAND [ARG...]\n"
    "Sends a request to the server at PATH and prints the response: the first packet that comes\n"
    "back, and those behind it while they are the first or a middle part of a series.\n\n"
    "  -t, --timeout SECONDS     for connecting, sending and the whole response "
    "(5)\n" FORMAT_OPTION_HELP
    "  -s, --save-fds FOLDER     save what received descriptors refer to, as descriptor-0 and so "
    "on\n"
    "  -n, --no-reply            do not wait for a response\n"
    "      --time                print to standard error how long its first packet took to come\n"
    "  -v, --verbose             let the library log what it does\n"
    "  -h, --help                this text\n" PACKET_OPTIONS_HELP
    "\nExit status: 0 for a response; 1 for none in time, for one with an error code or an error\n"
    "string, or when something failed; 2 for wrong usage.\n";

struct Call {
  std::string path;
  PacketRecipe packet;
  std::uint64_t timeout_us = 5'000'000;
  Format format = Format::readable;
  std::optional<std::string> folder;
  bool reply = true;
  bool time = false;
  bool verbose = false;
};

void parse(int argc, char** argv, Call& call) {
  const std::vector<std::string> words = parse_options(
      call_subcommand, argc, argv,
      call.packet.options({seconds_option("timeout", 't', call.timeout_us),
                           format_option(call.format), text_option("save-fds", 's', call.folder),
                           flag_option("no-reply", 'n', call.reply, false),
                           flag_option("time", 0, call.time),
                           flag_option("verbose", 'v', call.verbose)}),
      {"PATH", "COMMAND"}, SIZE_MAX);
  call.path = words[0];
  call.packet.set_command(words[1]);
  for (std::size_t i = 2; i < words.size(); ++i) call.packet.add_argument(words[i]);
}

CommPacket receive(comm_socket_v4& endpoint, std::uint64_t deadline_us) {
  std::string rule;
  endpoint.set_tag(reinterpret_cast<std::uintptr_t>(&rule));
  endpoint.set_recv_cb([](comm_socket_v4* receiver, comm_socket_v4_packet* packet) {
    std::string& broken = *reinterpret_cast<std::string*>(receiver->get_tag());
    broken = broken_rule(*packet);
    return broken.empty() ? 0 : -1;
  });
  for (;;) {
    const int ready = comm_socket_v4_client_from_server_readable(&endpoint, deadline_us);
    CommPacket packet(comm_socket_v4_client_get_packet_from_server(&endpoint));
    if (!rule.empty()) throw Failure("the server sent a packet that is not valid: " + rule);
    if (packet != nullptr) return packet;
    if (ready < 0 || !endpoint.socket_open())
      throw Failure("the server closed the connection without a response");
    if (now_us() >= deadline_us) throw Failure("no response in time");
  }
}

bool is_error(const comm_socket_v4_packet& packet) {
  return packet.error_code != 0 || *packet.error_string() != '\0';
}

bool more_parts_follow(const comm_socket_v4_packet& packet) {
  const std::uint32_t part = (packet.flags & comm_socket_v4_packet::multipart_mask) >>
                             comm_socket_v4_packet::multipart_shift;
  return part == comm_socket_v4_packet::multipart_first ||
         part == comm_socket_v4_packet::multipart_middle;
}

// Only the listings show an error by themselves.
void report_error(const comm_socket_v4_packet& packet, Format format) {
  if (format == Format::readable || format == Format::full) return;
  std::fprintf(stderr, "tarn-comm call: the response is error %llu: %s\n",
               static_cast<unsigned long long>(packet.error_code),
               visible(packet.error_string()).c_str());
}

int print_response(const Call& call, comm_socket_v4& endpoint, std::uint64_t sent_us,
                   std::uint64_t deadline_us) {
  std::optional<DescriptorFolder> folder;
  if (call.folder.has_value()) folder.emplace(*call.folder);
  int status = exit_ok;
  bool timed = !call.time;
  for (bool more = true; more;) {
    const CommPacket packet = receive(endpoint, deadline_us);
    if (!std::exchange(timed, true))
      std::fprintf(stderr, "round trip: %.3f ms\n", static_cast<double>(now_us() - sent_us) / 1e3);
    print_packet(*packet, call.format);
    if (is_error(*packet)) {
      status = exit_failed;
      report_error(*packet, call.format);
    }
    more = more_parts_follow(*packet);
    if (folder.has_value()) folder->save(*packet, deadline_us);
  }
  return status;
}

int run(int argc, char** argv) {
  Call call;
  parse(argc, argv, call);
  const CommPacket request = call.packet.build(nullptr);
  if (call.folder.has_value()) make_empty_folder(*call.folder);
  const std::uint64_t deadline_us = now_us() + call.timeout_us;
  const CommEndpoint endpoint = connect_to_server(call.path, call.timeout_us, call.verbose);
  const std::uint64_t sent_us = now_us();
  send_in_time(*endpoint, *request, deadline_us);
  return call.reply ? print_response(call, *endpoint, sent_us, deadline_us) : exit_ok;
}

}  // namespace

const Subcommand call_subcommand = {"call", "send a request and print the response", help, run};
