// Starts workers, each joined to it through a socket pair, and has them compute checksums of files
// that it sends as open descriptors. A worker that is done gets the next file.
//
//   pair_parent [--show] WORKER FILE...
#include <tarn_utils_v4/comm_loop.h>

#include "processes.h"

namespace {

constexpr std::size_t most_workers = 4;
constexpr std::uint64_t patience_us = 600 * 1000000ul;  // until some worker answers

CommPacket cksum_request(const char* path, std::uint64_t id) {
  CommDescriptor file{::open(path, O_RDONLY | O_CLOEXEC)};
  if (!file.is_open()) fail(path);
  CommPacketBuilder request = CommPacketBuilder::request("cksum");
  CommPacket packet = request.message_id(id).descriptor(std::move(file)).finish();
  if (!packet) fail(path, request.error().what().c_str());
  return packet;
}

class Parent : public CommLoopHandler {
 public:
  Parent(std::vector<const char*> files, bool shows)
      : files_(std::move(files)), sums_(files_.size()), shows_(shows) {}

  bool on_connect(CommLoop& loop, CommLoopId worker, const struct ucred& /*who*/) override {
    ++workers_;
    give_next_file(loop, worker);
    return true;
  }

  void on_packet(CommLoop& loop, CommLoopId worker, comm_socket_v4_packet* answer) override {
    const std::uint64_t file = loop.tag(worker);
    if (shows_) show(*answer, "from worker, file", file);
    if (answer->message_id != file) fail(files_[file], "something else was answered");
    if (answer->error_code != 0) fail(files_[file], printable(answer->error_string()).c_str());
    sums_[file] =
        std::to_string(answer->argv_uint64(0)) + ' ' + std::to_string(answer->argv_uint64(1));
    give_next_file(loop, worker);
  }

  void on_gone(CommLoop& loop, CommLoopId worker, CommLoopReason why, int /*error*/) override {
    if (why != comm_loop_finished) fail(files_[loop.tag(worker)], "its worker has gone");
    if (--workers_ == 0) loop.stop();
  }

  void on_time(CommLoop& /*loop*/, CommLoopId /*timer*/) override {
    fail("no worker answers", "too late");
  }

  void print() const {
    for (std::size_t i = 0; i < files_.size(); ++i)
      std::printf("%s %s\n", sums_[i].c_str(), files_[i]);
  }

 private:
  // The tag of a worker is the number of its file.
  void give_next_file(CommLoop& loop, CommLoopId worker) {
    loop.remove(deadline_);
    deadline_ = loop.after(patience_us, *this);
    if (next_ == files_.size()) {
      loop.finish(worker);
      return;
    }
    const CommPacket request = cksum_request(files_[next_], next_);
    if (shows_) show(*request, "to worker, file", next_);
    loop.set_tag(worker, next_);
    if (loop.send(worker, request.get()) < 0) fail(files_[next_], "cannot send");
    ++next_;
  }

  const std::vector<const char*> files_;
  std::vector<std::string> sums_;
  const bool shows_;
  std::size_t next_ = 0;
  std::size_t workers_ = 0;
  CommLoopId deadline_ = {0, 0};
};

}  // namespace

int main(int argc, char** argv) {
  const bool shows = argc > 1 && std::strcmp(argv[1], "--show") == 0;
  const int first = shows ? 2 : 1;
  if (argc < first + 2) fail("usage", "pair_parent [--show] WORKER FILE...");
  const char* const program = argv[first];
  Parent parent{{argv + first + 1, argv + argc}, shows};
  CommLoop loop;
  std::vector<pid_t> pids;
  for (int i = first + 1; i < argc && pids.size() < most_workers; ++i) {
    CommLoopId worker;
    pids.push_back(start_worker(loop, parent, program, worker));
    if (pids.back() < 0) fail("cannot start a worker");
  }
  if (loop.run() != 0) fail("cannot wait");
  for (const pid_t pid : pids) {
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || status != 0) fail(program, "a worker failed");
  }
  parent.print();
  return std::fflush(stdout) == 0 ? 0 : 1;
}
