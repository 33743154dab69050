// Opens files for other processes.
//
//   file_server [--show] [SOCKET]      --show lists every packet; SIGTERM ends it
//
// Without SOCKET it serves the socket that a service manager hands over; systemd/ has the units.
//
// A request "open" with a path is answered with the attributes as pairs, the first bytes as data
// and the open descriptor; or with an errno and its text.
#include <poll.h>
#include <tarn_utils_v4/comm_loop.h>

#include "processes.h"

namespace {

// --- Answers ------------------------------------------------------------------------------------

constexpr std::size_t start_size = 16384;  // bytes of a file that go along

struct File {
  CommDescriptor fd;
  struct stat about = {};
};

// Does what the request asks for; 0 or an errno.
int open_file(const comm_socket_v4_packet& request, File& file) {
  if (std::strcmp(request.command(), "open") != 0) return ENOSYS;
  // O_NONBLOCK: a FIFO must not make everybody wait.
  file.fd =
      CommDescriptor{::open(request.argv_text(0), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
  if (!file.fd.is_open() || ::fstat(file.fd.get(), &file.about) != 0) return errno;
  if (!S_ISREG(file.about.st_mode)) return S_ISDIR(file.about.st_mode) ? EISDIR : EINVAL;
  return 0;
}

// Null when it cannot be written.
CommPacket answer_to(const comm_socket_v4_packet& request) {
  File file;
  if (const int error = open_file(request, file); error != 0)
    return CommPacketBuilder::response_to(request, error).finish();
  const struct stat& about = file.about;
  CommPacketBuilder answer = CommPacketBuilder::response_to(request);
  answer.pair_uint64("size", static_cast<std::uint64_t>(about.st_size))
      .pair_uint64("mode", about.st_mode & 07777)
      .pair_int64("times", {about.st_atime, about.st_mtime, about.st_ctime})
      .data_from_file(file.fd.get(), 0, start_size)
      .descriptor(std::move(file.fd));
  CommPacket packet = answer.finish();
  if (answer.error().reason == CommPacketReason::not_filled)
    packet = CommPacketBuilder::response_to(request, errno).finish();
  return packet;
}

// --- Server -------------------------------------------------------------------------------------

CommLoopLimits limits() {
  CommLoopLimits most;
  // Each takes two descriptors, its connection and the file in an answer that waits. Most machines
  // allow a process 1024.
  most.clients = 480;
  most.clients_per_user = 240;
  // While an answer waits no more requests are read: the client is to read first.
  most.queued_packets = 1;
  most.idle_us = 600 * 1000000ul;
  return most;
}

// As sd_listen_fds(3) has it: the first descriptor behind the standard ones. -1 without.
int handed_over_socket() {
  const char* const pid = std::getenv("LISTEN_PID");
  const char* const count = std::getenv("LISTEN_FDS");
  const bool is_ours = pid != nullptr && count != nullptr && std::to_string(::getpid()) == pid;
  return is_ours && std::strcmp(count, "1") == 0 ? STDERR_FILENO + 1 : -1;
}

// The number of a client is the generation of its id, and its tag counts its answers.
class FileServer : public CommLoopHandler {
 public:
  explicit FileServer(bool shows) : shows_(shows) {}

  // Anybody may connect to the socket file: what the kernel says of the peer decides.
  bool on_connect(CommLoop& /*loop*/, CommLoopId client, const struct ucred& who) override {
    const bool trusted = who.uid == ::geteuid() || who.uid == 0;
    std::printf("client %" PRIu64 ": pid %d, uid %u, gid %u%s\n", client.generation, who.pid,
                who.uid, who.gid, trusted ? "" : ", turned away");
    return trusted;
  }

  void on_packet(CommLoop& loop, CommLoopId client, comm_socket_v4_packet* request) override {
    if (shows_) show(*request, "from client", client.generation);
    const CommPacket answer = answer_to(*request);
    if (answer && shows_) show(*answer, "to client", client.generation);
    const int sent = answer ? loop.send(client, answer.get()) : -1;
    if (sent < 0) {
      loop.disconnect(client);
      return;
    }
    loop.set_tag(client, loop.tag(client) + 1);
    if (sent == 0)
      std::printf("client %" PRIu64 " reads slowly, an answer waits for it\n", client.generation);
  }

  void on_room(CommLoop& /*loop*/, CommLoopId client) override {
    std::printf("client %" PRIu64 " has caught up\n", client.generation);
  }

  void on_gone(CommLoop& loop, CommLoopId client, CommLoopReason /*why*/, int /*error*/) override {
    std::printf("client %" PRIu64 " has left, %" PRIu64 " answers\n", client.generation,
                loop.tag(client));
  }

  void on_accept_failed(CommLoop& /*loop*/, CommLoopId /*server*/, int error) override {
    fail("cannot accept", std::strerror(error));
  }

  // A signal came.
  void on_ready(CommLoop& loop, CommLoopId /*signals*/, std::uint32_t /*events*/) override {
    loop.stop();
  }

 private:
  const bool shows_;
};

}  // namespace

int main(int argc, char** argv) {
  const bool shows = argc > 1 && std::strcmp(argv[1], "--show") == 0;
  const int operands = argc - (shows ? 2 : 1);
  if (operands > 1) fail("usage", "file_server [--show] [SOCKET]");
  begin_service();
  const CommDescriptor signals = take_signals({SIGTERM, SIGINT});
  FileServer handler{shows};
  CommLoop loop;
  if (loop.watch(signals.get(), POLLIN, handler).generation == 0) fail("signals");

  CommEndpoint server{comm_socket_v4_create()};
  if (!server) fail("no memory");
  if (operands == 1) {
    if (comm_socket_v4_create_server(server.get(), argv[argc - 1]) != 0) fail(argv[argc - 1]);
  } else if (comm_socket_v4_use_server_socket(server.get(), handed_over_socket()) != 0) {
    fail("no socket was handed over");
  }
  if (loop.add(server.get(), handler, limits()).generation == 0) fail("cannot serve");
  std::printf("listens on %s\n", server.release()->socket_path.c_str());
  return loop.run() == 0 ? 0 : 1;
}
