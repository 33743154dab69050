// The endpoint object: its fields, its log lines, its closing, and the socket pair.
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include "support.h"

namespace {

class EndpointTest : public CommTest {
 protected:
  enum Role { server, client, pair };
  const CommEndpoint endpoint = make_endpoint(), other = make_endpoint();
  comm_socket_v4* const c = endpoint.get();

  // `c` may be open already; the server of a client is `other`.
  void open_as(Role role) {
    if (role == server) {
      EXPECT_EQ(0, comm_socket_v4_create_server(c, path().c_str()));
      join(c);
      c->disconnect_list.push_back(15);
    } else if (role == client) {
      EXPECT_EQ(0, comm_socket_v4_create_server(other.get(), path("other").c_str()));
      EXPECT_EQ(0, comm_socket_v4_connect_to(c, path("other").c_str()));
      c->status.connect_pending = 1;
    } else {
      comm_socket_v4_close(c);
      EXPECT_EQ(0, comm_socket_v4_connect_new_socketpair(c));
    }
  }
};

TEST_F(EndpointTest, StartsClosed) {
  EXPECT_EQ("", state_of(endpoint));
  EXPECT_EQ(3, +c->log_mask);
  EXPECT_EQ(0, comm_socket_v4_is_open(nullptr));
  EXPECT_EQ(0, comm_socket_v4_connection_pending(nullptr));
  EXPECT_EQ(0, comm_socket_v4_destroy(nullptr));
  EXPECT_EQ(nullptr, failing(Call::operator_new, ENOMEM, comm_socket_v4_create));
  EXPECT_THROW(failing(Call::operator_new, ENOMEM, comm_socket_v4_create, 2), std::bad_alloc);

  // Bits without a name are 0, too.
  alignas(16) unsigned char memory[2 * sizeof *c];
  memset(memory, 0xFF, sizeof memory);
  auto* const made = new (memory) comm_socket_v4;
  auto* const record = new (memory + sizeof *c) comm_socket_v4_client;
  const std::uint32_t none = 0;
  EXPECT_EQ(0, memcmp(&none, &made->flags, 4));
  EXPECT_EQ(0, memcmp(&none, &made->status, 4));
  EXPECT_EQ(0, memcmp(&none, &record->status, 4));
  made->~comm_socket_v4();
}

TEST_F(EndpointTest, CloseEndsEveryRoleAndKeepsWhatTheApplicationSet) {
  const CommPacket packet = ping_packet();
  packet->addref();
  c->next_packet = packet.get();
  c->set_tag(UINT64_MAX);
  c->set_recv_cb([](comm_socket_v4*, comm_socket_v4_packet*) { return -1; });
  c->flags.debug = 1;
  c->log_mask = 7;
  comm_socket_v4_set_connect_timeout(c, 8);
  comm_socket_v4_set_connect_timeout_routine(c, 9);
  const auto kept = [this] {
    return std::tuple(c->socket_path, c->get_tag(), c->recv_cb, c->next_packet, c->connect_start,
                      c->connect_timeout, c->connect_timeout_routine, +c->log_mask, +c->flags.debug,
                      +c->flags.idle_enabled);
  };
  const auto close = [this] { return comm_socket_v4_close(c); };
  const char* const states[] = {"open server bound clients disconnected ",
                                "open connecting pending address ", "open pair other-end "};
  for (const Role before : {server, client, pair})
    for (const Role role : {server, client, pair}) {
      SCOPED_TRACE(testing::Message() << "role " << role << ", before that " << before);
      const StderrCapture captured;
      const Lines descriptors = open_descriptors();
      open_as(before);
      open_as(role);
      EXPECT_EQ(states[role], state_of(endpoint));
      EXPECT_EQ(role == server, fs::is_socket(path()));
      const auto expected = kept();
      Faults faults;  // A file that outlives its socket would be found by clients.
      faults.replace(Call::close, [&](auto& real, void*) {
        EXPECT_FALSE(fs::exists(path()));
        return real();
      });
      EXPECT_EQ(0, faults.during(close));
      EXPECT_EQ("", state_of(endpoint));
      EXPECT_EQ(expected, kept());
      EXPECT_EQ(comm_socket_v4_is_open(other.get()), fs::is_socket(path("other")));
      comm_socket_v4_close(other.get());
      EXPECT_EQ(Lines{}, changed_descriptors(descriptors));
      EXPECT_EQ(Lines{}, captured.lines());
    }
  c->flags.idle_enabled = 0;
  Faults again;
  EXPECT_EQ(0, again.during(close));
  EXPECT_EQ(1, +c->flags.idle_enabled);
  EXPECT_EQ("", again.calls());
}

TEST_F(EndpointTest, AChangeOfPathClosesAnOpenEndpoint) {
  const StderrCapture captured;
  open_as(pair);
  EXPECT_EQ(0, comm_socket_v4_set_socket_path(c, "new"));
  EXPECT_EQ("new", state_of(endpoint) + c->socket_path);
  EXPECT_EQ(0, comm_socket_v4_set_socket_path(c, nullptr));
  EXPECT_EQ("", c->socket_path);
  EXPECT_EQ(Lines{"BUG: Caller sets socket path while connection open"}, captured.lines());
}

TEST_F(EndpointTest, CloseLeavesAFileThatItCannotRemoveAndKeepsErrnoWhateverFails) {
  const std::string kept = "cannot lstat(" + path() + "), not removing server socket ";
  const auto expect = [this](Role role, const std::string& warning, fs::file_type remains,
                             auto disturb) {
    open_as(role);
    Faults faults;
    disturb(faults);
    EXPECT_EQ(Told(0, errno_before, Lines(warning != "", "WARNING: " + warning)),
              told(faults, [this] { return comm_socket_v4_close(c); }));
    EXPECT_EQ(remains, fs::symlink_status(path()).type());
    EXPECT_EQ("", state_of(endpoint));
    fs::remove(path());
  };
  expect(server, kept + "(No such file or directory)\n", fs::file_type::not_found,
         [this](auto&) { fs::remove(path()); });
  expect(server, kept + "(Socket operation on non-socket)\n", fs::file_type::regular,
         [this](auto&) { fs::remove(path()), std::ofstream(path()) << "text"; });
  expect(server, "unlink(" + path() + ") failed, Operation not permitted\n", fs::file_type::socket,
         [](auto& faults) { faults.fail(Call::unlink, EPERM); });
  for (const Role role : {server, pair})
    expect(role, "", fs::file_type::not_found,
           [](auto& faults) { faults.fail(Call::close, EIO, 1, 2); });
}

TEST_F(EndpointTest, PrintsTheClassesOfItsLogMask) {
  const std::pair<unsigned, Lines> rows[] = {
      {4, {}},
      {1, {"ERROR: e 1\n"}},
      {2, {"WARNING: w 2", "BUG: b 3"}},
      {8, {"DEBUG: d 4"}},
      {15, {"ERROR: e 1\n", "WARNING: w 2", "BUG: b 3", "DEBUG: d 4"}}};
  for (const auto& [mask, expected] : rows) {
    c->log_mask = mask & 15;
    const StderrCapture captured;
    comm_socket_v4_error(c, "%s %d\n", "e", 1);
    comm_socket_v4_warning(c, "%s %d", "w", 2);
    comm_socket_v4_bug(c, "%s %d", "b", 3);
    comm_socket_v4_debug(c, "%s %d", "d", 4);
    EXPECT_EQ(expected, captured.lines()) << "mask " << mask;
  }
  EXPECT_EQ(0, (comm_socket_v4_shut_up(c), +c->log_mask));
  EXPECT_EQ(15, (comm_socket_v4_debug_logging(c), +c->log_mask));
  EXPECT_EQ(3, (comm_socket_v4_normal_logging(c), +c->log_mask));
  const StderrCapture captured;
  comm_socket_v4_error(c, "100%% of %s", "it");
  const std::string address = testing::PrintToString(static_cast<void*>(c));
  EXPECT_EQ("comm_socket_v4 ERROR [" + address + "]: 100% of it\n", captured.text());
}

TEST_F(EndpointTest, ALineIsOneWriteThatRaisesNoSignalAndLeavesTheProgramsOwn) {
  static int caught = 0;
  const Peer daemon([this] {
    int ends[2], broken[2], file = memfd_create("log", 0);
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends));
    ASSERT_EQ(0, pipe(broken));
    close(broken[0]);
    const auto print = [this](const std::string& text) {
      EXPECT_EQ(Outcome(0, errno_before),
                outcome([&] { return comm_socket_v4_error(c, "%s", text.c_str()), 0; }));
    };
    dup2(ends[0], 2);
    for (const std::size_t length : {10u, 900u, 983u, 984u, 985u, 9000u}) {
      const std::string text(length, 'x');
      char record[10000];
      print(text);
      const std::string line(record, static_cast<std::size_t>(recv(ends[1], record, 10000, 0)));
      EXPECT_EQ(text + '\n', line.substr(line.find(']') + 3));
    }
    const rlimit one_byte = {1, 1};
    setrlimit(RLIMIT_FSIZE, &one_byte);
    for (const int lost : {broken[1], file}) {  // would end the program by SIGPIPE, by SIGXFSZ
      dup2(lost, 2);
      print("x");
      for (const int number : {SIGPIPE, SIGXFSZ}) signal(number, [](int) { ++caught; });
      print("x");
      EXPECT_EQ(0, caught);
      raise(lost == file ? SIGXFSZ : SIGPIPE);
      EXPECT_EQ(1, std::exchange(caught, 0)) << "a handler of the program's own";
      for (const int number : {SIGPIPE, SIGXFSZ}) signal(number, SIG_DFL);
    }
    close(2);
    print("x");
    dup2(broken[1], 2);
    sigset_t mask, pending;
    sigemptyset(&mask);
    sigaddset(&mask, SIGPIPE);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    raise(SIGPIPE);
    print("x");
    sigpending(&pending);
    EXPECT_EQ(1, sigismember(&pending, SIGPIPE));
  });
}

TEST_F(EndpointTest, APairIsConnectedAndOnlyTheHandedOutEndSurvivesExec) {
  const auto modes = [](int fd) {
    return std::pair(fcntl(fd, F_GETFD), fcntl(fd, F_GETFL) & O_NONBLOCK);
  };
  open_as(pair);
  const int own = c->get_socket_fd(), held = c->socketpair_remote_fd;
  EXPECT_EQ(std::pair(FD_CLOEXEC, O_NONBLOCK), modes(held));
  const auto take = [&] { return comm_socket_v4_socketpair_get_remote_end(c); };
  EXPECT_EQ(held, take());
  EXPECT_EQ(Outcome(-1, errno_before), outcome(take));
  EXPECT_EQ(std::pair(FD_CLOEXEC, O_NONBLOCK), modes(own));
  EXPECT_EQ(0, fcntl(held, F_GETFD));

  fcntl(held, F_SETFL, 0);  // blocking, and stays so
  comm_socket_v4_set_socket_path(other.get(), "old");
  ASSERT_EQ(0, comm_socket_v4_connect_use_socketpair(other.get(), held));
  EXPECT_EQ(std::tuple("open pair ", "", held, 1),
            std::tuple(state_of(other), other->socket_path, other->get_socket_fd(),
                       +other->flags.idle_enabled));
  EXPECT_EQ(std::pair(0, 0), modes(held));
  for (int i = 0; i < 2; ++i)  // A stream would join the two.
    EXPECT_EQ(94, comm_socket_v4_packet_send_to_server(c, ping_packet().get()));
  EXPECT_EQ(94u, retrieve(other.get())->buffer_length);
}

TEST_F(EndpointTest, ARefusedPairLeavesTheEndpointAsItWas) {
  const CommDescriptor file(memfd_create("file", MFD_CLOEXEC));
  const auto expect_refused = [this](const std::string& why, auto make, auto... arguments) {
    const auto bytes = [this] { return std::string(reinterpret_cast<char*>(c), sizeof *c); };
    const std::string before = bytes();
    const auto [answer, error, lines] = told([&] { return make(c, arguments...); });
    EXPECT_EQ(std::pair(-1l, Lines{"BUG: connect_" + why}), std::pair(answer, lines));
    EXPECT_EQ(before, bytes()) << why;
  };
  comm_socket_v4_set_socket_path(c, "kept");
  for (const int refused : {-1, 1 << 20, file.get()})
    expect_refused(refused < 0 ? "use_socketpair() invalid socket descriptor"
                               : "use_socketpair() file descriptor not a socket",
                   comm_socket_v4_connect_use_socketpair, refused);
  for (const Role role : {server, client, pair}) {
    open_as(role);
    const std::string why = role == server ? "with flags.server==1" : "when already open";
    expect_refused("new_socketpair() " + why, comm_socket_v4_connect_new_socketpair);
    expect_refused("use_socketpair() " + why, comm_socket_v4_connect_use_socketpair, c->socket_fd);
  }
  comm_socket_v4_close(c);

  Faults faults;
  EXPECT_EQ(Told(-1, ENFILE, {"ERROR: connect_new_socketpair() unable to make socket pair"}),
            told(faults.fail(Call::socketpair, ENFILE),
                 [this] { return comm_socket_v4_connect_new_socketpair(c); }));
  EXPECT_EQ("", state_of(endpoint));
}

}  // namespace
