// Carries out one job after another for the server that has started it, until that closes its end.
//
//   job_worker NUMBER      the descriptor of its end of a socket pair, inherited
#include <algorithm>
#include <cctype>

#include "../processes.h"

namespace {

class Job {
 public:
  // `request` is its first packet.
  Job(CommClient& server, comm_socket_v4_packet* request)
      : server_(server),
        request_(comm_share_packet(request)),
        input_(request->get_attached_fd(0)),
        output_(request->get_attached_fd(1)) {}

  // Does what is asked for, and answers; false when the answer cannot be sent.
  bool run() {
    const int error = carry_out() ? 0 : errno;
    CommPacketBuilder answer = CommPacketBuilder::response_to(*request_, error);
    for (const std::uint64_t number : result_)
      if (error == 0) answer.argument_uint64(number);
    return server_.send(answer.multipart(!has_written_, true).finish(), CommClient::endless);
  }

 private:
  // Each is false with errno when it fails.
  bool carry_out() {
    const std::string_view command = request_->command();
    if (command == "crash") return ::raise(SIGKILL) == 0;
    const std::uint64_t time = CommPacketReader(*request_).argument(0).as_uint64().value_or(0);
    if (command == "sleep")
      return ::poll(nullptr, 0, static_cast<int>(std::min<std::uint64_t>(time, 3600000))) == 0;
    return command == "checksum" ? checksum() : copy(command == "upper");
  }
  bool checksum() {
    Cksum sum;
    while (read()) {
      sum.add(bytes_.data(), bytes_.size());
      result_ = {sum.value(), sum.length()};
      if (bytes_.empty()) return true;
    }
    return false;
  }
  bool copy(bool in_upper_case) {
    for (result_ = {0}; read(); result_[0] += bytes_.size()) {
      if (bytes_.empty()) return true;
      // Without a locale of its own the program knows ASCII only, as on every machine.
      for (unsigned char& c : bytes_)
        if (in_upper_case) c = static_cast<unsigned char>(std::toupper(c));
      if (!write()) return false;
    }
    return false;
  }

  // The next bytes, none at the end.
  bool read() {
    if (input_.is_open()) return read_part(input_.get(), bytes_);
    for (bytes_.clear(); bytes_.empty() && !has_all_parts_;) {
      const CommPacket packet = std::exchange(has_begun_, true) ? server_.next(CommClient::endless)
                                                                : comm_share_packet(request_.get());
      if (packet == nullptr) return false;
      const CommPacketReader part(*packet);
      bytes_.assign(part.data().begin(), part.data().end());
      has_all_parts_ = part.ends_series();
    }
    return true;
  }
  bool write() {
    if (output_.is_open()) return write_all(output_.get(), bytes_);
    CommPacketBuilder part = CommPacketBuilder::response_to(*request_);
    part.multipart(!std::exchange(has_written_, true), false).data(bytes_);
    return server_.send(part.finish(), CommClient::endless);
  }

  CommClient& server_;
  const CommPacket request_;
  const CommDescriptor input_, output_;  // without them the bytes come and go in packets
  bool has_begun_ = false, has_all_parts_ = false, has_written_ = false;
  std::vector<unsigned char> bytes_;
  std::vector<std::uint64_t> result_;
};

}  // namespace

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);  // A pipe that nobody reads ends a job, not the worker.
  CommClient server = connection_to_parent(argc, argv);
  server.keep_at_most(0);  // While nobody takes the output no more input is taken.
  while (const CommPacket packet = server.next(CommClient::endless))
    // Others are the rest of a job that has failed.
    if (CommPacketReader(*packet).begins_series() && !Job(server, packet.get()).run())
      fail("cannot answer");
  return errno == ENOTCONN ? 0 : 1;  // Closed by the server is how it ends.
}
