// Answers its parent with the checksum and the length of every file whose descriptor it is sent,
// until the parent ends the connection.
//
//   pair_worker NUMBER      the descriptor of its end of a socket pair, inherited
#include "common.h"

using namespace std::chrono_literals;

int main(int argc, char** argv) {
  if (argc != 2) fail("usage", "pair_worker NUMBER");
  CommClient parent;
  if (parent.endpoint() == nullptr ||
      comm_socket_v4_connect_use_socketpair(parent.endpoint(), std::atoi(argv[1])) != 0)
    fail(argv[1], "not an end of a socket pair");
  while (const CommPacket request = parent.next(CommClient::endless)) {
    const CommDescriptor file{request->get_attached_fd(0)};
    std::string bytes;
    const int error = read_rest(file.get(), bytes) ? 0 : errno;
    CommPacketBuilder answer =
        CommPacketBuilder::response_to(*request, error != 0 ? std::strerror(error) : "");
    answer.error_code(static_cast<std::uint64_t>(error))
        .argument_uint64(cksum(bytes))
        .argument_uint64(bytes.size());
    if (!parent.send(answer.finish(), 10s)) fail("cannot answer");
  }
  return errno == ENOTCONN ? 0 : 1;
}
