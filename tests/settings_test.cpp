// What the author of a daemon sets and asks beyond the defaults.
#include <poll.h>
#include <sys/stat.h>
#include <sys/timerfd.h>

#include <tuple>

#include "connections.h"

namespace {

class SettingsTest : public ServerTest {
 protected:
  std::string create() { return answered(comm_socket_v4_create_server(&s, path().c_str())); }
};

TEST_F(SettingsTest, ASinkTakesTheLinesOfItsEndpoint) {
  Lines told;
  const auto keep = [](void* lines, const char* level, const char* text) {
    static_cast<Lines*>(lines)->push_back(std::string(level) + ": " + text);
    errno = EILSEQ;
  };
  comm_socket_v4_set_log_sink(&s, keep, &told);
  const std::string long_text(2000, 'e');
  errno = errno_before;
  comm_socket_v4_error(&s, "%s\n\n", long_text.c_str());
  comm_socket_v4_warning(&s, "w %d", 1);
  comm_socket_v4_bug(&s, "\n");
  comm_socket_v4_debug(&s, "a\nb");
  EXPECT_EQ(errno_before, errno);
  s.log_mask = 1;
  comm_socket_v4_debug(&s, "not asked for");
  EXPECT_EQ((Lines{"ERROR: " + long_text, "WARNING: w 1", "BUG: ", "DEBUG: a\nb"}), told);
  EXPECT_EQ("", log());
  comm_socket_v4_set_log_sink(
      &s, [](void* c, auto...) { comm_socket_v4_error(static_cast<comm_socket_v4*>(c), "inner"); },
      &s);
  comm_socket_v4_error(&s, "outer");
  comm_socket_v4_set_log_sink(&s, nullptr, nullptr);
  comm_socket_v4_error(&s, "plain");
  EXPECT_EQ("ERROR: inner\nERROR: plain\n", log());
}

TEST_F(SettingsTest, AListeningSocketIsTakenOverAndItsFileStays) {
  const auto expect_refused = [this](int fd, const std::string& why) {
    EXPECT_EQ(-1, comm_socket_v4_use_server_socket(&s, fd));
    EXPECT_EQ("ERROR: use_server_socket() cannot use descriptor " + std::to_string(fd) + ", " +
                  why + "\n",
              log());
  };
  comm_socket_v4_set_max_descriptors(&s, 0);
  const std::string with_nul("\0x", 2);
  for (const std::string& at :
       {path(), path_of_length(108), abstract_name(), abstract_name() + with_nul}) {
    const int fd = bound_socket(at);
    fcntl(fd, F_SETFD, 0);
    Faults counted;
    ASSERT_EQ(0, counted.during([&] { return comm_socket_v4_use_server_socket(&s, fd); }));
    EXPECT_EQ(1u, counted.count(Call::setsockopt)) << "no descriptors";
    EXPECT_EQ(std::tuple(at, fd, FD_CLOEXEC, 16, "open server clients "),
              std::tuple(s.socket_path, s.socket_fd, fcntl(fd, F_GETFD), s.client.size(),
                         state_of(server)));
    EXPECT_EQ(nullptr, accept()) << "blocks";
    expect_refused(fd, "Invalid argument");
    comm_socket_v4_close(&s);
    EXPECT_EQ(std::pair(at[0] != '@', -1), std::pair(fs::exists(at), fcntl(fd, F_GETFD)));
  }
  expect_refused(-1, "Bad file descriptor");
  expect_refused(0, "Socket operation on non-socket");
  for (const CommDescriptor& other : {CommDescriptor(socket(AF_UNIX, SOCK_SEQPACKET, 0)),
                                      CommDescriptor(socket(AF_INET, SOCK_STREAM, 0)),
                                      CommDescriptor(bound_socket(path("stream"), SOCK_STREAM))}) {
    expect_refused(other.get(), "Invalid argument");
    EXPECT_NE(-1, fcntl(other.get(), F_GETFD)) << "is still the caller's";
  }
}

TEST_F(SettingsTest, AServerHasItsAccessAndItsQueueBeforeAnybodyCanConnect) {
  const gid_t group = getuid() == 0 ? 12345 : getgid();
  comm_socket_v4_set_socket_mode(&s, 07620);
  comm_socket_v4_set_socket_group(&s, group);
  comm_socket_v4_set_listen_backlog(&s, 2);
  const auto access = [this] {
    struct stat file = {};
    lstat(path().c_str(), &file);
    return std::pair(file.st_mode & 07777, file.st_gid);
  };
  const mode_t umask_before = umask(0);
  Faults faults;
  faults.replace(Call::listen, [&](auto& real, void*) {
    EXPECT_EQ(std::pair(mode_t{0620}, group), access());
    return real();
  });
  EXPECT_EQ("0", faults.during([this] { return create(); }));
  umask(umask_before);
  for (int i = 0; i < 3; ++i) knock();
  const CommEndpoint late = make_endpoint();
  comm_socket_v4_set_connect_timeout_routine(late.get(), 1);
  EXPECT_EQ(0, comm_socket_v4_connect_to(late.get(), path().c_str()));
  EXPECT_EQ(1, comm_socket_v4_connection_pending(late.get()));

  // What cannot be given is told: without a descriptor to do it with, and where another file has
  // taken the place, which is left alone.
  const std::string cannot = "ERROR: create_server_socket() cannot set mode or group of '" +
                             path() + "', ",
                    failed = "ERROR: create_server(): failed to create server socket\n";
  comm_socket_v4_close(&s);
  const auto create_again = [this] { return create(); };
  EXPECT_EQ("-1 EMFILE", failing(Call::open, EMFILE, create_again, 2));  // the first is of the lock
  EXPECT_EQ(cannot + "Too many open files\n" + failed, log());
  EXPECT_FALSE(fs::exists(path()));
  faults.fail(Call::chmod, ENOENT).fail(Call::syscall, ENOSYS);  // no /proc, before Linux 6.6
  EXPECT_EQ("-1 ENOENT", faults.during(create_again));
  EXPECT_EQ(cannot + "No such file or directory\n" + failed, log());
  faults.replace(Call::bind, [this](auto& real, void*) {
    const long answer = real();
    fs::rename(path(), path("moved"));
    std::ofstream(path()) << "text";
    return answer;
  });
  EXPECT_EQ("-1 ESTALE", faults.during(create_again));
  EXPECT_EQ(cannot + "Stale file handle\n" + failed, log());
  fs::remove(path());
  comm_socket_v4_set_socket_mode(&s, 0666);
  EXPECT_EQ("-1 EIO", failing(Call::fchmod, EIO, create_again)) << "a group is enough";
  EXPECT_EQ(cannot + "Input/output error\n" + failed, log());
  comm_socket_v4_set_socket_group(&s, static_cast<gid_t>(-1));
  EXPECT_EQ("-1 EMFILE", failing(Call::open, EMFILE, create_again, 2)) << "by default, too";
  EXPECT_EQ(cannot + "Too many open files\n" + failed, log());
}

TEST_F(SettingsTest, AServerThatStopsListeningServesItsClientsOn) {
  ASSERT_EQ("0", create());
  join(1);
  knock();
  const auto stop = [this] { return answered(comm_socket_v4_stop_listening(&s)); };
  EXPECT_EQ("-1 EMFILE", failing(Call::socket, EMFILE, stop));
  EXPECT_EQ("ERROR: stop_listening() cannot create a socket, Too many open files\n", log());
  EXPECT_TRUE(fs::exists(path()));
  const int fd = s.socket_fd;
  EXPECT_EQ("0", stop());
  EXPECT_EQ(std::pair(fd, false), std::pair(s.socket_fd, fs::exists(path())));
  std::ofstream(path()) << "somebody else's";
  EXPECT_EQ("0", stop());
  EXPECT_EQ("-1 EINVAL", answered(comm_socket_v4_stop_listening(client())));
  EXPECT_EQ(Outcome(-1, 0), outcome([this] { return comm_socket_v4_reopen_server(&s); }));
  EXPECT_EQ(Outcome(0, EAGAIN), outcome([this] { return accept() != nullptr; }));
  EXPECT_EQ(0, comm_socket_v4_server_from_client_readable(&s, in_ms(2)));
  send_from(0);
  EXPECT_EQ(1, comm_socket_v4_server_from_client_readable(&s, ULONG_MAX));
  EXPECT_NE(nullptr, retrieve(&s));
  comm_socket_v4_close(&s);
  EXPECT_EQ("", log());
  fs::remove(path());
  open_server();
  EXPECT_EQ(0u, join()) << "listens again";
}

TEST_F(SettingsTest, LastWordsArriveBeforeTheEnd) {
  join(1);
  EXPECT_EQ("-1 EINVAL", answered(comm_socket_v4_end_sending(&s)));
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_client_end_sending(&s.client[1])));
  send_to(0);
  EXPECT_EQ(0, comm_socket_v4_client_end_sending(record()));
  EXPECT_EQ("-1 EPIPE", answered(send_to(0)));
  send_from(0);
  EXPECT_NE(nullptr, retrieve(&s)) << "the other direction is open";
  EXPECT_NE(nullptr, retrieve(client()));
  EXPECT_EQ(0, comm_socket_v4_end_sending(client()));
  expect_end(0);
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_end_sending(client())));
}

TEST_F(SettingsTest, DescriptorsDoNotSurviveExecWhereThatIsAskedFor) {
  join(1);
  comm_socket_v4_set_descriptors_cloexec(&s, 1);
  const CommPacket sent = ping_packet();
  EXPECT_EQ((std::vector<bool>{true, true, false}),
            (std::vector<bool>{sent->attach_fd_to_send_cloexec(0), sent->attach_fd_to_send(0),
                               sent->attach_fd_to_send_cloexec(-1)}));
  EXPECT_EQ(FD_CLOEXEC, fcntl(sent->attached_fd[0], F_GETFD));
  send_from(0, sent);
  CommPacket got = retrieve(&s);
  ASSERT_EQ(2u, got->attached_fd_count());
  EXPECT_EQ(FD_CLOEXEC, fcntl(got->attached_fd[0], F_GETFD) & fcntl(got->attached_fd[1], F_GETFD));
  comm_socket_v4_set_descriptors_cloexec(&s, -1);
  send_from(0, carrier(1));
  EXPECT_EQ(0, fcntl(retrieve(&s)->attached_fd[0], F_GETFD));
}

TEST_F(SettingsTest, MoreDescriptorsThanAllowedAreDroppedOrNeverSent) {
  const auto set = [this](unsigned most) {
    return answered(comm_socket_v4_set_max_descriptors(&s, most));
  };
  EXPECT_EQ("-1 EINVAL", set(61));
  EXPECT_EQ("0", set(2));
  join(1);
  const std::string dropped = "WARNING: client_idle() fd=" + std::to_string(record()->client_fd) +
                              " dropping packet, more descriptors than allowed\n";
  comm_socket_v4_normal_logging(&s);
  for (const std::size_t files : {3u, 2u}) send_from(0, carrier(files));
  EXPECT_EQ(nullptr, retrieve(&s));
  EXPECT_EQ(dropped, log());
  EXPECT_EQ(2u, retrieve(&s)->attached_fd_count());
  const CommDescriptor probe(socket(AF_UNIX, SOCK_SEQPACKET, 0));
  const int off = 0, pass_rights = 83;  // SO_PASSRIGHTS of Linux 6.16
  const bool refuses = setsockopt(probe.get(), SOL_SOCKET, pass_rights, &off, sizeof off) == 0;
  enum { is_there, waits, comes_later };
  for (const int client : {is_there, waits, comes_later}) {
    SCOPED_TRACE(client);
    if (client == comes_later) set(0);
    if (client != is_there) open_server(), knock();
    if (client != comes_later) set(0);
    if (client != is_there) accept();
    const auto [answer, error] = outcome([this] { return send_from(0, carrier(1)); });
    const bool was_sent = answer > 0;
    EXPECT_EQ(refuses, !was_sent);
    EXPECT_EQ(was_sent ? errno_before : EPERM, error);
    send_from(0);
    const CommPacket first = retrieve(&s), second = retrieve(&s);
    EXPECT_EQ(was_sent ? dropped : "", log());
    EXPECT_EQ(std::pair(was_sent, !was_sent), std::pair(first == nullptr, second == nullptr));
    set(60);
    EXPECT_EQ(94, send_from(0, carrier(60)));
    EXPECT_EQ(60u, retrieve(&s)->attached_fd_count());
  }
}

TEST_F(SettingsTest, TheKernelSaysWhoThePeerIs) {
  join(1);
  const CommDescriptor pidfd(comm_socket_v4_client_get_pidfd(record()));
  if (pidfd.is_open()) {
    std::ifstream about("/proc/self/fdinfo/" + std::to_string(pidfd.get()));
    const std::string text(std::istreambuf_iterator<char>(about), {});
    EXPECT_NE(text.npos, text.find("Pid:\t" + std::to_string(getpid()) + "\n")) << text;
  } else {
    EXPECT_EQ(ENOPROTOOPT, errno);  // before Linux 6.5
  }
  std::vector<gid_t> expected(static_cast<std::size_t>(getgroups(0, nullptr)));
  getgroups(static_cast<int>(expected.size()), expected.data());
  std::vector<gid_t> groups(expected.size() + 1);
  const auto ask = [&](int size) {
    return comm_socket_v4_client_get_groups(record(), groups.data(), size);
  };
  for (const std::size_t room : {std::size_t{0}, groups.size()})
    EXPECT_EQ(static_cast<int>(expected.size()), ask(static_cast<int>(room)));
  groups.pop_back();
  EXPECT_EQ(expected, groups);
  ucred cred = {};
  const auto ask_server = [&](comm_socket_v4* c) {
    return answered(comm_socket_v4_get_server_cred(c, &cred));
  };
  EXPECT_EQ("0", ask_server(client()));
  EXPECT_EQ(std::tuple(getpid(), getuid(), getgid()), std::tuple(cred.pid, cred.uid, cred.gid));
  EXPECT_EQ("-1 EINVAL", ask_server(&s));
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_client_get_pidfd(&s.client[1])));
  comm_socket_v4_close(client());
  EXPECT_EQ("-1 ENOTCONN", ask_server(client()));
  const int lonely = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  ASSERT_EQ(0, comm_socket_v4_connect_use_socketpair(client(), lonely));
  EXPECT_EQ("-1 ENOTCONN", ask_server(client()));
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_end_sending(client())));
}

TEST_F(SettingsTest, AnAcceptWithAReserveSurvivesALackOfDescriptors) {
  // Not by way of the fixture: without descriptors the sanitizers cannot look at an object.
  comm_socket_v4* const c = &s;
  const auto reserve = [c](int on) {
    return answered(comm_socket_v4_set_descriptor_reserve(c, on));
  };
  const auto accepts = [c] {
    return outcome([c] { return comm_socket_v4_accept_connection(c) != nullptr; });
  };
  const auto accept_without_any = [&] {
    return with_descriptor_limit(lowest_free_descriptor(), accepts);
  };
  EXPECT_EQ("-1 EMFILE", failing(Call::open, EMFILE, [&] { return reserve(1); }));
  const std::string warning =
      "WARNING: accept_connection() no descriptors left, closing new connections\n";
  const int kept = static_cast<int>(lowest_free_descriptor());
  EXPECT_EQ("0", reserve(1));
  EXPECT_EQ(FD_CLOEXEC, fcntl(kept, F_GETFD));
  for (int round = 0; round < 2; ++round) {
    Faults counted;
    EXPECT_EQ(Outcome(0, EAGAIN), counted.during(accept_without_any)) << "nobody waits";
    EXPECT_EQ(1u, counted.count(Call::accept4)) << "the reserve was touched";
    for (const std::string& told : {warning, std::string()}) {
      knock();
      EXPECT_EQ(Outcome(0, EMFILE), accept_without_any());
      EXPECT_EQ(told, log());
      await_end(peers.back()->socket_fd);
    }
    EXPECT_EQ(1, comm_socket_v4_is_open(&s));
    join();
  }
  // Somebody else has taken the reserve, and it cannot be renewed: the connection waits on.
  knock();
  Faults lost;
  lost.fail(Call::accept4, ENFILE, 1, 2).fail(Call::open, EIO);
  EXPECT_EQ(Outcome(0, ENFILE), lost.during(accepts));
  EXPECT_EQ("", log());
  EXPECT_NE(nullptr, accept()) << "and the reserve is there again";
  knock();
  EXPECT_EQ(Outcome(0, EMFILE), accept_without_any());
  EXPECT_EQ(warning, log());
  const rlim_t before = lowest_free_descriptor();
  EXPECT_EQ("0", reserve(0));
  EXPECT_GT(before, lowest_free_descriptor());
  knock();
  EXPECT_EQ(Outcome(0, EMFILE), accept_without_any());
  EXPECT_EQ(0, comm_socket_v4_is_open(&s));
}

TEST_F(SettingsTest, ADescriptorSaysWhenAPendingConnectIsWorthATry) {
  knock();
  const CommEndpoint late = make_endpoint();
  comm_socket_v4* const c = late.get();
  EXPECT_EQ("-1 EINVAL", answered(comm_socket_v4_get_connect_fd(c)));
  comm_socket_v4_set_connect_timeout_routine(c, 1);
  ASSERT_EQ(0, comm_socket_v4_connect_to(c, s.socket_path.c_str()));
  const int fd = comm_socket_v4_get_connect_fd(c);
  EXPECT_EQ(std::pair(fd, FD_CLOEXEC),
            std::pair(comm_socket_v4_get_connect_fd(c), fcntl(fd, F_GETFD)));
  const auto is_readable = [fd](int timeout_ms) {
    struct pollfd asked = {fd, POLLIN, 0};
    return poll(&asked, 1, timeout_ms);
  };
  struct itimerspec times;
  timerfd_gettime(fd, &times);
  EXPECT_EQ(10000000, times.it_interval.tv_nsec);
  for (int tries = 0; tries < 2; ++tries) {
    EXPECT_EQ(1, is_readable(-1));
    EXPECT_EQ(0, comm_socket_v4_connect_check_pending(c));
  }
  EXPECT_NE(nullptr, accept());
  EXPECT_EQ(1, is_readable(-1));
  EXPECT_EQ(1, comm_socket_v4_connect_check_pending(c));
  EXPECT_EQ(0, is_readable(30));
  EXPECT_EQ("-1 EINVAL", answered(comm_socket_v4_get_connect_fd(c)));
  comm_socket_v4_close(c);
  EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

}  // namespace
