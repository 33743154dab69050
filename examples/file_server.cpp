// Opens files for other processes.
//
//   file_server [--show] [SOCKET]      --show lists every packet; SIGTERM ends it
//
// Without SOCKET it serves the socket that a service manager hands over; systemd/ has the units.
//
// A request "open" with a path is answered with the attributes as pairs, the first bytes as data
// and the open descriptor; or with an errno and its text.
//
// The loop is made for thousands of clients: epoll tells which are ready, no others are touched.
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>

#include <unordered_map>
#include <vector>

#include "common.h"

namespace {

// --- Answers ------------------------------------------------------------------------------------

struct File {
  Descriptor fd;
  struct stat about = {};
  std::vector<unsigned char> start;
};

// Does what the request asks for; 0 or an errno.
int open_file(const comm_socket_v4_packet& request, File& file) {
  if (std::strcmp(request.command(), "open") != 0) return ENOSYS;
  // O_NONBLOCK: a FIFO must not make everybody wait.
  file.fd = Descriptor{::open(request.argv_text(0), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
  if (!file.fd.is_open() || ::fstat(file.fd.get(), &file.about) != 0) return errno;
  if (!S_ISREG(file.about.st_mode)) return S_ISDIR(file.about.st_mode) ? EISDIR : EINVAL;
  file.start.resize(16384);
  const ssize_t count = ::pread(file.fd.get(), file.start.data(), file.start.size(), 0);
  if (count < 0) return errno;
  file.start.resize(static_cast<std::size_t>(count));
  return 0;
}

bool write_file(comm_socket_v4_packet& answer, const File& file) {
  const auto size = static_cast<std::uint64_t>(file.about.st_size);
  const std::uint64_t mode = file.about.st_mode & 07777;
  const std::int64_t times[] = {file.about.st_atime, file.about.st_mtime, file.about.st_ctime};
  return answer.write_nv_pair_uint64("size", &size, 1) == 0 &&
         answer.write_nv_pair_uint64("mode", &mode, 1) == 0 &&
         answer.write_nv_pair_int64("times", times, std::size(times)) == 0 &&
         answer.write_data_binary(file.start.data(), file.start.size()) >= 0;
}

// Null when it cannot be written.
Packet answer_to(const comm_socket_v4_packet& request) {
  File file;
  int error = open_file(request, file);
  Packet answer = begin_answer(request, error);
  if (answer && error == 0 && !answer->attach_fd_to_send(file.fd.get())) {
    error = errno;
    answer = begin_answer(request, error);
  }
  if (!answer || (error == 0 && !write_file(*answer, file))) return nullptr;
  return answer->write_end() == 0 ? std::move(answer) : nullptr;
}

// --- Server -------------------------------------------------------------------------------------

// Clients accepted in a row, requests of one client in a row: the others have a turn then.
constexpr int FAIR_SHARE = 16;

// The data of an event is the index of a slot, since the address of a record does not last.
constexpr std::uint64_t LISTENER = COMM_V4_NO_INDEX;
constexpr std::uint64_t STOP = COMM_V4_NO_INDEX - 1;

class FileServer {
 public:
  // Null for the socket that was handed over.
  FileServer(const char* path, bool shows) : shows_(shows) {
    sigset_t stop;
    ::sigemptyset(&stop);
    ::sigaddset(&stop, SIGTERM);
    ::sigaddset(&stop, SIGINT);
    if (::sigprocmask(SIG_BLOCK, &stop, nullptr) != 0) fail("sigprocmask");
    ::signal(SIGPIPE, SIG_IGN);  // Nobody need read what it prints.
    signals_ = Descriptor{::signalfd(-1, &stop, SFD_CLOEXEC)};
    if (!endpoint_) fail("no memory");
    if (comm_socket_v4_set_descriptor_reserve(endpoint_.get(), 1) != 0) fail("no reserve");
    comm_socket_v4_set_max_descriptors(endpoint_.get(), 0);  // Requests bring none.
    const int opened =
        path != nullptr ? comm_socket_v4_create_server(endpoint_.get(), path)
                        : comm_socket_v4_use_server_socket(endpoint_.get(), handed_over_socket());
    if (opened != 0) fail(path != nullptr ? path : "no socket was handed over");
    if (!watch(EPOLL_CTL_ADD, endpoint_->get_socket_fd(), LISTENER, EPOLLIN) ||
        !watch(EPOLL_CTL_ADD, signals_.get(), STOP, EPOLLIN))
      fail("epoll_ctl");
  }

  const char* path() const { return endpoint_->socket_path.c_str(); }

  void run() {
    for (;;) {
      struct epoll_event ready[64];
      const int count = ::epoll_wait(epoll_.get(), ready, std::size(ready), -1);
      if (count < 0 && errno != EINTR) fail("epoll_wait");
      for (int i = 0; i < count; ++i) {
        const std::uint64_t index = ready[i].data.u64;
        if (index == STOP) return;
        index == LISTENER ? accept_clients() : serve(index, ready[i].events);
      }
      release_clients();
    }
  }

 private:
  struct Connection {  // by the index of the client's slot
    CommLargePacketQueue queue;
    std::uint32_t events = EPOLLIN;  // that epoll watches
    std::uint64_t answers = 0;
  };

  // As sd_listen_fds(3) has it: the first descriptor behind the standard ones. -1 without.
  static int handed_over_socket() {
    const char* const pid = std::getenv("LISTEN_PID");
    const char* const count = std::getenv("LISTEN_FDS");
    const bool is_ours = pid != nullptr && count != nullptr && std::to_string(::getpid()) == pid;
    return is_ours && std::strcmp(count, "1") == 0 ? STDERR_FILENO + 1 : -1;
  }

  bool watch(int operation, int fd, std::uint64_t index, std::uint32_t events) {
    struct epoll_event event = {.events = events, .data = {.u64 = index}};
    return ::epoll_ctl(epoll_.get(), operation, fd, &event) == 0;
  }

  void accept_clients() {
    for (int i = 0; i < FAIR_SHARE; ++i) {
      comm_socket_v4_client* const client = comm_socket_v4_accept_connection(endpoint_.get());
      if (!comm_socket_v4_is_open(endpoint_.get())) fail("cannot accept");
      if (client == nullptr) return;
      if (!welcome(*client)) comm_socket_v4_free_client(client);
    }
  }

  // Anybody may connect to the socket file: what the kernel says of the peer decides.
  bool welcome(comm_socket_v4_client& client) {
    const unsigned long index = comm_socket_v4_client_ptr2index(&client);
    const bool trusted = client.cred.uid == ::geteuid() || client.cred.uid == 0;
    std::printf("client %lu: pid %d, uid %u, gid %u%s\n", index, client.cred.pid, client.cred.uid,
                client.cred.gid, trusted ? "" : ", turned away");
    if (!trusted || !watch(EPOLL_CTL_ADD, client.get_client_fd(), index, EPOLLIN)) return false;
    connections_.try_emplace(index);
    return true;
  }

  void serve(unsigned long index, std::uint32_t events) {
    comm_socket_v4_client& client = *comm_socket_v4_index2client(endpoint_.get(), index);
    Connection& connection = connections_.at(index);
    if (events & (EPOLLHUP | EPOLLERR)) {  // Nobody is left to read answers.
      comm_socket_v4_disconnect_client(&client);
      return;
    }
    if (events & EPOLLOUT) {
      const std::uint64_t before = connection.queue.queued_count;
      connection.queue.flush_queued_packet(&client);
      // There is room: what cannot be sent now never can.
      if (connection.queue.queued_count == before) comm_socket_v4_disconnect_client(&client);
    }
    if (events & EPOLLIN) answer_requests(client, index, connection);
    update_events(client, index, connection);
  }

  // While answers wait, no more requests are read: the client is to read first. As nothing here
  // fills the slot ahead, what is left after a fair share is in the socket, and epoll reports it
  // again.
  void answer_requests(comm_socket_v4_client& client, unsigned long index, Connection& connection) {
    for (int i = 0; i < FAIR_SHARE && connection.queue.queued_count == 0; ++i) {
      const Packet request{comm_socket_v4_client_get_packet(&client)};
      if (!request) return;
      if (shows_) show(*request, "from client", index);
      const Packet answer = answer_to(*request);
      if (answer && shows_) show(*answer, "to client", index);
      if (answer && connection.queue.send_packet(&client, answer.get()) > 0)
        ++connection.answers;
      else
        comm_socket_v4_disconnect_client(&client);  // Nothing more is retrieved from it then.
    }
  }

  // Room to send is watched only while packets wait for it: nearly always there is some.
  void update_events(comm_socket_v4_client& client, unsigned long index, Connection& connection) {
    const bool waits = connection.queue.queued_count > 0;
    const std::uint32_t events = waits ? EPOLLOUT : EPOLLIN;
    if (events == connection.events) return;
    std::printf("client %lu %s\n", index,
                waits ? "reads slowly, answers wait for it" : "has caught up");
    connection.events = events;
    if (!watch(EPOLL_CTL_MOD, client.get_client_fd(), index, events))
      comm_socket_v4_disconnect_client(&client);
  }

  // After each round, so that none of its events meets a slot with another client in it. The close
  // alone would not take it out of epoll while a copy of the descriptor is open: in a forked child,
  // or for a moment where somebody looks into /proc/PID/fd.
  void release_clients() {
    while (auto* const client = comm_socket_v4_get_disconnected_client(endpoint_.get())) {
      const auto entry = connections_.find(comm_socket_v4_client_ptr2index(client));
      std::printf("client %lu has left, %lu answers\n", entry->first, entry->second.answers);
      ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, client->get_client_fd(), nullptr);
      connections_.erase(entry);
      comm_socket_v4_free_client(client);
    }
  }

  const bool shows_;
  Endpoint endpoint_{comm_socket_v4_create()};
  Descriptor epoll_{::epoll_create1(EPOLL_CLOEXEC)};
  Descriptor signals_;
  std::unordered_map<unsigned long, Connection> connections_;
};

}  // namespace

int main(int argc, char** argv) {
  const bool shows = argc > 1 && std::strcmp(argv[1], "--show") == 0;
  const int operands = argc - (shows ? 2 : 1);
  if (operands > 1) fail("usage", "file_server [--show] [SOCKET]");
  open_standard_descriptors();
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  FileServer server{operands == 1 ? argv[argc - 1] : nullptr, shows};
  std::printf("listens on %s\n", server.path());
  server.run();
}
