// Connecting to a server: at once, through a long path, and while its queue is full.
#include <map>

#include "support.h"

namespace {

int connect_to(const CommEndpoint& c, const std::string& at) {
  return comm_socket_v4_connect_to(c.get(), at.c_str());
}
int check(const CommEndpoint& c) { return comm_socket_v4_connect_check_pending(c.get()); }
int wait(const CommEndpoint& c, unsigned long ms = 1000000) {
  return comm_socket_v4_connect_wait_for_completion(c.get(), in_ms(ms));
}

const std::string closed, connected = "open address ", pending = "open connecting pending address ";
const std::string made =
    "DEBUG: connect_check_pending() non-blocking connect() completed successfully";
const std::string loop = "DEBUG: connect_to_server() connect_";

class ConnectTest : public CommTest {
 protected:
  const CommEndpoint server = make_endpoint(), first = make_endpoint(), c = make_endpoint();
  const StderrCapture captured;
  ConnectTest() { comm_socket_v4_debug_logging(c.get()); }

  void listen(const std::string& at) {
    EXPECT_EQ(0, comm_socket_v4_create_server(server.get(), at.c_str()));
  }
  void accept() { EXPECT_NE(nullptr, comm_socket_v4_accept_connection(server.get())); }
  // `c` waits for a place in the queue of `server`, which `first` fills.
  void wait_for_place(const std::string& at) {
    listen(at);
    EXPECT_EQ(0, connect_to(first, at));
    comm_socket_v4_set_connect_timeout_routine(c.get(), 1);
    EXPECT_EQ(0, connect_to(c, at));
    EXPECT_EQ(pending, state_of(c));
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
  const std::string file = path_of_length(106), short_link = path_of_length(106, 'l');
  const std::string name = abstract_name(), full_name = name + std::string(108 - name.size(), 'n');
  const fs::path directory = fs::current_path();
  fs::current_path(path(""));
  fs::create_symlink(file, short_link);
  const struct {
    std::string bound, at;
    unsigned links = 0;
  } rows[] = {{file, file},
              {file, short_link},
              {file, link_to(file), 1},
              {path("@file"), link_to("@file"), 1},
              {name, name},
              {full_name, full_name}};
  for (const auto& row : rows) {
    const CommDescriptor listening(bound_socket(row.bound));
    Faults faults;
    EXPECT_EQ(0, faults.during([&] { return connect_to(c, row.at); })) << row.at;
    EXPECT_EQ(connected, state_of(c));
    EXPECT_EQ(FD_CLOEXEC, fcntl(c->socket_fd, F_GETFD));
    EXPECT_EQ(row.links, faults.count(Call::readlink)) << row.at;
    fs::remove(row.bound);
  }
  EXPECT_EQ(Lines{}, captured.lines());
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
  const CommDescriptor other_type(bound_socket(stream, SOCK_STREAM));
  const std::string too_long =
      "ERROR: create_server_socket() socket path too long for AF_UNIX domain and ";
  const std::string refused = "DEBUG: connect_to_server() non-blocking connect() failed, ";
  const auto expect = [this](const std::string& at, int error, const Lines& expected,
                             Call call = Call::kinds) {
    Faults faults;
    if (call != Call::kinds) faults.fail(call, EACCES);
    EXPECT_EQ(Told(-1, error, expected), told(faults, [&] { return connect_to(c, at); }));
    EXPECT_EQ(at != "" && at.size() < 107 ? 1u : 0u, faults.count(Call::socket)) << expected[0];
    EXPECT_EQ(closed, state_of(c));
    EXPECT_EQ(at, c->socket_path);
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
}

// --- A full queue -------------------------------------------------------------------------------

// Three tries find the queue full, and the start of the connect lies so far back.
TEST_F(ConnectTest, TriesAgainEvery10MsUntilTheShorterTimeoutAndOfEqualOnesTheHardOneEnds) {
  listen(path());
  const std::string text = "soft timeout connecting to '" + path() + "'\n";
  const std::map<std::string, Lines> log = {
      {closed, {"ERROR: connect_timeout_check() " + text}},
      {pending,
       {"DEBUG: connect_timeout_routine_check() " + text,
        loop + "timeout_routine triggered. signalling connection success but library will check "
               "up on status later"}},
      {connected, {made, loop + "check_pending() indicates connect completion. errno=Success"}}};
  const auto expect = [&](std::uint64_t hard, std::uint64_t soft, std::uint64_t passed,
                          const std::string& state, unsigned selects = 0) {
    SCOPED_TRACE(testing::Message() << hard << " " << soft << " " << passed);
    comm_socket_v4_set_connect_timeout(c.get(), hard);
    comm_socket_v4_set_connect_timeout_routine(c.get(), soft);
    const unsigned refusals = state == connected ? 3 : 1;
    Faults faults;
    faults.fail(Call::connect, EAGAIN, 1, refusals);
    faults.replace(Call::socket, [&](auto& real, void*) {
      c->connect_start -= passed;
      return real();
    });
    const auto start = in_ms(0);
    const auto [answer, error, lines] = told(faults, [this] { return connect_to(c, path()); });
    EXPECT_LE((refusals - 1) * 10000, in_ms(0) - start);
    EXPECT_EQ(state == closed ? -1 : 0, answer);
    EXPECT_EQ(state == closed ? ETIMEDOUT : error, error);
    EXPECT_EQ(log.at(state), lines);
    EXPECT_EQ(state, state_of(c));
    EXPECT_EQ(selects, faults.count(Call::select));
    if (state == connected) accept();
  };
  constexpr std::uint64_t second = 1000000, minute = 60 * second;
  expect(0, 0, 5 * second, connected, 2);
  expect(0, 0, 11 * second, connected);  // No longer waits for the socket, only pauses.
  expect(minute, 0, 11 * second, connected, 2);
  expect(0, minute, 11 * second, connected, 2);
  expect(UINT64_MAX, UINT64_MAX - 1, 11 * second, connected, 2);
  expect(minute, 0, minute, closed);
  expect(0, minute, minute, pending);
  expect(minute, minute, minute, closed);
  expect(minute, UINT64_MAX, minute, closed);
  expect(UINT64_MAX, minute, minute, pending);
}

TEST_F(ConnectTest, APendingConnectionIsMadeOnceThereIsRoom) {
  for (const std::string& at : {path(), abstract_name()})
    for (const bool by_idle : {false, true}) {
      wait_for_place(at);
      const auto advance = [&] { return by_idle ? comm_socket_v4_idle(c.get()) : check(c); };
      EXPECT_EQ(0, advance());
      EXPECT_EQ(Outcome(0, 0), outcome([&] { return wait(c); }));
      EXPECT_EQ(pending, state_of(c));
      accept();
      const auto [answer, error, lines] = told(advance);
      EXPECT_EQ(by_idle ? 0 : 1, answer);
      EXPECT_EQ(by_idle ? error : 0, error);
      EXPECT_EQ(Lines{made}, lines);
      EXPECT_EQ(connected, state_of(c));
      accept();
    }
}

TEST_F(ConnectTest, NoticesThatTheServerEndsWhileItWaits) {
  const std::string refused =
      "ERROR: connect_check_pending() non-blocking connect() completed, error Connection refused";
  for (const bool by_idle : {true, false}) {
    wait_for_place(abstract_name());
    comm_socket_v4_close(server.get());
    await_end(first->socket_fd);
    const auto advance = [&] { return by_idle ? comm_socket_v4_idle(c.get()) : check(c); };
    EXPECT_EQ(Told(-1, ECONNREFUSED, {refused}), told(advance));
    EXPECT_EQ(closed, state_of(c));
  }

  comm_socket_v4_set_connect_timeout_routine(c.get(), 0);
  const auto again = [this] { return connect_to(c, server->socket_path); };
  Faults faults;
  EXPECT_EQ(Told(0, ETIMEDOUT,
                 {refused,
                  loop + "check_pending() indicates connect completion. errno=Connection refused",
                  "DEBUG: connect_wait_for_completion() on closed handle",
                  loop + "wait_for_completion() indicates completion. errno=Connection timed out"}),
            told(faults.fail(Call::connect, EAGAIN), again));
  EXPECT_EQ(closed, state_of(c));
}

// --- The calls that complete a connect ----------------------------------------------------------

TEST_F(ConnectTest, NothingIsPendingOnOtherEndpoints) {
  const CommEndpoint pair = make_endpoint();
  EXPECT_EQ(0, comm_socket_v4_connect_new_socketpair(pair.get()));
  const std::string misuse = "BUG: connect_check_pending() ";
  const Told no_client(-1, EINVAL,
                       {misuse + "apparently called when struck sockaddr_un is uninitialized"});
  const auto expect = [](const CommEndpoint& end, const Told& waited, const Told& checked) {
    EXPECT_EQ(waited, told([&] { return wait(end); }));
    EXPECT_EQ(checked, told([&] { return check(end); }));
    EXPECT_EQ(std::get<0>(checked) == 1 ? connected : closed, state_of(end));
  };
  expect(c, {-1, ETIMEDOUT, {"DEBUG: connect_wait_for_completion() on closed handle"}},
         {-1, EINVAL, {misuse + "called with closed socket"}});
  expect(pair, {1, 0, {}}, no_client);
  listen(abstract_name());
  EXPECT_EQ(0, connect_to(c, server->socket_path));
  expect(c, {1, 0, {}}, {1, errno_before, {}});
  expect(server, {1, 0, {}}, no_client);
}

TEST_F(ConnectTest, TheWaitAsksTheSocketWhatBecameOfItAndTakesNothingFromIt) {
  const std::string wait_for = "ERROR: connect_wait_for_completion() ";
  const std::string success =
      "DEBUG: connect_wait_for_completion() select() indicates non-blocking connect succeeded";
  // The call answers 0, or fails; the error of the socket is always the same.
  const auto expect = [this](Call call, int error, Outcome result, const std::string& state,
                             const std::string& line = "") {
    wait_for_place(path());
    Faults faults;
    faults.replace(call, [&](auto&, void* subject) {
      if (call == Call::getsockopt) *static_cast<int*>(subject) = EIO;
      errno = error;
      return error != 0 ? -1 : 0;
    });
    EXPECT_EQ(Told(result.first, result.second, Lines(line != "", line)),
              told(faults, [this] { return wait(c); }));
    EXPECT_EQ(state, state_of(c)) << line;
  };
  const std::string eio = " Input/output error";
  expect(Call::select, EINTR, {0, EINTR}, pending);
  expect(Call::select, 0, {0, 0}, pending);
  expect(Call::select, EIO, {-1, EIO}, closed, wait_for + "select returned error" + eio);
  expect(Call::getsockopt, EIO, {-1, EIO}, closed,
         wait_for + "getsockopt(SO_ERROR) returned errno" + eio);
  expect(Call::getsockopt, 0, {-1, EIO}, connected,
         wait_for + "select() indicates non-blocking connect completed, error" + eio);
  expect(Call::recv, EIO, {-1, EIO}, closed, wait_for + "recv() returned errno" + eio);
  expect(Call::recv, ENOTCONN, {0, 0}, pending);
  expect(Call::recv, EAGAIN, {1, 0}, connected, success);
  expect(Call::recv, 0, {1, 0}, connected, success);

  wait_for_place(path());
  for (const int error : {EALREADY, EINPROGRESS, EAGAIN})
    EXPECT_EQ(0, failing(Call::connect, error, [&] { return check(c); }));
  EXPECT_EQ(pending, state_of(c));
  Faults none;
  EXPECT_EQ(Outcome(0, 0), outcome(none, [&] { return wait(c, 0); }));
  EXPECT_EQ(0u, none.count(Call::select));
  accept();
  EXPECT_EQ(1, check(c));
  accept();
  comm_socket_v4_packet_send_to_client(server->index2client(1), ping_packet().get());
  c->status.connect_pending = 1;
  EXPECT_EQ(1, wait(c));
  EXPECT_NE(nullptr, retrieve(c.get()));
}

}  // namespace
