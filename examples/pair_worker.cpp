// Answers its parent with the checksum and the length of every file whose descriptor it is sent,
// until the parent ends the connection.
//
//   pair_worker NUMBER      the descriptor of its end of a socket pair, inherited
#include "processes.h"

using namespace std::chrono_literals;

int main(int argc, char** argv) {
  CommClient parent = connection_to_parent(argc, argv);
  while (const CommPacket request = parent.next(CommClient::endless)) {
    const CommDescriptor file{request->get_attached_fd(0)};
    std::string bytes;
    const int error = read_rest(file.get(), bytes) ? 0 : errno;
    CommPacketBuilder answer = CommPacketBuilder::response_to(*request, error);
    answer.argument_uint64(cksum(bytes)).argument_uint64(bytes.size());
    if (!parent.send(answer.finish(), 10s)) fail("cannot answer");
  }
  return errno == ENOTCONN ? 0 : 1;
}
