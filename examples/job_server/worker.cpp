// Carries out one job after another for the server that has started it, until that closes its end.
//
//   job_worker NUMBER      the descriptor of its end of a socket pair, inherited
#include <signal.h>

#include <algorithm>
#include <thread>

#include "../common.h"
#include "transfers.h"

namespace {

struct Result {
  int error = 0;
  std::vector<std::uint64_t> numbers = {};
};

Result checksum(int input) {
  Cksum sum;
  std::vector<unsigned char> part(part_size);
  for (;;) {
    const ssize_t count = read_all(input, part.data(), part.size());
    if (count < 0) return {errno};
    if (count == 0) return {0, {sum.value(), sum.length()}};
    sum.add(part.data(), static_cast<std::size_t>(count));
  }
}

// ASCII only, so that every machine has the same upper case.
unsigned char to_upper(unsigned char c) {
  return c >= 'a' && c <= 'z' ? static_cast<unsigned char>(c - 'a' + 'A') : c;
}

Result copy(int input, int output, std::uint64_t most, bool in_upper_case) {
  std::uint64_t length = 0;
  std::vector<unsigned char> part(part_size);
  for (;;) {
    const ssize_t count = read_all(input, part.data(), part.size());
    if (count < 0) return {errno};
    if (count == 0) return {0, {length}};
    const CommBytes bytes(part.data(), static_cast<std::size_t>(count));
    length += bytes.size();
    if (length > most) return {EFBIG};
    if (in_upper_case) std::transform(bytes.begin(), bytes.end(), part.begin(), to_upper);
    if (!write_all(output, bytes)) return {errno};
  }
}

Result carry_out(comm_socket_v4_packet& request) {
  const CommPacketReader read(request);
  const CommDescriptor input(request.get_attached_fd(0));
  const CommDescriptor output(request.get_attached_fd(1));
  const std::uint64_t argument = read.argument(0).as_uint64().value_or(0);
  const std::uint64_t most = read.argument(1).as_uint64().value_or(0);
  if (read.command() == "checksum") return checksum(input.get());
  if (read.command() == "echo") return copy(input.get(), output.get(), most, false);
  if (read.command() == "upper") return copy(input.get(), output.get(), most, true);
  if (read.command() == "crash") ::raise(SIGKILL);
  if (read.command() != "sleep") return {ENOSYS};
  std::this_thread::sleep_for(
      std::chrono::milliseconds(std::min<std::uint64_t>(argument, 3600000)));
  return {};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) fail("usage", "job_worker NUMBER");
  ::signal(SIGPIPE, SIG_IGN);  // A pipe that nobody reads ends a job, not the worker.
  CommEndpoint endpoint(comm_socket_v4_create());
  if (endpoint == nullptr ||
      comm_socket_v4_connect_use_socketpair(endpoint.get(), std::atoi(argv[1])) != 0)
    fail(argv[1], "not an end of a socket pair");
  CommClient server(std::move(endpoint));
  while (const CommPacket request = server.next(CommClient::endless)) {
    const Result result = carry_out(*request);
    CommPacketBuilder answer = CommPacketBuilder::response_to(*request);
    answer.error_code(static_cast<std::uint64_t>(result.error));
    for (const std::uint64_t number : result.numbers) answer.argument_uint64(number);
    if (!server.send(answer.finish(), CommClient::endless)) fail("cannot answer");
  }
  return errno == ENOTCONN ? 0 : 1;  // Closed by the server is how it ends.
}
