// Starts a worker that is joined to it through a socket pair, and has it compute checksums of files
// that it sends as open descriptors.
//
//   pair_parent [--show] WORKER FILE...
#include <fcntl.h>
#include <sys/wait.h>

#include <cinttypes>

#include "common.h"

namespace {

// Keeps one end of a new pair, and tells the program the number of the other.
pid_t start_worker(comm_socket_v4* endpoint, const char* program) {
  if (comm_socket_v4_connect_new_socketpair(endpoint) != 0) fail("cannot make a socket pair");
  const Descriptor remote{comm_socket_v4_socketpair_get_remote_end(endpoint)};
  const std::string number = std::to_string(remote.get());
  const pid_t pid = ::fork();
  if (pid < 0) fail("cannot fork");
  if (pid == 0) {
    ::execl(program, program, number.c_str(), static_cast<char*>(nullptr));
    std::perror(program);
    ::_exit(127);
  }
  return pid;  // Closes our copy of the worker's end, so that its death ends the connection.
}

Packet cksum_request(const char* path, std::uint64_t id) {
  const Descriptor file{::open(path, O_RDONLY | O_CLOEXEC)};
  if (!file.is_open()) fail(path);
  Packet request = begin_request("cksum", id);
  if (!request || !request->attach_fd_to_send(file.get()) || request->write_end() != 0)
    fail(path, "cannot write a packet");
  return request;  // It holds a duplicate of the descriptor.
}

}  // namespace

int main(int argc, char** argv) {
  const bool shows = argc > 1 && std::strcmp(argv[1], "--show") == 0;
  const int first = shows ? 2 : 1;
  if (argc < first + 2) fail("usage", "pair_parent [--show] WORKER FILE...");
  Endpoint worker{comm_socket_v4_create()};
  if (!worker) fail("no memory");
  const pid_t pid = start_worker(worker.get(), argv[first]);
  for (int i = first + 1; i < argc; ++i) {
    const auto id = static_cast<std::uint64_t>(i);
    const Packet request = cksum_request(argv[i], id);
    if (shows) show(*request, "to worker, file", id);
    if (!send(worker.get(), request.get(), in_seconds(10))) fail(argv[i], "cannot send");
    const Packet answer = receive(worker.get(), in_seconds(10));
    if (!answer || answer->message_id != id) fail(argv[i], "no answer");
    if (shows) show(*answer, "from worker, file", id);
    if (answer->error_code != 0) fail(argv[i], printable(answer->error_string()).c_str());
    std::printf("%" PRIu64 " %" PRIu64 " %s\n", answer->argv_uint64(0), answer->argv_uint64(1),
                argv[i]);
  }
  worker.reset();  // Closes our end, at which the worker ends.
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid || status != 0) fail(argv[first], "the worker failed");
  return std::fflush(stdout) == 0 ? 0 : 1;
}
