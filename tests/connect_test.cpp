// Connecting to a server: at once, through a long path, and while its queue is full.
#include "support.h"

namespace {

int connect_to(const Endpoint& c, const std::string& at) {
  return comm_socket_v4_connect_to(c.get(), at.c_str());
}
int check(const Endpoint& c) { return comm_socket_v4_connect_check_pending(c.get()); }
int wait(const Endpoint& c, unsigned long ms = 1000000) {
  return comm_socket_v4_connect_wait_for_completion(c.get(), in_ms(ms));
}
bool is_open(const Endpoint& c) { return comm_socket_v4_is_open(c.get()); }
bool is_pending(const Endpoint& c) { return comm_socket_v4_connection_pending(c.get()); }

// Stands in for a call that fails with these errors, in order, before it works.
Faults::Hook failing_with(std::vector<int> errors) {
  return [errors, n = std::size_t{0}](auto& real, void*) mutable {
    return n == errors.size() ? real() : (errno = errors[n++], -1);
  };
}
Faults::Hook answering(long answer) {
  return [answer](auto&, void*) { return answer; };
}

class ConnectTest : public CommTest {
 protected:
  const Endpoint server = make_endpoint(), first = make_endpoint(), c = make_endpoint();
  StderrCapture captured;
  ConnectTest() { comm_socket_v4_debug_logging(c.get()); }

  // `c` waits for a place in the queue of `server`, which `first` fills.
  void wait_for_place(const std::string& at) {
    EXPECT_EQ(0, comm_socket_v4_create_server(server.get(), at.c_str()));
    EXPECT_EQ(0, connect_to(first, at));
    comm_socket_v4_set_connect_timeout_routine(c.get(), 1);
    EXPECT_EQ(0, connect_to(c, at));
    EXPECT_TRUE(is_pending(c));
    captured.clear();
  }
  // `c` is connected to `server`.
  void connect() {
    const std::string at = abstract_name();
    EXPECT_EQ(0, comm_socket_v4_create_server(server.get(), at.c_str()));
    EXPECT_TRUE(connect_to(c, at) == 0 && accept());
  }
  bool accept() { return comm_socket_v4_accept_connection(server.get()) != nullptr; }
  Lines lines() {
    const Lines list = captured.lines();
    captured.clear();
    return list;
  }
  // A path of 107 characters, a link to `target`.
  std::string link_to(const std::string& target) {
    const std::string link = path_of_length(107, static_cast<char>('a' + links_++));
    fs::create_symlink(target, link);
    return link;
  }

 private:
  int links_ = 0;
};

TEST_F(ConnectTest, ConnectsAtOnce) {
  const std::string file = path_of_length(106), name = abstract_name();
  const std::string full_name = name + std::string(108 - name.size(), 'n');
  const fs::path directory = fs::current_path();
  fs::current_path(path(""));
  fs::create_symlink(file, path_of_length(106, 'l'));
  const struct {
    std::string bound, at;
    unsigned links = 0;
  } rows[] = {{file, file},
              {file, path_of_length(106, 'l')},
              {file, link_to(file), 1},
              {path("@file"), link_to("@file"), 1},
              {name, name},
              {full_name, full_name}};
  for (const auto& row : rows) {
    const int listening = bound_socket(row.bound);
    Faults faults;
    EXPECT_EQ(0, faults.during([&] { return connect_to(c, row.at); })) << row.at;
    EXPECT_EQ(Lines{}, lines());
    EXPECT_TRUE(is_open(c) && !is_pending(c) && c->sun.sun_family == AF_UNIX);
    EXPECT_EQ(FD_CLOEXEC, fcntl(c->socket_fd, F_GETFD));
    EXPECT_EQ(row.links, faults.count(Call::readlink)) << row.at;
    EXPECT_EQ(0, close(listening));
    fs::remove(row.bound);
  }
  fs::current_path(directory);
}

TEST_F(ConnectTest, SaysWhyItCannotConnect) {
  const std::string text = path_of_length(107), socket = path_of_length(107, 's');
  const std::string stale = path("stale"), stream = path("stream");
  const std::string missing = path_of_length(107, 'm');
  std::ofstream(text) << "text";
  close(bound_socket(stale));
  await_death(stale);
  close(bound_socket(socket));
  const int other_type = bound_socket(stream, SOCK_STREAM);
  const std::string too_long =
      "ERROR: create_server_socket() socket path too long for AF_UNIX domain and ";
  const std::string refused = "DEBUG: connect_to_server() non-blocking connect() failed, ";
  const auto expect = [this](const std::string& at, int error, const Lines& expected,
                             Call call = Call::kinds) {
    Faults faults;
    if (call != Call::kinds) faults.fail(call, EACCES);
    EXPECT_EQ(Outcome(-1, error), outcome(faults, [&] { return connect_to(c, at); }));
    EXPECT_EQ(expected, lines());
    EXPECT_EQ(at != "" && at.size() < 107, faults.count(Call::socket) == 1) << expected[0];
    EXPECT_TRUE(!is_open(c) && c->socket_path == at);
  };
  expect("", errno_before, {"BUG: connect_to_server() with no socket path"});
  expect("@" + std::string(108, 'n'), ENAMETOOLONG,
         {"ERROR: connect_to_server() abstract socket name too long"});
  expect(missing, ENOENT,
         {too_long + "lstat() failed, No such file or directory",
          "DEBUG: failure to connect to server " + missing});
  expect(text, ENAMETOOLONG, {too_long + "path is not a symlink"});
  expect(socket, ENAMETOOLONG, {too_long + "path is not a symlink"});
  expect(link_to(stale), ENAMETOOLONG, {too_long + "unable to read symlink"}, Call::readlink);
  expect(link_to("/missing"), ENOENT, {too_long + "lstat('/missing') failed"});
  expect(link_to(text), ENOENT, {too_long + "symlink points to non-socket"});
  fs::create_symlink(stale, path("hop"));
  expect(link_to(path("hop")), ENOENT, {too_long + "symlink points to non-socket"});
  expect(link_to(socket), ENAMETOOLONG, {too_long + "symlink is too long as well"});
  expect(stale, EACCES,
         {"ERROR: connect_to_server() cannot create AF_UNIX packet: Permission denied"},
         Call::socket);
  expect(path("missing"), ENOENT, {refused + "No such file or directory"});
  expect(stale, ECONNREFUSED, {refused + "Connection refused"});
  expect(stream, EPROTOTYPE, {refused + "Protocol wrong type for socket"});
  close(other_type);
}

// --- A full queue -------------------------------------------------------------------------------

TEST_F(ConnectTest, TheShorterTimeoutDecidesAndOfEqualOnesTheHardOne) {
  wait_for_place(path());
  const std::string text = "soft timeout connecting to '" + path() + "'\n";
  const Lines hard = {"ERROR: connect_timeout_check() " + text};
  const Lines soft = {"DEBUG: connect_timeout_routine_check() " + text,
                      "DEBUG: connect_to_server() connect_timeout_routine triggered. signalling "
                      "connection success but library will check up on status later"};
  const auto expect = [&](std::uint64_t hard_us, std::uint64_t soft_us, const Lines& expected) {
    const bool stays_pending = expected == soft;
    comm_socket_v4_set_connect_timeout(c.get(), hard_us);
    comm_socket_v4_set_connect_timeout_routine(c.get(), soft_us);
    const auto due = in_ms(30);
    const Outcome result = outcome([this] { return connect_to(c, path()); });
    EXPECT_LE(due, in_ms(0)) << "too early";
    EXPECT_TRUE(stays_pending ? result.first == 0 : result == Outcome(-1, ETIMEDOUT));
    EXPECT_EQ(expected, lines());
    EXPECT_TRUE(is_open(c) == stays_pending && is_pending(c) == stays_pending);
    EXPECT_EQ(path(), c->socket_path);
  };
  expect(30000, 0, hard);
  expect(0, 30000, soft);
  expect(30000, 30000, hard);
  expect(30000, UINT64_MAX, hard);
  expect(UINT64_MAX, 30000, soft);
}

TEST_F(ConnectTest, APendingConnectionIsMadeOnceThereIsRoom) {
  for (const std::string& at : {path(), abstract_name()})
    for (const bool by_idle : {false, true}) {
      wait_for_place(at);
      const auto advance = [&] { return by_idle ? comm_socket_v4_idle(c.get()) : check(c); };
      EXPECT_EQ(0, advance());
      EXPECT_EQ(Outcome(0, 0), outcome([&] { return wait(c); }));
      EXPECT_TRUE(is_pending(c) && accept());
      EXPECT_EQ(by_idle ? 0 : 1, advance());
      EXPECT_FALSE(is_pending(c));
      EXPECT_TRUE(accept()) << "connected to something else";
      EXPECT_EQ(
          Lines{"DEBUG: connect_check_pending() non-blocking connect() completed successfully"},
          lines());
    }
}

TEST_F(ConnectTest, NoticesThatTheServerEndsWhileItWaits) {
  const std::string refused =
      "ERROR: connect_check_pending() non-blocking connect() completed, error Connection refused";
  wait_for_place(abstract_name());
  comm_socket_v4_close(server.get());
  await_end(first->socket_fd);
  EXPECT_EQ(Outcome(-1, ECONNREFUSED), outcome([&] { return check(c); }));
  EXPECT_FALSE(is_open(c));
  EXPECT_EQ(Lines{refused}, lines());

  Faults faults;
  faults.replace(Call::connect, failing_with({EAGAIN, ECONNREFUSED}));
  comm_socket_v4_set_connect_timeout_routine(c.get(), 0);
  EXPECT_EQ(Outcome(0, ETIMEDOUT), outcome(faults, [&] { return connect_to(c, "x"); }));
  EXPECT_FALSE(is_open(c));
  const std::string loop = "DEBUG: connect_to_server() connect_";
  EXPECT_EQ(
      (Lines{refused,
             loop + "check_pending() indicates connect completion. errno=Connection refused",
             "DEBUG: connect_wait_for_completion() on closed handle",
             loop + "wait_for_completion() indicates completion. errno=Connection timed out"}),
      lines());
}

TEST_F(ConnectTest, TriesAgainEvery10MsForAsLongAsItMay) {
  ASSERT_EQ(0, comm_socket_v4_create_server(server.get(), path().c_str()));
  constexpr std::uint64_t hour = 3600000000, second = 1000000;
  const auto expect = [this](std::uint64_t hard, std::uint64_t soft, std::uint64_t passed,
                             unsigned selects) {
    comm_socket_v4_set_connect_timeout(c.get(), hard);
    comm_socket_v4_set_connect_timeout_routine(c.get(), soft);
    Faults faults;
    faults.replace(Call::connect,
                   [=, this, refuse = failing_with({EAGAIN, EAGAIN, EAGAIN})](auto& real, void*) {
                     c->connect_start = in_ms(0) - passed;
                     return refuse(real, nullptr);
                   });
    const auto start = in_ms(0);
    EXPECT_EQ(0, faults.during([this] { return connect_to(c, path()); }));
    EXPECT_GE(in_ms(0) - start, 20000u);
    EXPECT_EQ(4u, faults.count(Call::connect));
    EXPECT_EQ(selects, faults.count(Call::select)) << hard << " " << soft << " " << passed;
    EXPECT_TRUE(!is_pending(c) && accept());
  };
  expect(0, 0, 5 * second, 2);
  expect(0, 0, 11 * second, 0);  // No longer waits for the socket, only pauses.
  expect(hour, 0, 11 * second, 2);
  expect(0, hour, 11 * second, 2);
  expect(UINT64_MAX, UINT64_MAX - 1, 11 * second, 2);
}

// --- The calls that complete a connect ----------------------------------------------------------

TEST_F(ConnectTest, NothingIsPendingOnOtherEndpoints) {
  const Endpoint pair = make_endpoint();
  EXPECT_EQ(0, comm_socket_v4_connect_new_socketpair(pair.get()));
  const std::string misuse = "BUG: connect_check_pending() ";
  const Lines unset = {misuse + "apparently called when struck sockaddr_un is uninitialized"};
  const Lines closed = {"DEBUG: connect_wait_for_completion() on closed handle",
                        misuse + "called with closed socket"};
  const auto expect = [this](const Endpoint& end, Outcome waited, Outcome checked,
                             const Lines& expected) {
    EXPECT_EQ(waited, outcome([&] { return wait(end); }));
    EXPECT_EQ(checked, outcome([&] { return check(end); }));
    EXPECT_EQ(expected, lines());
    EXPECT_EQ(expected.empty(), is_open(end));
  };
  expect(c, {-1, ETIMEDOUT}, {-1, EINVAL}, closed);
  expect(pair, {1, 0}, {-1, EINVAL}, unset);
  connect();
  expect(c, {1, 0}, {1, errno_before}, {});
  expect(server, {1, 0}, {-1, EINVAL}, unset);
}

TEST_F(ConnectTest, TheWaitAsksTheSocketWhatBecameOfIt) {
  const std::string wait_for = "ERROR: connect_wait_for_completion() ";
  const std::string success =
      "DEBUG: connect_wait_for_completion() select() indicates non-blocking connect succeeded";
  const auto has_error = [](auto&, void* value) { return *static_cast<int*>(value) = EIO, 0; };
  enum State { closed, open, pending };
  const auto expect = [this](Call call, const Faults::Hook& hook, Outcome result, State state,
                             const std::string& line = "") {
    wait_for_place(path());
    const auto now = [this] { return is_pending(c) ? pending : is_open(c) ? open : closed; };
    Faults faults;
    EXPECT_EQ(result, outcome(faults.replace(call, hook), [this] { return wait(c); }));
    EXPECT_EQ(Lines(line != "", line), lines());
    EXPECT_EQ(state, now()) << line;
  };
  const std::string eio = " Input/output error";
  expect(Call::select, failing_with({EINTR}), {0, EINTR}, pending);
  expect(Call::select, answering(0), {0, 0}, pending);
  expect(Call::select, failing_with({EIO}), {-1, EIO}, closed,
         wait_for + "select returned error" + eio);
  expect(Call::getsockopt, failing_with({EIO}), {-1, EIO}, closed,
         wait_for + "getsockopt(SO_ERROR) returned errno" + eio);
  expect(Call::getsockopt, has_error, {-1, EIO}, open,
         wait_for + "select() indicates non-blocking connect completed, error" + eio);
  expect(Call::recv, failing_with({EIO}), {-1, EIO}, closed,
         wait_for + "recv() returned errno" + eio);
  expect(Call::recv, failing_with({ENOTCONN}), {0, 0}, pending);
  expect(Call::recv, failing_with({EAGAIN}), {1, 0}, open, success);
  expect(Call::recv, answering(0), {1, 0}, open, success);

  wait_for_place(path());
  for (const int error : {EALREADY, EINPROGRESS, EAGAIN})
    EXPECT_EQ(0, failing(Call::connect, error, [&] { return check(c); }));
  EXPECT_TRUE(is_pending(c));
  Faults none;
  EXPECT_EQ(Outcome(0, 0), outcome(none, [&] { return wait(c, 0); }));
  EXPECT_EQ(0u, none.count(Call::select));
}

TEST_F(ConnectTest, TheWaitConsumesNoData) {
  connect();
  const Packet sent = ping_packet();
  EXPECT_EQ(94, comm_socket_v4_packet_send_to_client(server->index2client(0), sent.get()));
  c->status.connect_pending = 1;
  EXPECT_EQ(1, wait(c));
  EXPECT_NE(nullptr, Packet(comm_socket_v4_client_get_packet_from_server(c.get())));
}

}  // namespace
