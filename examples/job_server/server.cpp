// Runs jobs of its clients in processes of their own. protocol.h says what they are.
//
//   job_server [--handed-over NUMBER NUMBER] SOCKET WORKER
//
// WORKER is the program job_worker. SIGTERM: takes no job any more, finishes those that it has, and
// ends. SIGHUP: starts its new version, which goes on with the same socket, and does likewise. The
// new version has another process id, which whoever looks after the server has to be told.
//
// Where memory runs out an exception ends the program: it is started again by who looks after it,
// and clients try again.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <tarn_utils_v4/comm_loop.h>

#include "../common.h"
#include "clients.h"
#include "restart.h"

namespace {

CommEndpoint make_endpoint() {
  CommEndpoint endpoint(comm_socket_v4_create());
  if (endpoint == nullptr) fail("no memory");
  comm_socket_v4_set_descriptors_cloexec(endpoint.get(), 1);
  return endpoint;
}

class JobServer : public CommLoopHandler {
 public:
  JobServer(const char* program, const char* path, const char* worker)
      : words_({program, path, worker}), clients_(loop_, worker) {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) ::sigaddset(&signals, signal);
    if (::sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) fail("sigprocmask");
    signals_ = CommDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (loop_.watch(signals_.get(), POLLIN, *this).generation == 0) fail("cannot watch signals");
  }

  void listen() {
    CommEndpoint endpoint = make_endpoint();
    if (comm_socket_v4_create_server(endpoint.get(), words_[1].c_str()) != 0)
      fail(words_[1].c_str());
    serve(std::move(endpoint));
  }

  void take_over(int listener, CommDescriptor readiness) {
    CommEndpoint endpoint = make_endpoint();
    if (comm_socket_v4_use_server_socket(endpoint.get(), listener) != 0)
      fail("no socket was handed over");
    endpoint->flags.bound = 1;  // The file is ours from now on.
    serve(std::move(endpoint));
    report_ready(std::move(readiness));
  }

  void run() {
    if (loop_.run() != 0) fail("cannot go on");
    std::printf("process %d has finished\n", ::getpid());
  }

  void on_ready(CommLoop& /*loop*/, CommLoopId /*signals*/, std::uint32_t /*events*/) override {
    struct signalfd_siginfo info;
    while (::read(signals_.get(), &info, sizeof(info)) == sizeof(info)) {
      if (info.ssi_signo == SIGCHLD)
        clients_.workers().reap();
      else if (info.ssi_signo == SIGHUP)
        start_successor();
      else
        drain();
    }
  }

 private:
  void serve(CommEndpoint endpoint) {
    server_ = loop_.add(endpoint.get(), clients_, Clients::limits());
    if (server_.generation == 0) fail("cannot serve");
    static_cast<void>(endpoint.release());
    std::printf("process %d listens on %s\n", ::getpid(), words_[1].c_str());
  }

  void start_successor() {
    if (!drains_) successor_.start(words_, loop_.endpoint(server_)->get_socket_fd());
  }

  // The file is the successor's from now on.
  void hand_over() {
    loop_.endpoint(server_)->flags.bound = 0;
    drain();
  }

  void drain() {
    if (!std::exchange(drains_, true) && loop_.stop_listening(server_) != 0)
      fail("cannot stop listening");
    clients_.drain();
  }

  CommLoop loop_;
  const std::vector<std::string> words_;  // program, path, worker
  CommDescriptor signals_;
  Clients clients_;
  Successor successor_{loop_, [this] { hand_over(); }};
  CommLoopId server_ = {0, 0};
  bool drains_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  const bool takes_over = argc == 6 && std::strcmp(argv[1], "--handed-over") == 0;
  if (!takes_over && argc != 3)
    fail("usage", "job_server [--handed-over NUMBER NUMBER] SOCKET WORKER");
  open_standard_descriptors();
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  ::signal(SIGPIPE, SIG_IGN);  // Nobody need read what it prints.
  JobServer server(argv[0], argv[argc - 2], argv[argc - 1]);
  if (takes_over)
    server.take_over(std::atoi(argv[2]), CommDescriptor(std::atoi(argv[3])));
  else
    server.listen();
  server.run();
}
