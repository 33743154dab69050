// Has file_server open files, and prints what the answers bring: attributes as name/value pairs,
// the first bytes as data, and the open descriptor, through which the client reads the rest.
//
//   file_client [--slow] SOCKET FILE...
//
// With --slow it reads no answer before a line comes on standard input. The answers then fill its
// socket, and after that the queue that the server keeps for it.
#include "common.h"

using namespace std::chrono_literals;

namespace {

// Validation makes a packet safe to read. That it holds what is wanted is for the reader to see.
template <class Value>
Value wanted(const std::optional<Value>& value, const char* name) {
  if (!value) fail(name, "the answer lacks it");
  return *value;
}

void print_answer(const char* path, comm_socket_v4_packet& answer) {
  if (answer.error_code != 0) {
    std::printf("%s: error %" PRIu64 ", %s\n", path, answer.error_code,
                printable(answer.error_string()).c_str());
    return;
  }
  const CommPacketReader read(answer);
  const std::uint64_t size = wanted(read.pair("size").as_uint64(), "size");
  const std::uint64_t mode = wanted(read.pair("mode").as_uint64(), "mode");
  const auto times = read.pair("times").int64_list();
  if (times.size() != 3) fail("times", "the answer lacks them");
  const CommDescriptor file{answer.get_attached_fd(0)};  // Handed over: ours to close.
  std::string bytes(read.data().as_characters());
  if (!read_rest(file.get(), bytes)) fail(path);
  std::printf("%s: mode %" PRIo64 ", %" PRIu64 " bytes, modified %" PRId64 ", cksum %" PRIu32 "\n",
              path, mode, size, times[1], cksum(bytes));
}

// Sends requests from number `next` on until the socket takes no more; the number where it stopped.
std::size_t ask(CommClient& server, char** paths, std::size_t next, std::size_t count) {
  for (; next < count; ++next) {
    CommPacketBuilder request = CommPacketBuilder::request("open");
    const CommPacket packet = request.message_id(next).argument(paths[next]).finish();
    if (!packet) fail(paths[next], request.error().what().c_str());
    if (!server.send(packet, 0s)) {
      if (errno == ETIMEDOUT) break;
      fail("cannot send");
    }
  }
  return next;
}

}  // namespace

int main(int argc, char** argv) {
  const bool slow = argc > 1 && std::strcmp(argv[1], "--slow") == 0;
  char** const operands = argv + (slow ? 2 : 1);
  if (argc < (slow ? 4 : 3)) fail("usage", "file_client [--slow] SOCKET FILE...");
  CommClient server;
  if (!server.connect(operands[0], 5s)) fail(operands[0]);

  char** const paths = operands + 1;
  const auto count = static_cast<std::size_t>(argv + argc - paths);
  std::size_t asked = ask(server, paths, 0, count);
  if (slow) std::getchar();
  for (std::size_t i = 0; i < count; ++i) {
    const CommPacket answer = server.next(10s);
    if (!answer || answer->message_id != i) fail(paths[i], "no answer, or another's");
    print_answer(paths[i], *answer);
    asked = ask(server, paths, asked, count);
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}
