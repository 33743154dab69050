// The library beside the plainest correct code on raw SOCK_SEQPACKET sockets that moves the same
// bytes between two processes. All contenders of a table take turns in every round; a figure is the
// median over the rounds, a ratio the library's median by the raw one's.
//
//     channel_bench [--rounds N] [--quick] [TABLE...]      (round-trips streams descriptors
//     clients)
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/packets.h"

namespace {

[[noreturn]] void die(const char* what) {
  std::perror(what);
  std::exit(1);
}

int check(int result, const char* what) {
  if (result < 0) die(what);
  return result;
}

void pin_to(int core) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(core, &set);
  check(sched_setaffinity(0, sizeof(set), &set), "sched_setaffinity");
}

double seconds_of(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

struct DestroyEndpoint {
  void operator()(comm_socket_v4* c) const { comm_socket_v4_destroy(c); }
};
using Endpoint = std::unique_ptr<comm_socket_v4, DestroyEndpoint>;

// --- Raw sockets: plain, blocking where nothing else is to be done -------------------------------

constexpr std::size_t most_active = 16;
constexpr std::size_t largest = 65536;
char raw_buffer[largest];

int raw_connect(const std::string& path) {
  struct sockaddr_un address;
  std::size_t length;
  comm_socket_path_to_sockaddr_un(address, length, path);
  const int fd = check(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "socket");
  while (::connect(fd, reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length)) != 0)
    if (errno != EINTR) die("connect");
  return fd;
}

int raw_listen(const std::string& path) {
  struct sockaddr_un address;
  std::size_t length;
  comm_socket_path_to_sockaddr_un(address, length, path);
  const int fd = check(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0), "socket");
  check(::bind(fd, reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length)), "bind");
  check(::listen(fd, 0), "listen");
  return fd;
}

// select(2) over any number of descriptors.
class RawSet {
 public:
  void reset(int highest) { words_.assign(static_cast<std::size_t>(highest) / 64 + 1, 0); }
  void add(int fd) { words_[static_cast<std::size_t>(fd) / 64] |= 1ul << (fd % 64); }
  bool has(int fd) const { return words_[static_cast<std::size_t>(fd) / 64] >> (fd % 64) & 1; }
  fd_set* get() { return reinterpret_cast<fd_set*>(words_.data()); }

 private:
  std::vector<unsigned long> words_;
};

void raw_wait_readable(int fd) {
  RawSet set;
  set.reset(fd);
  set.add(fd);
  check(::select(fd + 1, set.get(), nullptr, nullptr, nullptr), "select");
}

struct RawMessage {
  explicit RawMessage(std::size_t size) : bytes{raw_buffer, size}, message() {
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
  }
  struct iovec bytes;
  struct msghdr message;
};

ssize_t raw_send_message(int fd, std::size_t size, const int* descriptor = nullptr) {
  RawMessage raw(size);
  alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  if (descriptor != nullptr) {
    raw.message.msg_control = control;
    raw.message.msg_controllen = sizeof(control);
    struct cmsghdr* const c = CMSG_FIRSTHDR(&raw.message);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(c), descriptor, sizeof(*descriptor));
  }
  return ::sendmsg(fd, &raw.message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

// Closes a descriptor that came along.
ssize_t raw_receive_message(int fd, bool ask_size) {
  int size = 0;
  if (ask_size && ::ioctl(fd, FIONREAD, &size) != 0) die("ioctl");
  RawMessage raw(largest);
  alignas(struct cmsghdr) char control[256];
  raw.message.msg_control = control;
  raw.message.msg_controllen = sizeof(control);
  const ssize_t length = ::recvmsg(fd, &raw.message, MSG_DONTWAIT);
  if (length <= 0) return length;
  for (struct cmsghdr* c = CMSG_FIRSTHDR(&raw.message); c != nullptr;
       c = CMSG_NXTHDR(&raw.message, c)) {
    int received;
    std::memcpy(&received, CMSG_DATA(c), sizeof(received));
    ::close(received);
  }
  return length;
}

// What moves the bytes: send and recv, or what the library needs for its packets, which is sendmsg,
// FIONREAD and recvmsg.
enum class Calls { plain, of_the_library };

ssize_t raw_send(int fd, std::size_t size, Calls calls) {
  return calls == Calls::plain ? ::send(fd, raw_buffer, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                               : raw_send_message(fd, size);
}

ssize_t raw_receive(int fd, Calls calls) {
  return calls == Calls::plain ? ::recv(fd, raw_buffer, largest, MSG_DONTWAIT)
                               : raw_receive_message(fd, true);
}

void raw_echo(int fd, Calls calls) {
  const ssize_t length = raw_receive(fd, calls);
  if (length > 0) raw_send(fd, static_cast<std::size_t>(length), calls);
}

[[noreturn]] void serve_raw_select(const std::string& path) {
  const int listener = raw_listen(path);
  std::vector<int> clients;
  RawSet set;
  for (;;) {
    const int highest = clients.empty()
                            ? listener
                            : std::max(listener, *std::max_element(clients.begin(), clients.end()));
    set.reset(highest);
    set.add(listener);
    for (const int fd : clients) set.add(fd);
    check(::select(highest + 1, set.get(), nullptr, nullptr, nullptr), "select");
    for (const int fd : clients)
      if (set.has(fd)) raw_echo(fd, Calls::plain);
    if (set.has(listener)) {
      const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) clients.push_back(fd);
    }
  }
}

int new_epoll(int listener) {
  const int epoll = check(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
  struct epoll_event event = {};
  event.events = EPOLLIN;
  event.data.u64 = UINT64_MAX;
  check(::epoll_ctl(epoll, EPOLL_CTL_ADD, listener, &event), "epoll_ctl");
  return epoll;
}

void watch(int epoll, int fd, std::uint64_t data) {
  struct epoll_event event = {};
  event.events = EPOLLIN;
  event.data.u64 = data;
  check(::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
}

[[noreturn]] void serve_raw_epoll(const std::string& path, Calls calls) {
  const int listener = raw_listen(path);
  const int epoll = new_epoll(listener);
  for (;;) {
    struct epoll_event events[64];
    const int ready = ::epoll_wait(epoll, events, 64, -1);
    for (int i = 0; i < ready; ++i) {
      if (events[i].data.u64 != UINT64_MAX) {
        raw_echo(static_cast<int>(events[i].data.u64), calls);
        continue;
      }
      const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) watch(epoll, fd, static_cast<std::uint64_t>(fd));
    }
  }
}

// --- The library ---------------------------------------------------------------------------------

Endpoint library_server(const std::string& path) {
  Endpoint server(comm_socket_v4_create());
  check(comm_socket_v4_create_server(server.get(), path.c_str()), "create_server");
  return server;
}

void answer(comm_socket_v4_client* client, Packet request) {
  volatile std::uint64_t seen = read_packet(request.get());
  static_cast<void>(seen);
  const Packet response = build_packet(request->buffer_length);
  comm_socket_v4_packet_send_to_client(client, response.get());
}

[[noreturn]] void serve_library_waits(const std::string& path) {
  const Endpoint server = library_server(path);
  for (;;) {
    comm_socket_v4_server_from_client_readable(server.get(), ULONG_MAX);
    // As many as may have come since; another round tells whether there are more.
    comm_socket_v4_client* client;
    std::size_t answered = 0;
    while (answered < most_active) {
      Packet request(comm_socket_v4_server_get_packet(server.get(), &client));
      if (request == nullptr) break;
      answer(client, std::move(request));
      ++answered;
    }
    if (answered == 0) comm_socket_v4_accept_connection(server.get());
  }
}

[[noreturn]] void serve_library_epoll(const std::string& path) {
  const Endpoint server = library_server(path);
  const int epoll = new_epoll(server->get_socket_fd());
  for (;;) {
    struct epoll_event events[64];
    const int ready = ::epoll_wait(epoll, events, 64, -1);
    for (int i = 0; i < ready; ++i) {
      if (events[i].data.u64 == UINT64_MAX) {
        if (comm_socket_v4_client* client = comm_socket_v4_accept_connection(server.get()))
          watch(epoll, client->get_client_fd(), comm_socket_v4_client_ptr2index(client));
        continue;
      }
      comm_socket_v4_client* const client = server->index2client(events[i].data.u64);
      if (Packet request{comm_socket_v4_client_get_packet(client)})
        answer(client, std::move(request));
    }
  }
}

// --- Contenders ----------------------------------------------------------------------------------

enum class How { raw_select, library_waits, raw_epoll, raw_epoll_same_calls, library_epoll };

struct Contender {
  How how;
  const char* name;
  void (*serve)(const std::string&);
  bool is_library() const { return how == How::library_waits || how == How::library_epoll; }
  bool selects() const { return how == How::raw_select || how == How::library_waits; }
  Calls calls() const {
    return how == How::raw_epoll_same_calls ? Calls::of_the_library : Calls::plain;
  }
};
const Contender contenders[] = {
    {How::raw_select, "raw select", [](const std::string& p) { serve_raw_select(p); }},
    {How::library_waits, "library waits", [](const std::string& p) { serve_library_waits(p); }},
    {How::raw_epoll, "raw epoll", [](const std::string& p) { serve_raw_epoll(p, Calls::plain); }},
    {How::raw_epoll_same_calls, "raw, same calls",
     [](const std::string& p) { serve_raw_epoll(p, Calls::of_the_library); }},
    {How::library_epoll, "library epoll", [](const std::string& p) { serve_library_epoll(p); }}};

// A process that runs until this one is done with it.
class Child {
 public:
  Child(int core, const std::function<void()>& body) : pid_(check(::fork(), "fork")) {
    if (pid_ != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    pin_to(core);
    body();
    ::_exit(0);
  }
  ~Child() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

 private:
  pid_t pid_;
};

// A process that does a number of operations when it is told to.
class Worker {
 public:
  // `prepare` runs in the process and returns what does the operations.
  Worker(int core, const std::function<std::function<void(std::size_t)>()>& prepare)
      : told_(), done_(), child_(open_pipes(core), [&] { work(prepare()); }) {}
  ~Worker() {
    for (const int fd : {told_[0], told_[1], done_[0], done_[1]}) ::close(fd);
  }

  void start(std::size_t count) {
    if (::write(told_[1], &count, sizeof(count)) != sizeof(count)) die("write");
  }
  void finish() {
    char byte;
    if (::read(done_[0], &byte, 1) != 1) die("read");
  }

 private:
  int open_pipes(int core) {
    check(::pipe(told_), "pipe");
    check(::pipe(done_), "pipe");
    return core;
  }
  void work(const std::function<void(std::size_t)>& operations) {
    for (std::size_t count; ::read(told_[0], &count, sizeof(count)) == sizeof(count);) {
      operations(count);
      if (::write(done_[1], "", 1) != 1) return;
    }
  }

  int told_[2], done_[2];
  Child child_;
};

std::string next_name() {
  static int number = 0;
  return "@channel_bench." + std::to_string(::getpid()) + "." + std::to_string(++number);
}

int connect_when_it_listens(const std::string& path) {
  struct sockaddr_un address;
  std::size_t length;
  comm_socket_path_to_sockaddr_un(address, length, path);
  for (;;) {
    const int fd = check(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "socket");
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length)) == 0)
      return fd;
    ::close(fd);
    ::usleep(1000);
  }
}

// One end of a conversation, in this process. The library adopts the connected socket.
class Client {
 public:
  Client(const Contender& contender, int fd) : contender_(contender), fd_(fd) {
    if (!contender.is_library()) return;
    endpoint_.reset(comm_socket_v4_create());
    check(comm_socket_v4_connect_use_socketpair(endpoint_.get(), fd), "connect_use_socketpair");
  }
  ~Client() {
    if (endpoint_ == nullptr) ::close(fd_);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void ask(std::size_t size) {
    if (endpoint_ == nullptr) {
      if (raw_send(fd_, size, contender_.calls()) < 0) die("send");
      return;
    }
    const Packet request = build_packet(size);
    if (comm_socket_v4_packet_send_to_server(endpoint_.get(), request.get()) <= 0) die("send");
  }

  void await() {
    if (endpoint_ == nullptr) {
      contender_.selects() ? raw_wait_readable(fd_) : wait_epoll();
      if (raw_receive(fd_, contender_.calls()) <= 0) die("recv");
      return;
    }
    Packet response;
    while (response == nullptr) {
      if (contender_.selects())
        comm_socket_v4_client_from_server_readable(endpoint_.get(), ULONG_MAX);
      else
        wait_epoll();
      response.reset(comm_socket_v4_client_get_packet_from_server(endpoint_.get()));
    }
    volatile std::uint64_t seen = read_packet(response.get());
    static_cast<void>(seen);
  }

 private:
  void wait_epoll() {
    if (epoll_ < 0) {
      epoll_ = check(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
      watch(epoll_, fd_, 0);
    }
    struct epoll_event event;
    check(::epoll_wait(epoll_, &event, 1, -1), "epoll_wait");
  }

  const Contender& contender_;
  int fd_;
  int epoll_ = -1;
  Endpoint endpoint_;
};

// --- Tables --------------------------------------------------------------------------------------

struct Options {
  unsigned rounds = 15;
  double round_seconds = 0.04;
};

const char* cores_name(int server_core) { return server_core == 0 ? "one core" : "two cores"; }

void print_head(const char* title, const char* unit) { std::printf("\n%s (%s)\n", title, unit); }

// Lets every runner do rounds of about the same length, in turns; the medians of operations per
// second.
std::vector<double> race(const Options& options,
                         const std::vector<std::function<void(std::size_t)>>& runners) {
  std::vector<std::size_t> counts;
  for (const auto& run : runners) {
    std::size_t count = 16;
    for (double time = 0; time < options.round_seconds / 4; count *= 2)
      time = seconds_of([&] { run(count); });
    counts.push_back(count * 2);
  }
  std::vector<std::vector<double>> rates(runners.size());
  for (unsigned round = 0; round < options.rounds; ++round)
    for (std::size_t i = 0; i < runners.size(); ++i)
      rates[i].push_back(static_cast<double>(counts[i]) /
                         seconds_of([&] { runners[i](counts[i]); }));
  std::vector<double> medians;
  for (const auto& rate : rates) medians.push_back(median(rate));
  return medians;
}

// A server process with `total` connections, 16 of which at most speak.
class Conversation {
 public:
  Conversation(const Contender& contender, int server_core, std::size_t total)
      : path_(next_name()), server_(server_core, [&] { contender.serve(path_); }) {
    for (std::size_t i = 0; i < total; ++i) {
      const int fd = i == 0 ? connect_when_it_listens(path_) : raw_connect(path_);
      const bool active = i % std::max<std::size_t>(1, total / 16) == 0 && active_.size() < 16;
      if (active)
        active_.push_back(std::make_unique<Client>(contender, fd));
      else
        idle_.push_back(fd);
    }
  }
  ~Conversation() {
    for (const int fd : idle_) ::close(fd);
  }

  // `count` round trips, all active clients asking at once.
  void run(std::size_t count, std::size_t size) {
    for (std::size_t done = 0; done < count; done += active_.size()) {
      for (const auto& client : active_) client->ask(size);
      for (const auto& client : active_) client->await();
    }
  }

 private:
  std::string path_;
  Child server_;
  std::vector<std::unique_ptr<Client>> active_;
  std::vector<int> idle_;
};

std::vector<double> race_conversations(const Options& options, int server_core, std::size_t total,
                                       std::size_t size) {
  // Each in a process of its own: one could not have the descriptors of all.
  std::vector<std::unique_ptr<Worker>> workers;
  std::vector<std::function<void(std::size_t)>> runners;
  for (const Contender& contender : contenders) {
    workers.push_back(std::make_unique<Worker>(0, [&] {
      auto conversation = std::make_shared<Conversation>(contender, server_core, total);
      return [conversation, size](std::size_t count) { conversation->run(count, size); };
    }));
    Worker* const worker = workers.back().get();
    runners.push_back([worker](std::size_t count) {
      worker->start(count);
      worker->finish();
    });
  }
  return race(options, runners);
}

void print_columns(const char* varied) {
  std::printf("%-10s %8s %12s %14s %7s %12s %16s %14s %7s %7s\n", "cores", varied,
              contenders[0].name, contenders[1].name, "ratio", contenders[2].name,
              contenders[3].name, contenders[4].name, "ratio", "to same");
}

void print_row(int core, std::size_t varied, const std::vector<double>& r) {
  std::printf("%-10s %8zu %12.2f %14.2f %7.2f %12.2f %16.2f %14.2f %7.2f %7.2f\n", cores_name(core),
              varied, r[0], r[1], r[1] / r[0], r[2], r[3], r[4], r[4] / r[2], r[4] / r[3]);
}

void round_trips(const Options& options) {
  print_head("Round trips of one client", "microseconds; ratios are library time by raw time");
  print_columns("bytes");
  for (const int core : {0, 1}) {
    for (const std::size_t size : {std::size_t{94}, std::size_t{1024}, std::size_t{32768}}) {
      std::vector<double> r = race_conversations(options, core, 1, size);
      for (double& figure : r) figure = 1e6 / figure;
      print_row(core, size, r);
    }
  }
}

void clients(const Options& options) {
  print_head("Clients of one server, 16 of them active, 94 bytes",
             "thousand round trips per second; ratios are library rate by raw rate");
  print_columns("clients");
  for (const int core : {0, 1}) {
    for (const std::size_t total : {1, 16, 256, 1000, 4000}) {
      std::vector<double> r = race_conversations(options, core, total, small_packet_size);
      for (double& figure : r) figure /= 1e3;
      print_row(core, total, r);
    }
  }
}

// --- One way -------------------------------------------------------------------------------------

// Sends records to a process that takes them.
struct Stream {
  const char* name;
  // Waits for and takes what has come; the number of records.
  std::function<std::size_t(int fd, comm_socket_v4* endpoint)> take;
  bool is_library;
};

std::size_t drain_raw(int fd, bool ask_size) {
  raw_wait_readable(fd);
  std::size_t taken = 0;
  while (raw_receive_message(fd, ask_size) > 0) ++taken;
  return taken;
}

std::size_t drain_library(comm_socket_v4* endpoint) {
  comm_socket_v4_client_from_server_readable(endpoint, ULONG_MAX);
  std::size_t taken = 0;
  while (Packet packet{comm_socket_v4_client_get_packet_from_server(endpoint)}) {
    volatile std::uint64_t seen = read_packet(packet.get());
    static_cast<void>(seen);
    ++taken;
  }
  return taken;
}

const Stream streams_of[] = {
    {"raw, reads only", [](int fd, comm_socket_v4*) { return drain_raw(fd, false); }, false},
    {"raw, asks size", [](int fd, comm_socket_v4*) { return drain_raw(fd, true); }, false},
    {"library", [](int, comm_socket_v4* endpoint) { return drain_library(endpoint); }, true}};

class OneWay {
 public:
  OneWay(const Stream& stream, int core, std::size_t size, bool with_descriptor)
      : stream_(stream), size_(size), with_descriptor_(with_descriptor) {
    check(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, pair_), "socketpair");
    receiver_ = std::make_unique<Worker>(core, [this] { return prepare_to_receive(); });
    ::close(pair_[1]);
    if (stream_.is_library) adopt(pair_[0]);
  }
  ~OneWay() {
    if (endpoint_ == nullptr) ::close(pair_[0]);
  }

  void run(std::size_t count) {
    receiver_->start(count);
    for (std::size_t sent = 0; sent < count; ++sent)
      stream_.is_library ? send_library() : send_raw();
    receiver_->finish();
  }

 private:
  void adopt(int fd) {
    endpoint_.reset(comm_socket_v4_create());
    check(comm_socket_v4_connect_use_socketpair(endpoint_.get(), fd), "connect_use_socketpair");
  }

  void send_library() {
    const Packet packet = build_packet(size_);
    if (with_descriptor_) packet->attach_fd_to_send(STDIN_FILENO);
    while (comm_socket_v4_packet_send_to_server(endpoint_.get(), packet.get()) == 0)
      comm_socket_v4_wait_for_client_to_server_writeable(endpoint_.get(), ULONG_MAX);
  }

  void send_raw() {
    while (raw_send_message(pair_[0], size_, with_descriptor_ ? &stdin_ : nullptr) < 0) {
      if (errno != EAGAIN) die("sendmsg");
      RawSet set;
      set.reset(pair_[0]);
      set.add(pair_[0]);
      check(::select(pair_[0] + 1, nullptr, set.get(), nullptr, nullptr), "select");
    }
  }

  std::function<void(std::size_t)> prepare_to_receive() {
    if (stream_.is_library) adopt(pair_[1]);
    return [this](std::size_t count) {
      for (std::size_t taken = 0; taken < count;) taken += stream_.take(pair_[1], endpoint_.get());
    };
  }

  const Stream& stream_;
  std::size_t size_;
  bool with_descriptor_;
  const int stdin_ = STDIN_FILENO;
  int pair_[2];
  Endpoint endpoint_;
  std::unique_ptr<Worker> receiver_;
};

std::vector<double> race_streams(const Options& options, int core, std::size_t size,
                                 bool with_descriptor) {
  std::vector<std::unique_ptr<OneWay>> ways;
  std::vector<std::function<void(std::size_t)>> runners;
  for (const Stream& stream : streams_of) {
    ways.push_back(std::make_unique<OneWay>(stream, core, size, with_descriptor));
    OneWay* const way = ways.back().get();
    runners.push_back([=](std::size_t count) { way->run(count); });
  }
  return race(options, runners);
}

void one_way_table(const Options& options, const char* title, bool with_descriptor,
                   const std::vector<std::size_t>& sizes) {
  print_head(title, "thousand packets per second; ratios are library rate by raw rate");
  std::printf("%-10s %8s %16s %16s %10s %12s %12s\n", "cores", "bytes", streams_of[0].name,
              streams_of[1].name, "library", "by reading", "by asking");
  for (const int core : {0, 1}) {
    for (const std::size_t size : sizes) {
      const std::vector<double> r = race_streams(options, core, size, with_descriptor);
      std::printf("%-10s %8zu %16.1f %16.1f %10.1f %12.2f %12.2f\n", cores_name(core), size,
                  r[0] / 1e3, r[1] / 1e3, r[2] / 1e3, r[2] / r[0], r[2] / r[1]);
    }
  }
}

void streams(const Options& options) {
  one_way_table(options, "One-way streams", false, {94, 1024, 32768});
}

void descriptors(const Options& options) {
  one_way_table(options, "A descriptor with every packet", true, {small_packet_size});
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::vector<std::string> tables;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--quick") {
      options.rounds = 3;
      options.round_seconds = 0.01;
    } else if (argument == "--rounds" && i + 1 < argc) {
      options.rounds = static_cast<unsigned>(std::max(1, std::atoi(argv[++i])));
    } else {
      tables.push_back(argument);
    }
  }
  struct {
    const char* name;
    void (*print)(const Options&);
  } const all[] = {{"round-trips", round_trips},
                   {"streams", streams},
                   {"descriptors", descriptors},
                   {"clients", clients}};
  struct rlimit limit;
  check(::getrlimit(RLIMIT_NOFILE, &limit), "getrlimit");
  limit.rlim_cur = limit.rlim_max;
  check(::setrlimit(RLIMIT_NOFILE, &limit), "setrlimit");

  struct utsname system;
  ::uname(&system);
  std::printf("%s %s, %ld processors, medians of %u rounds\n", system.sysname, system.release,
              ::sysconf(_SC_NPROCESSORS_ONLN), options.rounds);
  pin_to(0);
  for (const auto& table : all)
    if (tables.empty() || std::find(tables.begin(), tables.end(), table.name) != tables.end())
      table.print(options);
  return 0;
}
