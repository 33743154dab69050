#include "support.h"

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>

#include "suite/process.h"

Lines open_descriptors() {
  Lines list;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
    const fs::path target = fs::read_symlink(entry.path());
    if (target != "/proc/" + std::to_string(getpid()) + "/fd")
      list.push_back(entry.path().filename().string() + " -> " + target.string());
  }
  return list;
}

Lines changed_descriptors(const Lines& before) {
  const Lines now = open_descriptors();
  Lines changes;
  const auto add = [&changes](const char* sign, const Lines& these, const Lines& others) {
    for (const std::string& one : these)
      if (std::count(others.begin(), others.end(), one) == 0) changes.push_back(sign + one);
  };
  add("- ", before, now);
  add("+ ", now, before);
  return changes;
}

std::string state_of(const CommEndpoint& c) {
  std::string state;
  const auto add = [&state](bool holds, const char* word) { state += holds ? word : ""; };
  add(comm_socket_v4_is_open(c.get()), "open ");
  add(comm_socket_v4_connection_pending(c.get()), "connecting ");
  add(c->status.connect_pending, "pending ");
  add(c->flags.server, "server ");
  add(c->flags.bound, "bound ");
  add(c->flags.socketpair, "pair ");
  add(c->socketpair_remote_fd >= 0, "other-end ");
  add(c->sun.sun_family != 0, "address ");
  add(!c->client.empty(), "clients ");
  add(!c->disconnect_list.empty(), "disconnected ");
  return state;
}

CommTest::CommTest() : descriptors_(open_descriptors()) { alarm(300); }

CommTest::~CommTest() {
  alarm(0);
  EXPECT_EQ(Lines{}, changed_descriptors(descriptors_)) << "of the test's descriptors";
  if (!directory_.empty()) fs::remove_all(directory_);
}

std::string CommTest::path(const std::string& name) {
  if (directory_.empty()) {
    char pattern[] = "/tmp/comm_v4.XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    directory_ = pattern;
  }
  return directory_ + "/" + name;
}

std::string CommTest::path_of_length(std::size_t length, char fill) {
  return path(std::string(length - path("").length(), fill));
}

std::string CommTest::abstract_name() {
  static const std::string run = std::to_string(std::random_device()());
  static int number = 0;
  return "@comm_v4_test_" + run + "_" + std::to_string(++number);
}

StderrCapture::StderrCapture()
    : saved_(fcntl(2, F_DUPFD_CLOEXEC, 3)), memory_(memfd_create("stderr", MFD_CLOEXEC)) {
  fflush(stderr);
  if (saved_ < 0 || memory_ < 0 || dup2(memory_, 2) < 0) abort();
}

StderrCapture::~StderrCapture() {
  const std::string shown = testing::Test::HasFailure() ? text() : "";
  fflush(stderr);
  dup2(saved_, 2);
  close(saved_);
  close(memory_);
  fputs(shown.c_str(), stderr);
}

std::string StderrCapture::text() const {
  fflush(stderr);
  std::string all(static_cast<std::size_t>(lseek(memory_, 0, SEEK_END)), '\0');
  if (pread(memory_, all.data(), all.size(), 0) != static_cast<ssize_t>(all.size())) abort();
  return all;
}

void StderrCapture::clear() {
  fflush(stderr);
  if (ftruncate(memory_, 0) != 0) abort();
  lseek(memory_, 0, SEEK_SET);
}

Lines StderrCapture::lines() const {
  const auto without_address = [](const std::string& line) {
    const std::size_t level = strlen("comm_socket_v4 "), address = line.find(" [0x");
    const std::size_t text = line.find("]: ", address);
    if (line.rfind("comm_socket_v4 ", 0) != 0 || text == line.npos) return line;
    return line.substr(level, address - level) + line.substr(text + 1);
  };
  Lines list;
  std::istringstream in(text());
  for (std::string line; std::getline(in, line);)
    if (line.empty() && !list.empty())
      list.back() += '\n';
    else
      list.push_back(without_address(line));
  return list;
}

Peer::Peer(const std::function<void()>& body, unsigned seconds) {
  fflush(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) abort();
  if (pid_ > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  alarm(seconds);
  body();
  fflush(nullptr);
  _exit(testing::Test::HasFailure() ? 1 : 0);
}

int Peer::wait() {
  int status = 0;
  while (!waited_ && waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  waited_ = true;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

Peer::~Peer() {
  if (!waited_) {
    EXPECT_EQ(0, wait()) << "the peer failed";
  }
}

CommEndpoint make_endpoint() { return CommEndpoint(comm_socket_v4_create()); }
CommPacket make_packet() { return CommPacket(comm_socket_v4_packet_create()); }

CommPacket begin_request(const char* command) {
  CommPacket p = make_packet();
  p->make_request();
  EXPECT_EQ(0, p->write_begin(command, nullptr, 0));
  return p;
}

CommPacket ping_packet() {
  CommPacket p = begin_request();
  EXPECT_EQ(0, comm_socket_v4_packet_write_argv(p.get(), "a"));
  EXPECT_EQ(0, comm_socket_v4_packet_write_nv_pair(p.get(), "k", "v"));
  EXPECT_EQ(0, p->write_end());
  return p;
}

// Written through the functions, which forward to the members.
CommPacket rich_packet() {
  const std::uint64_t u[] = {1, 2, 3, 4, UINT64_MAX};
  const std::int64_t i[] = {-1, 2, INT64_MIN, 4};
  const double d[] = {1.5, -0.25};
  const auto* const data =
      reinterpret_cast<const unsigned char*>("\x1f !abcdefghijkl~\x7fmnopqrstuvwxyz012345678");
  CommPacket packet = make_packet();
  comm_socket_v4_packet* const p = packet.get();
  comm_socket_v4_packet_make_request(p);
  comm_socket_v4_packet_set_async(p, 1);
  p->flags |= comm_socket_v4_packet::multipart_middle << comm_socket_v4_packet::multipart_shift;
  p->set_stream_id(0xFEDCBA9876543210);
  p->message_id = 0xAB;
  p->error_code = 5;
  p->set_tag(0x9C);
  const std::vector<int> answers = {
      comm_socket_v4_packet_begin_writing(p, 5000, "list", "broken"),
      comm_socket_v4_packet_write_argvf(p, "te%s", "xt"),
      comm_socket_v4_packet_write_argv_uint64(p, 0xFEDC),
      comm_socket_v4_packet_write_nv_pairf(p, "t", "v %s", "w"),
      comm_socket_v4_packet_write_argv_int64(p, -5),
      comm_socket_v4_packet_write_argv_double(p, 0.1),
      comm_socket_v4_packet_write_nv_pair_json(p, "j", "{}", 2),
      comm_socket_v4_packet_write_nv_pair_double(p, "d", d, 2),
      comm_socket_v4_packet_write_nv_pair_uint64(p, "u", u, 5),
      comm_socket_v4_packet_write_nv_pair_int64(p, "i", i, 4),
      comm_socket_v4_packet_write_nv_pair_uint64(p, "none", u, 0),
      comm_socket_v4_packet_write_nv_pair_binary(p, "b", data, 17),
      comm_socket_v4_packet_write_nv_pair_fourcc(p, 0x61746164, "code", data, 16),
      comm_socket_v4_packet_write_nv_pair_raw(p, "raw", data, 0, 7),
      comm_socket_v4_packet_write_argv_end(p),
      comm_socket_v4_packet_write_data_binary(p, data, 40) - 40,
      comm_socket_v4_packet_write_end(p)};
  EXPECT_EQ(std::vector<int>(answers.size(), 0), answers);
  return packet;
}

unsigned long in_ms(unsigned long ms) {
  using std::chrono::microseconds;
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<unsigned long>(std::chrono::duration_cast<microseconds>(now).count()) +
         ms * 1000;
}

int bound_socket(const std::string& path, int type) {
  sockaddr_un address;
  std::size_t length;
  comm_socket_path_to_sockaddr_un(address, length, path);
  const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length)));
  EXPECT_EQ(type == SOCK_DGRAM ? -1 : 0, listen(fd, 0));
  return fd;
}

void await_end(int fd) {
  pollfd end = {fd, POLLRDHUP, 0};
  EXPECT_EQ(1, poll(&end, 1, -1));
}

void await_death(const std::string& path) {
  while (get_socket_server_pid(path.c_str(), 1) >= 0) usleep(1000);
}

CommPacket retrieve(comm_socket_v4* c) {
  return CommPacket(c->flags.server ? comm_socket_v4_server_get_packet(c, nullptr)
                                    : comm_socket_v4_client_get_packet_from_server(c));
}

std::pair<CommEndpoint, unsigned long> join(comm_socket_v4* server) {
  CommEndpoint client = make_endpoint();
  EXPECT_EQ(0, comm_socket_v4_connect_to(client.get(), server->socket_path.c_str()));
  comm_socket_v4_client* record = comm_socket_v4_accept_connection(server);
  EXPECT_NE(nullptr, record);
  return {std::move(client), comm_socket_v4_client_ptr2index(record)};
}
