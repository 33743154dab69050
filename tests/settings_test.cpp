// What the author of a daemon sets and asks beyond the defaults.
#include <poll.h>
#include <sys/stat.h>

#include <tuple>

#include "connections.h"

namespace {

class SettingsTest : public ServerTest {
 protected:
  using Told = std::vector<std::pair<std::string, std::string>>;  // levels and texts

  static void keep_told(void* told, const char* level, const char* text) {
    static_cast<Told*>(told)->emplace_back(level, text);
    errno = EILSEQ;
  }
  static bool is_readable(int fd, int timeout_ms) {
    struct pollfd asked = {fd, POLLIN, 0};
    return poll(&asked, 1, timeout_ms) == 1;
  }
  Packet retrieve() { return Packet(comm_socket_v4_server_get_packet(&s, nullptr)); }
  std::string create() { return answered(comm_socket_v4_create_server(&s, path().c_str())); }
  int send_from_client(const Packet& p) {
    return comm_socket_v4_packet_send_to_server(peers[0].get(), p.get());
  }
};

TEST_F(SettingsTest, ASinkTakesTheLinesOfItsEndpoint) {
  Told told;
  comm_socket_v4_set_log_sink(&s, keep_told, &told);
  comm_socket_v4_close(&s);
  errno = errno_before;
  comm_socket_v4_error(&s, "%s\n\n", std::string(2000, 'e').c_str());
  comm_socket_v4_warning(&s, "w %d", 1);
  comm_socket_v4_bug(&s, "\n");
  comm_socket_v4_debug(&s, "a\nb");
  EXPECT_EQ(errno_before, errno);
  s.log_mask = 1;
  comm_socket_v4_debug(&s, "not asked for");
  EXPECT_EQ(
      (Told{{"ERROR", std::string(2000, 'e')}, {"WARNING", "w 1"}, {"BUG", ""}, {"DEBUG", "a\nb"}}),
      told);
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
  for (const std::string& at : {path(), path_of_length(108), abstract_name()}) {
    const int fd = bound_socket(at);
    fcntl(fd, F_SETFD, 0);
    ASSERT_EQ(0, comm_socket_v4_use_server_socket(&s, fd));
    EXPECT_EQ(std::tuple(at, fd, FD_CLOEXEC, 1u, 0u, 16u),
              std::tuple(s.socket_path, s.get_socket_fd(), fcntl(fd, F_GETFD),
                         unsigned{s.flags.server}, unsigned{s.flags.bound}, s.client.size()));
    EXPECT_EQ(nullptr, accept()) << "blocks";
    expect_refused(fd, "Invalid argument");
    if (at.length() < 108) {
      EXPECT_EQ(1u, join()) << "the search has moved past slot 0";
    }
    comm_socket_v4_close(&s);
    EXPECT_EQ(std::pair(at[0] != '@', -1), std::pair(fs::exists(at), fcntl(fd, F_GETFD)));
  }
  expect_refused(-1, "Bad file descriptor");
  const Descriptor file(memfd_create("file", 0));
  expect_refused(file.get(), "Socket operation on non-socket");
  for (const Descriptor& other :
       {Descriptor(socket(AF_UNIX, SOCK_SEQPACKET, 0)), Descriptor(socket(AF_INET, SOCK_STREAM, 0)),
        Descriptor(bound_socket(path("stream"), SOCK_STREAM))}) {
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
  const Endpoint late = make_endpoint();
  comm_socket_v4_set_connect_timeout_routine(late.get(), 1);
  EXPECT_EQ(0, comm_socket_v4_connect_to(late.get(), path().c_str()));
  EXPECT_EQ(1, comm_socket_v4_connection_pending(late.get()));

  // What cannot be given is told: without a descriptor to do it with,
  const std::string cannot = "ERROR: create_server_socket() cannot set mode or group of '" +
                             path() + "', ",
                    failed = "ERROR: create_server(): failed to create server socket\n";
  comm_socket_v4_close(&s);
  comm_socket_v4* const c = &s;
  const std::string at = path();
  EXPECT_EQ("-1 EMFILE", with_descriptor_limit(lowest_free_descriptor() + 1, [&] {
              return answered(comm_socket_v4_create_server(c, at.c_str()));
            }));
  EXPECT_EQ(cannot + "Too many open files\n" + failed, log());
  EXPECT_FALSE(fs::exists(path()));
  // and where another file has taken the place, which is left alone.
  faults.replace(Call::bind, [this](auto& real, void*) {
    const long answer = real();
    fs::rename(path(), path("moved"));
    std::ofstream(path()) << "text";
    return answer;
  });
  EXPECT_EQ("-1 ESTALE", faults.during([this] { return create(); }));
  EXPECT_EQ(cannot + "Stale file handle\n" + failed, log());
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
  EXPECT_EQ("-1 EINVAL", answered(comm_socket_v4_stop_listening(peers[0].get())));
  EXPECT_EQ(Outcome(-1, 0), outcome([this] { return comm_socket_v4_reopen_server(&s); }));
  EXPECT_EQ(Outcome(0, EAGAIN), outcome([this] { return accept() != nullptr; }));
  EXPECT_EQ(0, comm_socket_v4_server_from_client_readable(&s, in_ms(2)));
  send_from_client(ping_packet());
  EXPECT_EQ(1, comm_socket_v4_server_from_client_readable(&s, ULONG_MAX));
  EXPECT_NE(nullptr, retrieve());
  comm_socket_v4_close(&s);
  EXPECT_EQ("", log());
  fs::remove(path());
  open_server();
  EXPECT_EQ(0u, join()) << "listens again";
}

TEST_F(SettingsTest, LastWordsArriveBeforeTheEnd) {
  join(1);
  comm_socket_v4_client* const client = &s.client[0];
  EXPECT_EQ("-1 EINVAL", answered(comm_socket_v4_end_sending(&s)));
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_client_end_sending(&s.client[1])));
  send_from_client(ping_packet());
  comm_socket_v4_packet_send_to_client(client, ping_packet().get());
  EXPECT_EQ(0, comm_socket_v4_client_end_sending(client));
  EXPECT_EQ("-1 EPIPE",
            answered(comm_socket_v4_packet_send_to_client(client, ping_packet().get())));
  send_from_client(ping_packet());
  EXPECT_EQ(std::pair(true, true), std::pair(retrieve() != nullptr, retrieve() != nullptr))
      << "the other direction is open";
  EXPECT_NE(nullptr, Packet(comm_socket_v4_client_get_packet_from_server(peers[0].get())));
  EXPECT_EQ(0, comm_socket_v4_end_sending(peers[0].get()));
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_idle(peers[0].get())));
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_end_sending(peers[0].get())));
}

TEST_F(SettingsTest, DescriptorsDoNotSurviveExecWhereThatIsAskedFor) {
  join(1);
  comm_socket_v4_set_descriptors_cloexec(&s, 1);
  Packet sent = ping_packet();
  EXPECT_EQ((std::vector<bool>{true, true, false}),
            (std::vector<bool>{sent->attach_fd_to_send_cloexec(0), sent->attach_fd_to_send(0),
                               sent->attach_fd_to_send_cloexec(-1)}));
  EXPECT_EQ(FD_CLOEXEC, fcntl(sent->attached_fd[0], F_GETFD));
  send_from_client(sent);
  Packet got = retrieve();
  ASSERT_EQ(2u, got->attached_fd_count());
  EXPECT_EQ(FD_CLOEXEC, fcntl(got->attached_fd[0], F_GETFD) & fcntl(got->attached_fd[1], F_GETFD));
  comm_socket_v4_set_descriptors_cloexec(&s, 0);
  send_from_client(carrier(1));
  got = retrieve();
  EXPECT_EQ(0, fcntl(got->attached_fd[0], F_GETFD));
}

TEST_F(SettingsTest, MoreDescriptorsThanAllowedAreDroppedOrNeverSent) {
  const auto set = [this](unsigned most) {
    return answered(comm_socket_v4_set_max_descriptors(&s, most));
  };
  EXPECT_EQ("-1 EINVAL", set(61));
  EXPECT_EQ("0", set(2));
  join(1);
  const std::string dropped = "WARNING: client_idle() fd=" + std::to_string(s.client[0].client_fd) +
                              " dropping packet, more descriptors than allowed\n";
  comm_socket_v4_normal_logging(&s);
  for (const std::size_t files : {3u, 2u}) send_from_client(carrier(files));
  EXPECT_EQ(nullptr, retrieve());
  EXPECT_EQ(dropped, log());
  EXPECT_EQ(2u, retrieve()->attached_fd_count());
  for (const char* const client : {"is there", "waits to be accepted", "comes later"}) {
    SCOPED_TRACE(client);
    if (client[0] == 'w') {
      open_server();
      knock();
    }
    set(0);
    if (client[0] == 'w') accept();
    if (client[0] == 'c') {
      open_server();
      join(1);
    }
    errno = 0;
    const bool was_sent = send_from_client(carrier(1)) > 0;
    EXPECT_EQ(was_sent ? 0 : EPERM, errno);
    send_from_client(ping_packet());
    const Packet first = retrieve(), second = retrieve();
    EXPECT_EQ(was_sent ? dropped : "", log());  // it was before Linux 6.16
    EXPECT_EQ(std::pair(was_sent, !was_sent), std::pair(first == nullptr, second == nullptr));
    set(60);
    EXPECT_EQ(94, send_from_client(carrier(60)));
    EXPECT_EQ(60u, retrieve()->attached_fd_count());
  }
}

TEST_F(SettingsTest, TheKernelSaysWhoThePeerIs) {
  join(1);
  const comm_socket_v4_client* const client = &s.client[0];
  const Descriptor pidfd(comm_socket_v4_client_get_pidfd(client));
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
    return comm_socket_v4_client_get_groups(client, groups.data(), size);
  };
  for (const std::size_t room : {std::size_t{0}, groups.size()})
    EXPECT_EQ(static_cast<int>(expected.size()), ask(static_cast<int>(room)));
  groups.pop_back();
  EXPECT_EQ(expected, groups);
  ucred cred = {};
  const auto ask_server = [&](comm_socket_v4* c) {
    return answered(comm_socket_v4_get_server_cred(c, &cred));
  };
  EXPECT_EQ("0", ask_server(peers[0].get()));
  EXPECT_EQ(std::tuple(getpid(), getuid(), getgid()), std::tuple(cred.pid, cred.uid, cred.gid));
  EXPECT_EQ("-1 EINVAL", ask_server(&s));
  comm_socket_v4_close(peers[0].get());
  EXPECT_EQ("-1 ENOTCONN", ask_server(peers[0].get()));
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_client_get_pidfd(&s.client[1])));
  const int lonely = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  ASSERT_EQ(0, comm_socket_v4_connect_use_socketpair(peers[0].get(), lonely));
  EXPECT_EQ("-1 ENOTCONN", ask_server(peers[0].get()));
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_end_sending(peers[0].get())));
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
  EXPECT_EQ("-1 EMFILE",
            with_descriptor_limit(lowest_free_descriptor(), [&] { return reserve(1); }));
  const std::string warning =
      "WARNING: accept_connection() no descriptors left, closing new connections\n";
  EXPECT_EQ("0", reserve(1));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(Outcome(0, EAGAIN), accept_without_any()) << "nobody waits";
    for (const std::string& told : {warning, std::string()}) {
      knock();
      EXPECT_EQ(Outcome(0, EMFILE), accept_without_any());
      EXPECT_EQ(told, log());
      await_end(peers.back()->socket_fd);
    }
    EXPECT_EQ(1, comm_socket_v4_is_open(&s));
    join();
  }
  // Somebody else has taken the reserve: the connection waits on.
  knock();
  Faults lost;
  lost.fail(Call::accept4, EMFILE, 1, 2);
  EXPECT_EQ(Outcome(0, EMFILE), lost.during(accepts));
  EXPECT_EQ("", log());
  EXPECT_NE(nullptr, accept());
  EXPECT_EQ("0", reserve(0));
  knock();
  EXPECT_EQ(Outcome(0, EMFILE), accept_without_any());
  EXPECT_EQ(0, comm_socket_v4_is_open(&s));
}

TEST_F(SettingsTest, ADescriptorSaysWhenAPendingConnectIsWorthATry) {
  knock();
  const Endpoint late = make_endpoint();
  comm_socket_v4* const c = late.get();
  EXPECT_EQ("-1 EINVAL", answered(comm_socket_v4_get_connect_fd(c)));
  comm_socket_v4_set_connect_timeout_routine(c, 1);
  ASSERT_EQ(0, comm_socket_v4_connect_to(c, s.socket_path.c_str()));
  const int fd = comm_socket_v4_get_connect_fd(c);
  EXPECT_EQ(std::pair(fd, FD_CLOEXEC),
            std::pair(comm_socket_v4_get_connect_fd(c), fcntl(fd, F_GETFD)));
  for (int tries = 0; tries < 2; ++tries) {
    EXPECT_TRUE(is_readable(fd, -1));
    EXPECT_EQ(0, comm_socket_v4_connect_check_pending(c));
  }
  EXPECT_NE(nullptr, accept());
  EXPECT_TRUE(is_readable(fd, -1));
  EXPECT_EQ(1, comm_socket_v4_connect_check_pending(c));
  EXPECT_FALSE(is_readable(fd, 30));
  EXPECT_EQ("-1 EINVAL", answered(comm_socket_v4_get_connect_fd(c)));
  comm_socket_v4_close(c);
  EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

}  // namespace
