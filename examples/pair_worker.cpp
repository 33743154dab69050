// Answers its parent with the checksum and the length of every file whose descriptor it is sent,
// until the parent closes its end.
//
//   pair_worker NUMBER      the descriptor of its end of a socket pair, inherited
#include <climits>

#include "common.h"

int main(int argc, char** argv) {
  if (argc != 2) fail("usage", "pair_worker NUMBER");
  const Endpoint parent{comm_socket_v4_create()};
  if (!parent || comm_socket_v4_connect_use_socketpair(parent.get(), std::atoi(argv[1])) != 0)
    fail(argv[1], "not an end of a socket pair");
  while (const Packet request = receive(parent.get(), ULONG_MAX)) {
    const Descriptor file{request->get_attached_fd(0)};
    std::string bytes;
    const Packet answer = begin_answer(*request, read_rest(file.get(), bytes) ? 0 : errno);
    if (!answer || answer->write_argv_uint64(cksum(bytes)) != 0 ||
        answer->write_argv_uint64(bytes.size()) != 0 || answer->write_end() != 0 ||
        !send(parent.get(), answer.get(), in_seconds(10)))
      fail("cannot answer");
  }
  return comm_socket_v4_is_open(parent.get()) ? 1 : 0;  // Closed by the parent is how it ends.
}
