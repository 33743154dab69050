// tarn-comm serve: a server that shows what it is sent, and answers.
#include <signal.h>
#include <sys/wait.h>
#include <tarn_utils_v4/comm.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tool/packet_recipe.h"
#include "tool/packet_server.h"
#include "tool/packet_source.h"
#include "tool/request_command.h"

namespace {

constexpr char help[] =
    "usage: tarn-comm serve [OPTION...] PATH [COMMAND [ARG...]]\n"
    "Listens on PATH, prints every packet and who sent it, and answers it: with the packet "
    "itself,\n"
    "descriptors included, or as the options say. Ends on SIGINT, SIGTERM and SIGHUP, and\n"
    "removes the socket file.\n\n"
    "With a COMMAND or an option for the packet, every answer is that packet. Ids and COMMAND are\n"
    "those of the request unless they are given. An error is an answer with --error-code.\n\n"
    "  -e, --exec SHELL-COMMAND  answer with the output of a command that is run for each request\n"
    "  -T, --exec-timeout SECONDS\n"
    "                            kill the command then (30)\n" SERVER_OPTIONS_HELP
        PACKET_OPTIONS_HELP
    "\nEverybody on this machine may connect and have the command of --exec run, unless --mode or\n"
    "--uid says who may.\n"
    "\nA command of --exec finds the data on its standard input, the arguments in $1 and so on, "
    "and\n"
    "the rest in TARN_COMM_COMMAND, TARN_COMM_STREAM_ID, TARN_COMM_MESSAGE_ID, TARN_COMM_PID,\n"
    "TARN_COMM_UID and TARN_COMM_GID. Its standard output is the data of the answer; an exit "
    "status\n"
    "other than 0 is its error code. A client has one command at a time, other clients do not "
    "wait.\n"
    "\nExit status: 0 after a signal, 1 when something failed, 2 for wrong usage.\n";

struct Settings : ServerSettings {
  PacketRecipe answer;
  bool has_answer = false;
  std::optional<std::string> command;
  std::uint64_t command_timeout_us = 30'000'000;
};

void parse(int argc, char** argv, Settings& settings) {
  std::optional<std::string> json;
  const std::vector<std::string> words =
      parse_options(serve_subcommand, argc, argv,
                    settings.options(settings.answer.options(
                        {text_option("json", 'j', json), text_option("exec", 'e', settings.command),
                         seconds_option("exec-timeout", 'T', settings.command_timeout_us)})),
                    {"PATH"}, SIZE_MAX);
  settings.path = words[0];
  if (words.size() > 1) settings.answer.set_command(words[1]);
  for (std::size_t i = 2; i < words.size(); ++i) settings.answer.add_argument(words[i]);
  settings.has_answer = json.has_value() || !settings.answer.empty();
  if (json.has_value() && !settings.answer.empty())
    throw UsageError("--json and another description of the answer exclude each other");
  if (json.has_value()) settings.answer = answer_in_json(*json);
  if (settings.command.has_value() && settings.has_answer)
    throw UsageError("--exec and an answer of its own exclude each other");
}

// The packet as it came, with one bit changed.
void make_answer_of(comm_socket_v4_packet& packet) {
  packet.make_response();
  std::memcpy(packet.buffer + offsetof(comm_socket_v4_packet_header, flags), &packet.flags,
              sizeof(packet.flags));
}

CommPacket error_answer(const comm_socket_v4_packet& request, std::uint64_t code,
                        const std::string& text) {
  CommPacket answer = begin_answer(request, code, text);
  if (answer->write_end() != 0) throw std::bad_alloc();
  return answer;
}

CommPacket answer_of_command(const comm_socket_v4_packet& request, const CommandResult& result) {
  constexpr std::uint64_t killed = 128;  // as a shell counts, the signal's number is added
  const char* const too_long = "the command's output is longer than a packet";
  if (result.too_long) return error_answer(request, killed + SIGKILL, too_long);
  if (result.timed_out)
    return error_answer(request, killed + SIGKILL, "the command was not done in time");
  std::uint64_t code = 0;
  std::string error;
  if (WIFSIGNALED(result.wait_status)) {
    code = killed + static_cast<std::uint64_t>(WTERMSIG(result.wait_status));
    error = std::string("the command was killed: ") + ::strsignal(WTERMSIG(result.wait_status));
  } else if (WEXITSTATUS(result.wait_status) != 0) {
    code = static_cast<std::uint64_t>(WEXITSTATUS(result.wait_status));
    error = "the command exited with status " + std::to_string(code);
  }
  CommPacket answer = begin_answer(request, code, error);
  const auto* const data = reinterpret_cast<const unsigned char*>(result.output.data());
  if (answer->write_data_binary(data, result.output.size()) < 0 || answer->write_end() != 0)
    throw std::bad_alloc();
  if (answer->buffer_length > COMM_V4_MAX_RECEIVED_PACKET)
    return error_answer(request, killed + SIGKILL, too_long);
  return answer;
}

struct ServedPeer : Peer {
  CommPacket request;  // that the command is to answer
  std::unique_ptr<RequestCommand> running;
};

// Who does not read its answers is not read any further itself: the loop sees to that.
class AnsweringServer : public PacketServer {
 public:
  explicit AnsweringServer(const Settings& settings)
      : PacketServer(settings), settings_(settings) {}

 private:
  std::unique_ptr<Peer> make_peer() override { return std::make_unique<ServedPeer>(); }

  void on_request(Peer& peer, comm_socket_v4_packet& request) override {
    try {
      answer(static_cast<ServedPeer&>(peer), request);
    } catch (const Failure& failure) {
      say(peer.name() + ": " + failure.what());
      send(peer.id, *error_answer(request, 1, failure.what()));
    }
  }

  void answer(ServedPeer& peer, comm_socket_v4_packet& request) {
    if (settings_.command.has_value()) {
      peer.running = std::make_unique<RequestCommand>(
          loop(), *settings_.command, request, peer.cred, settings_.command_timeout_us,
          [this, &peer](const CommandResult& result) { finish_command(peer, result); });
      peer.request = comm_share_packet(&request);
      loop().pause(peer.id);
    } else if (settings_.has_answer) {
      send(peer.id, *settings_.answer.build(&request));
    } else {
      make_answer_of(request);
      send(peer.id, request);
    }
  }

  void finish_command(ServedPeer& peer, const CommandResult& result) {
    send(peer.id, *answer_of_command(*peer.request, result));
    peer.running.reset();
    loop().resume(peer.id);
  }

  const Settings& settings_;
};

// An answer that is too long is known at once, however long the command of the request.
void check_answer(const PacketRecipe& answer) {
  const CommPacket request = new_packet();
  if (request->write_begin(std::string(COMM_V4_MAX_COMMAND, 'x').c_str(), nullptr, 0) != 0)
    throw std::bad_alloc();
  answer.build(request.get());
}

int run(int argc, char** argv) {
  Settings settings;
  parse(argc, argv, settings);
  check_answer(settings.answer);
  AnsweringServer(settings).run();
  return exit_ok;
}

}  // namespace

const Subcommand serve_subcommand = {"serve", "listen, print packets and answer them", help, run};
