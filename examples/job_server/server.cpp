// Runs jobs of its clients in processes of their own. protocol.h says what they are.
//
//   job_server [--handed-over NUMBER NUMBER] SOCKET WORKER
//
// WORKER is the program job_worker. SIGTERM: takes no job any more, finishes those that it has, and
// ends. SIGHUP: starts its new version, which goes on with the same socket, and does likewise. The
// new version has another process id, which whoever looks after the server has to be told.
//
// The new version is started with the socket that listens, and says when it accepts. Until then the
// old one does; from then on the old one only finishes what it has begun, since connections and
// jobs live in its memory. A new version that cannot start changes nothing. In between both accept,
// so that nobody who connects is refused.
//
// Where memory runs out an exception ends the program: it is started again by who looks after it,
// and clients try again.
#include "jobs.h"

namespace {

class JobServer : public CommLoopHandler {
 public:
  JobServer(const char* program, const char* path, const char* worker)
      : program_(program), path_(path), worker_(worker), jobs_(loop_, ended_, worker) {
    if (loop_.watch(signals_.get(), POLLIN, *this).generation == 0) fail("cannot watch signals");
  }

  // With the socket that an old version listens on, or with one of its own, -1. Returns when all
  // clients of an ending server have their answers.
  void serve(int listener, CommDescriptor old_version) {
    CommEndpoint endpoint(comm_socket_v4_create());
    if (endpoint == nullptr) fail("no memory");
    const int opened = listener < 0 ? comm_socket_v4_create_server(endpoint.get(), path_.c_str())
                                    : comm_socket_v4_use_server_socket(endpoint.get(), listener);
    if (opened != 0) fail(path_.c_str());
    endpoint->flags.bound = 1;  // The file is ours from now on.
    server_ = loop_.add(endpoint.get(), jobs_, Jobs::limits());
    if (server_.generation == 0) fail("cannot serve");
    std::printf("process %d listens on %s\n", ::getpid(), endpoint.release()->socket_path.c_str());
    if (old_version.is_open() && ::write(old_version.get(), "1", 1) != 1)
      std::perror("the old version does not listen");
    if (loop_.run() != 0) fail("cannot go on");
  }

  void on_ready(CommLoop& /*loop*/, CommLoopId watched, std::uint32_t /*events*/) override {
    if (watched == successor_watch_) return on_successor();
    while (const int signal = next_signal(signals_)) {
      if (signal == SIGCHLD) ended_.await();
      if (signal == SIGHUP) start_successor();
      if (signal == SIGTERM || signal == SIGINT) drain();
    }
  }

 private:
  void drain() {
    end_successor();  // One that is not ready by now shall not be.
    if (!jobs_.drains() && loop_.stop_listening(server_) != 0) fail("cannot stop listening");
    jobs_.drain();
  }

  void start_successor() {
    int ends[2];
    if (jobs_.drains() || successor_ > 0) return;
    if (::pipe2(ends, O_CLOEXEC) != 0) return std::perror("cannot start a new version");
    readiness_ = CommDescriptor(ends[0]);
    const CommDescriptor theirs(ends[1]);
    const int listener = loop_.endpoint(server_)->get_socket_fd();
    successor_watch_ = loop_.watch(readiness_.get(), POLLIN, *this);
    if (successor_watch_.generation != 0)
      successor_ = start_program({program_, "--handed-over", std::to_string(listener),
                                  std::to_string(theirs.get()), path_, worker_},
                                 {listener, theirs.get()}, Fate::goes_on);
    if (successor_ > 0) return;
    std::perror("cannot start a new version");
    loop_.remove(successor_watch_);
  }

  // Something to read, or the end: a process that has ended was not ready.
  void on_successor() {
    char byte;
    if (::read(readiness_.get(), &byte, 1) != 1) {
      std::printf("the new version has not started, this one serves on\n");
      return end_successor();
    }
    std::printf("process %d goes on\n", std::exchange(successor_, -1));
    loop_.endpoint(server_)->flags.bound = 0;  // The file is the successor's from now on.
    loop_.remove(successor_watch_);
    drain();
  }

  void end_successor() {
    if (successor_ <= 0) return;
    loop_.remove(successor_watch_);
    ended_.end(std::exchange(successor_, -1));
  }

  const std::string program_, path_, worker_;
  const CommDescriptor signals_ = take_signals({SIGTERM, SIGINT, SIGHUP, SIGCHLD});
  CommLoop loop_;
  EndedProcesses ended_;
  Jobs jobs_;
  CommLoopId server_ = {0, 0};
  CommDescriptor readiness_;  // of the new version
  CommLoopId successor_watch_ = {0, 0};
  pid_t successor_ = -1;  // while it is starting
};

}  // namespace

int main(int argc, char** argv) {
  const bool takes_over = argc == 6 && std::strcmp(argv[1], "--handed-over") == 0;
  if (!takes_over && argc != 3)
    fail("usage", "job_server [--handed-over NUMBER NUMBER] SOCKET WORKER");
  begin_service();
  const auto number = [&](int i) { return takes_over ? std::atoi(argv[i]) : -1; };
  JobServer server(argv[0], argv[argc - 2], argv[argc - 1]);
  server.serve(number(2), CommDescriptor(number(3)));
}
