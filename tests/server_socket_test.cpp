// Making a server: the address of a path, and what is done about a path that is taken.
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <optional>

#include "suite/process.h"
#include "support.h"

namespace {

int create(const CommEndpoint& c, const std::string& at) {
  return comm_socket_v4_create_server(c.get(), at.c_str());
}

class ServerSocketTest : public CommTest {
 protected:
  const std::string at = path(), quoted = "'" + at + "'";
  const std::string says = "ERROR: create_server_socket() ";
  const std::string live = says + "another process is listening on " + quoted;

  // Refuses with these lines, and the one that is always the last.
  static void expect_refused(const std::string& where, int error, Lines lines,
                             Faults&& faults = {}) {
    const CommEndpoint c = make_endpoint();
    lines.push_back(std::string("ERROR: create_server(): failed to ") +
                    (error == ENOMEM ? "allocate memory for client list" : "create server socket"));
    EXPECT_EQ(Told(-1, error, lines), told(faults, [&] { return create(c, where); }));
    EXPECT_EQ("", state_of(c)) << lines[0];
    EXPECT_EQ(where, c->socket_path);
    EXPECT_EQ(error == EINVAL || error == ENAMETOOLONG, faults.count(Call::socket) == 0);
  }
};

TEST_F(ServerSocketTest, TurnsPathsIntoAddresses) {
  const std::string full(108, 'x'), full_name = "@" + std::string(107, 'y');
  const struct {
    std::string path, bytes;
    std::size_t length;
  } rows[] = {{"", "", 0},       {"a", "a", 110},
              {"@", "@", 110},   {"@x", {"\0x", 2}, 4},
              {full, full, 110}, {full_name, '\0' + full_name.substr(1), 110}};
  sockaddr_un address;
  std::size_t length = 0;
  for (const auto& row : rows) {
    memset(&address, 0xFF, sizeof address);
    comm_socket_path_to_sockaddr_un(address, length, row.path);
    EXPECT_EQ(row.bytes + std::string(108 - row.bytes.size(), '\0'),
              std::string(address.sun_path, 108));
    EXPECT_EQ(row.length, length) << row.path;
    EXPECT_EQ(AF_UNIX, address.sun_family);
  }
  EXPECT_DEATH(comm_socket_path_to_sockaddr_un(address, length, full + "x"),
               "^lib/comm_connection: comm_socket_path_to_sockaddr_un: assertion failed: "
               "path.length\\(\\) <= sizeof\\(sun.sun_path\\)\n");
}

TEST_F(ServerSocketTest, ListensOnAFileThatEverybodyMayUse) {
  const CommEndpoint c = make_endpoint();
  const mode_t umask_before = umask(0777);
  EXPECT_EQ(0, create(c, path_of_length(106)));
  umask(umask_before);
  EXPECT_EQ(fs::perms(0666), fs::status(path_of_length(106)).permissions());
  EXPECT_EQ("open server bound clients ", state_of(c));
  EXPECT_EQ(FD_CLOEXEC, fcntl(c->get_socket_fd(), F_GETFD));
  EXPECT_EQ(nullptr, comm_socket_v4_accept_connection(c.get())) << "blocks";
  join(c.get());
}

TEST_F(ServerSocketTest, AnAbstractNameLeavesFilesAlone) {
  const std::string name = abstract_name();
  const Peer in_directory([&] {
    fs::current_path(path(""));
    std::ofstream(name) << "text";
    fs::permissions(name, fs::perms(0600));
    const CommEndpoint c = make_endpoint();
    comm_socket_v4_set_socket_mode(c.get(), 0640);  // without a meaning
    EXPECT_EQ(0, create(c, name));
    expect_refused(name, EADDRINUSE, {says + "cannot bind, Address already in use\n"});
    comm_socket_v4_close(c.get());
    EXPECT_EQ(fs::perms(0600), fs::status(name).permissions());
    // And a file of such a name is none.
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const sockaddr_un file = {AF_UNIX, "@file"};
    EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&file), sizeof file) + listen(fd, 1));
    EXPECT_EQ(0, comm_socket_v4_use_server_socket(c.get(), fd));
    EXPECT_EQ("./@file", c->socket_path);
  });
}

TEST_F(ServerSocketTest, RefusesThePathOfALiveServerAndReplacesTheFileOfADeadOne) {
  fs::create_directory(path("elsewhere"));
  const int decoy = bound_socket(path("decoy"));
  for (const std::string& name : {at, std::string("../socket")})
    for (const int type : {SOCK_SEQPACKET, SOCK_STREAM, SOCK_DGRAM}) {
      SCOPED_TRACE(name + " type " + std::to_string(type));
      EXPECT_GT(0, get_socket_server_pid(at.c_str(), 1));
      Peer server([&] {
        fs::current_path(path("elsewhere"));
        bound_socket(name, type);
        pause();
      });
      while (!fs::exists(at)) usleep(1000);
      EXPECT_EQ(server.pid(), get_socket_server_pid(at.c_str(), 1));
      expect_refused(at, EADDRINUSE, {live});
      // In /proc/net/unix the text is still that of the live server, whose file this is no more.
      EXPECT_TRUE(fs::remove(at));
      close(bound_socket(at, type));
      await_death(at);
      const StderrCapture captured;
      EXPECT_EQ(0, create(make_endpoint(), at));
      EXPECT_EQ(Lines{}, captured.lines());
      kill(server.pid(), SIGKILL);
      server.wait();
    }
  close(decoy);
}

TEST_F(ServerSocketTest, ARefusedTakeOverCostsTheLiveServerNothingAndTheDebugFlagForcesOne) {
  const StderrCapture captured;  // also while the server finds its file gone
  const CommEndpoint server = make_endpoint(), c = make_endpoint();
  ASSERT_EQ(0, create(server, at));
  comm_socket_v4_set_connect_timeout(c.get(), 50000);
  const auto connect = [&] { EXPECT_EQ(0, comm_socket_v4_connect_to(c.get(), at.c_str())); };
  const auto refuse = [&] { expect_refused(at, EADDRINUSE, {live}); };
  for (const bool full_before : {false, true}) {
    full_before ? connect() : refuse();
    full_before ? refuse() : connect();
    EXPECT_NE(nullptr, comm_socket_v4_accept_connection(server.get()));
    EXPECT_EQ(nullptr, comm_socket_v4_accept_connection(server.get()));
  }
  c->flags.debug = 1;
  EXPECT_EQ(0, create(c, at));
  EXPECT_EQ(Lines{"WARNING: create_server_socket() another process is listening on " + quoted +
                  " but DEBUG flag is set to ignore the condition and proceed anyway"},
            captured.lines());
  join(c.get());
}

// A connection carries the path of the server that accepted it, and here it is the newer socket.
TEST_F(ServerSocketTest, AWorkerIsNotTakenForTheServerWhoseConnectionItHolds) {
  const CommEndpoint server = make_endpoint();
  ASSERT_EQ(0, create(server, at));
  const CommEndpoint client = join(server.get()).first;
  Peer worker([&] {
    close(server->get_socket_fd());
    fs::create_directory(path("holds"));
    pause();
  });
  while (!fs::exists(path("holds"))) usleep(1000);
  comm_socket_v4_drop_clients(server.get());
  EXPECT_EQ(getpid(), get_socket_server_pid(at.c_str(), 1));
  kill(worker.pid(), SIGKILL);
  worker.wait();
}

TEST_F(ServerSocketTest, SaysWhatFailedAndRemovesOnlyItsOwnFile) {
  const std::string cannot = says + "cannot bind, ",
                    held = "path " + quoted + " already occupied by ";
  const std::string denied = "Permission denied", why = quoted + " (" + denied + ")";
  const auto nothing = [] {};
  const auto stale = [this] { close(bound_socket(at)), await_death(at); };
  const auto file = [this] { std::ofstream(at) << "text"; };
  const auto directory = [this] { fs::create_directory(at); };
  const auto link = [this] { fs::create_symlink("x", at); };
  using Type = fs::file_type;
  const auto expect = [this](auto prepare, Type remains, const std::string& line,
                             Call call = Call::kinds, unsigned nth = 1, int error = EACCES) {
    prepare();
    Faults faults;
    if (call != Call::kinds) faults.fail(call, error, nth);
    expect_refused(at, call != Call::kinds ? error : EADDRINUSE, {line}, std::move(faults));
    EXPECT_EQ(remains, fs::symlink_status(at).type()) << line;
    fs::remove(at);
  };
  expect(file, Type::regular, cannot + held + "file");
  expect(directory, Type::directory, cannot + held + "directory");
  expect(link, Type::symlink, cannot + held + "non-socket");
  expect(stale, Type::socket, says + "cannot create AF_UNIX packet: " + denied + "\n",
         Call::socket);
  expect(stale, Type::socket, cannot + "Too many open files\n", Call::socket, 2, EMFILE);
  expect(stale, Type::socket, cannot + denied + "\n", Call::bind);
  expect(stale, Type::not_found, cannot + denied + "\n", Call::bind, 2);
  expect(stale, Type::socket, cannot + "and cannot stat path " + why, Call::lstat);
  expect(stale, Type::socket, cannot + "and cannot remove existing socket " + why, Call::unlink);
  expect(nothing, Type::not_found, "ERROR: create_server_socket(): cannot listen, " + denied + "\n",
         Call::listen);
  expect(nothing, Type::not_found, "ERROR: alloc_client_list() malloc() failed", Call::operator_new,
         2, ENOMEM);  // The first allocation is that of the path.

  const std::string too_long =
      "socket path too long for AF_UNIX domain (I warned you I'd remove that hack!)";
  expect_refused(path_of_length(107), ENAMETOOLONG, {says + too_long});
  expect_refused("@" + std::string(106, 'n'), ENAMETOOLONG, {says + too_long});
  expect_refused("", EINVAL, {"BUG: create_server_socket() with no socket path"});
}

// Whatever may happen between two steps of a start happens after every one of them.
TEST_F(ServerSocketTest, TheModeIsThatOfTheBoundSocketAndOfNothingThatTookItsPlace) {
  const std::string file = path("file"), other = path("other");
  std::ofstream(file) << "text";
  close(bound_socket(other));
  for (const std::string& victim : {file, other}) fs::permissions(victim, fs::perms(0600));
  const StderrCapture captured;
  for (const Call step : {Call::bind, Call::fstat, Call::chmod})
    for (const bool link : {true, false}) {
      Faults swapping;
      swapping.replace(step, [&](auto& real, void*) {
        const long early = step == Call::chmod ? 0 : real();
        fs::remove(at);
        link ? fs::create_symlink(file, at) : fs::create_hard_link(other, at);
        return step == Call::chmod ? real() : early;
      });
      const CommEndpoint c = make_endpoint();
      EXPECT_EQ(0, swapping.during([&] { return create(c, at); }));
      EXPECT_EQ(link, fs::is_symlink(at));
      EXPECT_EQ(link ? 1u : 2u, fs::hard_link_count(other));
      comm_socket_v4_close(c.get());
      fs::remove(at);
      for (const std::string& victim : {file, other})
        EXPECT_EQ(fs::perms(0600), fs::status(victim).permissions()) << victim;
    }
}

TEST_F(ServerSocketTest, OneAtATimeLooksRemovesAndBindsButNobodyWaitsForEver) {
  const int directory = open(path("").c_str(), O_RDONLY | O_CLOEXEC);
  const auto is_locked = [&] {
    const bool locked = flock(directory, LOCK_EX | LOCK_NB) != 0;
    if (!locked) flock(directory, LOCK_UN);
    return locked;
  };
  close(bound_socket(at));
  await_death(at);
  std::optional<Peer> forked;  // holds copies of every descriptor
  Faults watched;
  for (const Call step : {Call::lstat, Call::unlink, Call::bind})
    watched.replace(step, [&, step](auto& real, void*) {
      EXPECT_TRUE(is_locked());
      if (step == Call::unlink) forked.emplace([] { pause(); });
      return real();
    });
  const CommEndpoint c = make_endpoint();
  EXPECT_EQ(0, watched.during([&] { return create(c, at); }));
  EXPECT_FALSE(is_locked());
  ASSERT_TRUE(forked.has_value());
  kill(forked->pid(), SIGKILL);
  forked->wait();
  comm_socket_v4_close(c.get());

  ASSERT_EQ(0, flock(directory, LOCK_EX));
  Faults paused;
  paused.replace(Call::usleep, [&](auto&, void*) {
    return paused.count(Call::usleep) == 1 ? (errno = EINTR, -1) : 0;
  });
  EXPECT_EQ(0, paused.during([&] { return create(make_endpoint(), at); }));
  EXPECT_EQ(2001u, paused.count(Call::usleep)) << "a signal shortens no pause";
  close(directory);
}

TEST_F(ServerSocketTest, ReopenBindsAgainAndToleratesAFailure) {
  const CommEndpoint server = make_endpoint(), closed = make_endpoint();
  ASSERT_EQ(0, create(server, abstract_name()));
  const CommEndpoint client = join(server.get()).first;
  const auto reopen = [](comm_socket_v4* c) {
    return told([c] { return comm_socket_v4_reopen_server(c); });
  };
  comm_socket_v4_debug_logging(server.get());
  for (comm_socket_v4* const other :
       {static_cast<comm_socket_v4*>(nullptr), closed.get(), client.get()})
    EXPECT_EQ(Told(-1, 0, {}), reopen(other));
  EXPECT_EQ(Told(0, EINVAL, {}), reopen(server.get())) << "it is still bound";
  EXPECT_EQ(Told(0, EACCES,
                 {"DEBUG: reopen_server() rebind failed, Permission denied, falling back to rebind "
                  "socket rename"}),
            failing(Call::bind, EACCES, [&] { return reopen(server.get()); }));
}

}  // namespace
