// Has file_server open files, and prints what the answers bring: attributes as name/value pairs,
// the first bytes as data, and the open descriptor, through which the client reads the rest.
//
//   file_client [--slow] SOCKET FILE...
//
// With --slow it reads no answer before a line comes on standard input. The answers then fill its
// socket, and after that the queue that the server keeps for it.
#include <cinttypes>

#include "common.h"

namespace {

// Validation makes a packet safe to read. That it holds what is wanted is for the reader to see.
const comm_socket_v4_packet_nv_pair* pair_of(const comm_socket_v4_packet& packet, const char* name,
                                             std::uint32_t type, std::size_t values) {
  for (std::size_t i = 0; i < packet.nv_entries(); ++i) {
    const auto* const entry = packet.nv_entry(i);
    if (std::strcmp(packet.nv_pair_name(entry), name) == 0 && entry->type() == type &&
        entry->length() >= values * 8)
      return entry;
  }
  fail(name, "the answer lacks it");
}

void print_answer(const char* path, comm_socket_v4_packet& answer) {
  if (answer.error_code != 0) {
    std::printf("%s: error %" PRIu64 ", %s\n", path, answer.error_code,
                printable(answer.error_string()).c_str());
    return;
  }
  const auto* const size = pair_of(answer, "size", comm_v4_type_uint64, 1);
  const auto* const mode = pair_of(answer, "mode", comm_v4_type_uint64, 1);
  const auto* const times = pair_of(answer, "times", comm_v4_type_int64, 3);
  const Descriptor file{answer.get_attached_fd(0)};  // Handed over: ours to close.
  std::string bytes(reinterpret_cast<const char*>(answer.data()), answer.data_length());
  if (!read_rest(file.get(), bytes)) fail(path);
  std::printf("%s: mode %" PRIo64 ", %" PRIu64 " bytes, modified %" PRId64 ", cksum %" PRIu32 "\n",
              path, answer.nv_pair_value_uint64(mode)[0], answer.nv_pair_value_uint64(size)[0],
              answer.nv_pair_value_int64(times)[1], cksum(std::move(bytes)));
}

// Sends requests from number `next` on until the socket takes no more; the number where it stopped.
std::size_t ask(comm_socket_v4* server, char** paths, std::size_t next, std::size_t count) {
  for (; next < count; ++next) {
    const Packet request = begin_request("open", next);
    if (!request || request->write_argv(paths[next]) != 0 || request->write_end() != 0)
      fail(paths[next], "cannot write a packet");
    const int sent = comm_socket_v4_packet_send_to_server(server, request.get());
    if (sent < 0) fail("cannot send");
    if (sent == 0) break;
  }
  return next;
}

}  // namespace

int main(int argc, char** argv) {
  const bool slow = argc > 1 && std::strcmp(argv[1], "--slow") == 0;
  char** const operands = argv + (slow ? 2 : 1);
  if (argc < (slow ? 4 : 3)) fail("usage", "file_client [--slow] SOCKET FILE...");
  const Endpoint server{comm_socket_v4_create()};
  if (!server) fail("no memory");
  comm_socket_v4_set_connect_timeout(server.get(), 5000000);
  if (comm_socket_v4_connect_to(server.get(), operands[0]) != 0) fail(operands[0]);

  char** const paths = operands + 1;
  const auto count = static_cast<std::size_t>(argv + argc - paths);
  std::size_t asked = ask(server.get(), paths, 0, count);
  if (slow) std::getchar();
  for (std::size_t i = 0; i < count; ++i) {
    const Packet answer = receive(server.get(), in_seconds(10));
    if (!answer) fail(paths[i], "no answer");
    if (answer->message_id != i) fail(paths[i], "its answer is lost or out of order");
    print_answer(paths[i], *answer);
    asked = ask(server.get(), paths, asked, count);
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}
