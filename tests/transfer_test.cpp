// One packet over one connection: receiving and sending, at a server and at a client.
#include <bit>

#include "connections.h"

namespace {

std::function<int(comm_socket_v4_packet*)> callback;
template <class End>
int call_back(End*, comm_socket_v4_packet* p) {
  return callback ? callback(p) : 0;
}

std::string replaced(std::string text, const std::string& old, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(old, at)) != text.npos; at += by.size())
    text.replace(at, old.size(), by);
  return text;
}

// The end under test is the server's or the client's.
class TransferTest : public ServerTest, public testing::WithParamInterface<bool> {
 protected:
  TransferTest() { connect(); }
  ~TransferTest() override { callback = nullptr; }

  const bool at_server = GetParam();
  comm_socket_v4_packet** slot = nullptr;
  int fd = -1;

  void connect() {
    open_server();
    join();
    slot = at_server ? &record()->next_packet : &client()->next_packet;
    fd = at_server ? record()->client_fd : client()->socket_fd;
    if (at_server) return record()->set_recv_cb(call_back);
    client()->set_recv_cb(call_back);
    comm_socket_v4_debug_logging(client());
    comm_socket_v4_normal_logging(&s);
  }
  int send(bool to_client, const CommPacket& p) {
    return to_client ? send_to(0, p) : send_from(0, p);
  }
  int send(const CommPacket& p) { return send(at_server, p); }
  int peer_sends(const CommPacket& p) { return send(!at_server, p); }
  void peer_leaves() {
    at_server ? void(comm_socket_v4_close(client())) : release(0);
    await_end(fd);
  }
  int read() {
    return at_server ? comm_socket_v4_client_idle(record()) : comm_socket_v4_idle(client());
  }
  CommPacket take() { return CommPacket(std::exchange(*slot, nullptr)); }
  CommPacket peer_takes() {
    return at_server ? retrieve(client()) : CommPacket(comm_socket_v4_client_get_packet(record()));
  }
  std::string by_side(const char* at_a_server, const char* at_a_client) const {
    return at_server ? at_a_server : at_a_client;
  }
  void expect_log(const std::string& expected) {
    const std::string printed = replaced(log(), "fd=" + std::to_string(fd) + " ", "fd=N ");
    EXPECT_EQ(expected, replaced(printed, by_side("_to_client", "_to_server"), "_to_X"));
  }
  // Of a read: its lines, its answer, and what the next one finds where a packet waits if one can.
  // Then there is a new connection.
  void expect_read(const std::string& outcome, const std::string& lines, int answer,
                   int line = __builtin_LINE()) {
    const std::string answer_text = answered(answer);
    const testing::ScopedTrace caller(__FILE__, line, "the read");
    expect_log(lines);
    EXPECT_EQ(nullptr, *slot);
    callback = nullptr;
    peer_sends(ping_packet());
    const bool ended = read() < 0 && at_server == (fcntl(fd, F_GETFD) >= 0);
    EXPECT_EQ(ended && at_server ? record() : nullptr, comm_socket_v4_get_disconnected_client(&s));
    EXPECT_EQ(ended && at_server && answer_text != "-1 ENOTCONN", record()->status.error);
    EXPECT_EQ(outcome, answer_text + (*slot ? ", then a packet" : ended ? ", then the end" : "?"));
    connect();
  }
  // Of a send: its answer, what became of the descriptors of p, and its lines.
  void expect_send(const std::string& outcome, int answer, const CommPacket& p = nullptr,
                   const std::string& lines = "", int line = __builtin_LINE()) {
    const std::string answer_text = answered(answer);
    const testing::ScopedTrace caller(__FILE__, line, "the send");
    const Numbers files = p != nullptr ? files_of(p) : Numbers{};
    EXPECT_EQ(outcome, answer_text + (files.empty() ? "" : files[1] ? " kept" : " closed"));
    expect_log(lines);
    errno = 0;
  }
};
INSTANTIATE_TEST_SUITE_P(At, TransferTest, testing::Bool(),
                         [](auto& side) { return side.param ? "Server" : "Client"; });

// --- Receiving ----------------------------------------------------------------------------------

TEST_P(TransferTest, AReadThatFailsLosesNothingOrEndsTheConnection) {
  const auto failing_read = [this](Call call, int error, unsigned nth = 1) {
    peer_sends(ping_packet());
    const auto body = [this] { return read(); };
    return failing(call, error, body, nth);
  };
  const std::string no_packet = "DEBUG: client_idle() fd=N cannot create packet\n";
  expect_read("-1 ENOMEM, then a packet", no_packet,
              failing_read(Call::operator_new, EIO, 2));  // room for descriptors, kept afterwards
  expect_read("-1 ENOMEM, then a packet", no_packet, failing_read(Call::operator_new, EIO));
  expect_read("-1 ENOMEM, then a packet", "DEBUG: client_idle() fd=N cannot resize packet buffer\n",
              failing_read(Call::malloc, EIO));
  expect_read("-1 EAGAIN, then a packet", "WARNING: ioctl(FIONREAD) returns EWOULDBLOCK?\n",
              failing_read(Call::ioctl, EAGAIN));
  expect_read("-1 EIO, then a packet", "ERROR: ioctl(FIONREAD) returned error Input/output error\n",
              failing_read(Call::ioctl, EIO));
  expect_read("0, then a packet", "", failing_read(Call::recvmsg, EAGAIN));
  expect_read("0, then a packet", "", failing_read(Call::recvmsg, EINTR));
  expect_read("-1 EIO, then the end",
              "ERROR: client_idle() fd=N recv error Input/output error\n" +
                  by_side("DEBUG: client_disconnect = 0\n", ""),
              failing_read(Call::recvmsg, EIO));
  send(ping_packet());
  peer_leaves();  // with a packet unread
  expect_read("-1 ECONNRESET, then the end",
              by_side("DEBUG: client_disconnect = 0\n",
                      "ERROR: client_idle() fd=N recv error Connection reset by peer\n"),
              read());
}

TEST_P(TransferTest, TheEndOfTheStreamQueuesTheClientOrClosesTheEndpoint) {
  peer_leaves();
  expect_read("-1 ENOTCONN, then the end",
              by_side("DEBUG: client_idle() client[0] fd=N disconnected\n"
                      "DEBUG: client_disconnect = 0\n",
                      "DEBUG: client_idle() fd=N disconnected [client-side]\n"),
              read());
  Faults emptying;
  emptying.replace(Call::sendmsg, [](auto& real, void* message) {
    static_cast<msghdr*>(message)->msg_iov->iov_len = 0;
    return real();
  });
  emptying.during([this] { return peer_sends(carrier(2)); });
  peer_sends(ping_packet());
  expect_read("-1 ENOTCONN, then the end",
              "DEBUG: client_idle() received 2 file descriptors over SCM_RIGHTS\n" +
                  by_side(R"(DEBUG: client_idle() client[0] fd=N disconnected
BUG: client_idle() fd=N disconnect but FIONREAD last returned 94, something strange?
DEBUG: client_disconnect = 0
)",
                          R"(DEBUG: client_idle() fd=N disconnected [client-side]
BUG: client_idle() fd=N disconnect [client-side] but FIONREAD last returned 94, something strange?
)"),
              read());
}

TEST_P(TransferTest, ADroppedPacketClosesItsDescriptorsAndTheNextOneArrives) {
  const auto drop = [this](const std::string& bytes, int answer, const std::string& lines,
                           rlim_t limit = 1000, const char* received = "2") {
    const CommPacket p = exact_packet(bytes);
    p->write_state = comm_socket_v4_packet::write_state_end;
    carrier(2)->attached_fd.swap(p->attached_fd);
    peer_sends(p);
    callback = [answer](auto*) { return answer; };
    const std::string came = std::string("DEBUG: client_idle() received ") + received +
                             " file descriptors over SCM_RIGHTS\n";
    expect_read("0, then a packet", came + lines,
                with_descriptor_limit(limit, [this] { return read(); }));
  };
  const std::string good = bytes_of(ping_packet().get());
  const std::string undecoded = "WARNING: client_idle() fd=N dropping packet, failed to decode\n";
  const std::string truncated =
      "WARNING: client_idle() fd=N returned packet is larger than buffer " +
      by_side("(server-side)\n\n", "(client-side)\n\n");
  drop(good, -1, "DEBUG: client_idle() fd=N dropping packet, callback refused it\n");
  drop(good.substr(0, 63), 0, undecoded);
  drop("x" + good, 7, "DEBUG: packet validation failed. sighdr wrong\n" + undecoded);
  drop(std::string(65552, 'x'), -1, truncated);
  drop(good, -1, truncated, lowest_free_descriptor() + 1, "1");
}

TEST_P(TransferTest, TheBufferFitsAndTheSlotHoldsOnePacket) {
  const std::size_t rows[][3] = {{100, 70, 186},
                                 {100, 40000, 132},
                                 {40000, 100, 40116},
                                 {65551, 100, 65552},
                                 {100, 65500, 132}};
  for (const auto& [first, second, allocated] : rows) {
    peer_sends(sized(first));
    peer_sends(sized(second));
    Faults counted;
    EXPECT_EQ(0, counted.during([this] { return read(); }));
    EXPECT_EQ(0, counted.during([this] {
      return at_server ? read() : comm_socket_v4_idle_clientside_read(client());
    }));
    EXPECT_EQ(1u, counted.count(Call::recvmsg));
    EXPECT_EQ(allocated, (*slot)->buffer_alloc);
    EXPECT_EQ(bytes_of(sized(first).get()), bytes_of(take().get()));
    EXPECT_EQ(0, read());
    EXPECT_EQ(second, take()->buffer_length);
  }
  fcntl(fd, F_SETFL, 0);
  EXPECT_EQ(0, read()) << "nothing waits, and the socket would block";
}

TEST_P(TransferTest, TheCallbackSeesThePacketAsItCame) {
  const auto state = [](const comm_socket_v4_packet* p) {
    return Numbers{p->stream_id, p->message_id, p->error_code, p->flags,
                   std::size_t(p->write_state)};
  };
  const CommPacket sent = rich_packet();
  EXPECT_TRUE(sent->attach_fd_to_send(0));
  callback = [&](comm_socket_v4_packet* p) {
    EXPECT_EQ(bytes_of(sent.get()), bytes_of(p));
    EXPECT_EQ(0, p->buffer[p->buffer_length]);
    EXPECT_EQ(1u, p->attached_fd_count());
    EXPECT_EQ((Numbers{0, 0, 0, 0, 0}), state(p));
    return 5;
  };
  const int on = 1;  // Who sent it comes along, too.
  setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
  peer_sends(sent);
  EXPECT_EQ(0, read());
  const CommPacket p = take();
  EXPECT_EQ((Numbers{0xFEDCBA9876543210, 0xAB, 5, 0xB, 4}), state(p.get()));
  EXPECT_EQ(0, fcntl(p->attached_fd[0], F_GETFD)) << "is inherited";
}

TEST_P(TransferTest, ACallbackMayThrowOrEndTheConnection) {
  callback = [](auto*) -> int { throw std::bad_alloc(); };
  peer_sends(carrier(1));
  EXPECT_THROW(read(), std::bad_alloc);
  EXPECT_EQ(nullptr, *slot);
  callback = [this](auto*) { return at_server ? release(0), 0 : comm_socket_v4_close(client()); };
  peer_sends(carrier(1));
  EXPECT_EQ(0, read());
  EXPECT_EQ(-1, fcntl(fd, F_GETFD));
  EXPECT_EQ(at_server, *slot == nullptr) << "close keeps a packet that waits";
}

TEST_P(TransferTest, AControlMessageOfAnImpossibleLengthIsNotFollowed) {
  for (const std::size_t length : {CMSG_LEN(0) - 1, CMSG_LEN(8)}) {
    Faults faults;
    faults.replace(Call::recvmsg, [length](auto& real, void* message) {
      const long received = real();
      msghdr& m = *static_cast<msghdr*>(message);
      m.msg_controllen = CMSG_LEN(4);
      *static_cast<cmsghdr*>(m.msg_control) = {length, SOL_SOCKET, SCM_RIGHTS};
      return received;
    });
    peer_sends(ping_packet());
    EXPECT_EQ(0, faults.during([this] { return read(); }));
    EXPECT_EQ(0u, take()->attached_fd_count());
  }
}

// --- Sending ------------------------------------------------------------------------------------

TEST_P(TransferTest, WhatCannotBeSentIsRefusedInThisOrder) {
  const CommPacket unwritten = make_packet(), empty = make_packet(), good = carrier(2);
  const std::string no_data =
      "DEBUG: send_to_X(): attempt to send packet with no data or no buffer\n";
  empty->write_state = comm_socket_v4_packet::write_state_end;
  expect_send("-1 EINVAL", send(nullptr));
  expect_send("-1 EINVAL", comm_socket_v4_packet_send_to_client(nullptr, good.get()));
  expect_send("-1 EINVAL", comm_socket_v4_packet_send_to_server(nullptr, good.get()));
  record()->status.error = 1;
  expect_send("-1 ENOTCONN kept", send(true, good), good);
  record()->status.disconnected = 1;
  expect_send("-1 ECONNRESET kept", send(true, good), good);
  comm_socket_v4_close(client());
  expect_send("-1 0", send(unwritten), nullptr,
              "DEBUG: send_to_X(): attempt to send packet without writing data to it\n");
  expect_send("-1 EINVAL", send(empty), nullptr, no_data);
  empty->resize_buffer(1);
  expect_send("-1 EINVAL", send(empty), nullptr, no_data);
  release(0);
  expect_send("-1 ENOTCONN kept", send(good), good,
              by_side("", "DEBUG: send_to_X(): attempt to send packet when socket is not open\n"));
  expect_send("-1 0", send(true, unwritten));
}

TEST_P(TransferTest, DescriptorsAreClosedOnceTheyAreOnTheirWay) {
  const CommPacket p = carrier(2), other = carrier(2);
  const auto send_p = [&] { return send(p); };
  expect_send("0 kept", failing(Call::sendmsg, EINTR, send_p), p);
  expect_send("-1 EIO kept", failing(Call::sendmsg, EIO, send_p), p);
  expect_send("-1 EMSGSIZE", send(sized(262144)));
  fcntl(fd, F_SETFL, 0);  // it must not block all the same
  while (send(ping_packet()) > 0) {
  }
  EXPECT_EQ(EAGAIN, errno);
  expect_send("0 kept", send(p), p);
  connect();
  peer_leaves();
  expect_send("-1 EPIPE kept", send(p), p);
  connect();
  Faults shortened;
  shortened.fail(Call::close, EIO);
  shortened.replace(Call::sendmsg,
                    [left = 2l](auto& real, void*) mutable { return real(), --left * 93; });
  errno = 0;
  expect_send("-1 0 closed", shortened.during(send_p), p,
              "WARNING: send_to_X(): packet was not fully written (93 out of 94)\n");
  expect_send("0 closed", shortened.during([&] { return send(other); }), other);
  expect_send("-1 EBADF closed", send(p), p);
}

TEST_P(TransferTest, WhatIsSentArrivesWithUpTo60DescriptorsInOrder) {
  static int completed;
  completed = 0;
  const CommPacket header = begin_request(), data = begin_request(), relayed = carrier(60);
  header->write_argv("a");
  header->attach_fd_to_send(0);
  data->write_data_binary(header->buffer, 5);
  peer_sends(relayed);
  read();
  const CommPacket received = take(), none = carrier(0), too_many = carrier(61);
  log();
  for (const CommPacket* const p : {&header, &data, &received, &none, &too_many}) {
    const Numbers files = p != &too_many ? files_of(*p) : Numbers{};
    Faults faults;
    faults.replace(Call::sendmsg, [&](auto& real, void* message) {
      EXPECT_EQ(!files.empty(), static_cast<msghdr*>(message)->msg_control != nullptr);
      return real();
    });
    (*p)->set_complete_cb([](auto*) { return ++completed; });
    EXPECT_LT(0, faults.during([&] { return send(*p); }));
    const CommPacket got = peer_takes();
    EXPECT_EQ(bytes_of(p->get()), bytes_of(got.get()));
    EXPECT_EQ(files, files_of(got));
    EXPECT_EQ(Numbers((*p)->attached_fd_count()), files_of(*p)) << "the sender's are closed";
  }
  EXPECT_EQ(2, completed);
  EXPECT_STREQ("a", header->argv_text(0));
  EXPECT_EQ(bytes_of(relayed.get()), bytes_of(received.get()));
  const std::string unfinished =
      "WARNING: send_to_X(): attempt to send packet that has been incompletely written. "
      "auto-terminating packet (state=";
  expect_log(unfinished + "1).\n" + unfinished + "2).\n" + unfinished + "4).\n" +
             "WARNING: send_to_X(): too many file descriptors, not sending\n");
}

// --- At the server only -------------------------------------------------------------------------

class ServerReadTest : public ServerTest {
 protected:
  ~ServerReadTest() override { callback = nullptr; }
};

// All of them are asked about at once; slot 5 is quiet then. Slot 2 keeps its client.
TEST_F(ServerReadTest, APassSeesWhatACallbackDidToTheClientsBehindIt) {
  join(6);
  s.client[2].set_recv_cb(call_back);
  callback = [this](auto*) { return join(), send_from(5), -1; };
  send_from(2, carrier(1));
  EXPECT_NE(nullptr, retrieve(&s));
  EXPECT_EQ(nullptr, retrieve(&s));
}

// The descriptor's number belongs to another connection by then.
TEST_F(ServerReadTest, ASendFailsWhenTheCompletionCallbackEndedTheConnection) {
  static std::function<void()> complete;
  const CommEndpoint stranger = make_endpoint();
  join();
  knock();
  const auto send_ending = [](auto send, auto* to, const std::function<void()>& end) {
    const CommPacket p = begin_request();
    complete = end;
    p->set_complete_cb([](auto*) { return complete(), 0; });
    EXPECT_EQ("-1 EBADF", answered(send(to, p.get())));
  };
  send_ending(comm_socket_v4_packet_send_to_client, record(), [this] {
    release(0);
    s.client_next = 0;
    EXPECT_EQ(&s.client[0], accept());
  });
  send_ending(comm_socket_v4_packet_send_to_server, client(), [&] {
    comm_socket_v4_close(client());
    comm_socket_v4_connect_new_socketpair(stranger.get());
  });
  EXPECT_EQ(0, comm_socket_v4_idle(peers[1].get()));
  EXPECT_EQ(nullptr, peers[1]->next_packet) << "the packet reached a stranger";
}

TEST_F(ServerReadTest, ACallbackMayCloseTheServerThatIsReading) {
  callback = [this](auto*) { return comm_socket_v4_close(&s); };
  const std::pair<int, std::function<int()>> calls[] = {
      {0, [this] { return comm_socket_v4_idle(&s); }},
      {0, [this] { return retrieve(&s) != nullptr; }},
      {-1, [this] { return comm_socket_v4_server_from_client_readable(&s, ULONG_MAX); }}};
  for (const auto& [answer, call] : calls) {
    open_server();
    join(3);
    s.client[1].set_recv_cb(call_back);
    send_from(1, carrier(1));
    EXPECT_EQ(answer, call());
    EXPECT_EQ(0, comm_socket_v4_is_open(&s));
  }
}

// The list allocates now and then; a read allocates twice before it comes to the list.
TEST_F(ServerReadTest, WithoutMemoryForTheDisconnectListAClientStaysOpen) {
  join();
  comm_socket_v4_client& client = s.client[0];
  const std::string fd = "fd=" + std::to_string(client.client_fd);
  peers.clear();
  await_end(client.client_fd);
  const auto expect_refusal = [&](const std::string& text, auto* act, unsigned nth) {
    Faults faults;
    do {
      log();
      client.status = {};
      faults.fail(Call::operator_new, EIO, nth).during([&] { return act(&client); });
    } while (!client.client_is_open());
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(text, log());
  };
  const std::string queued = "DEBUG: client_disconnect = 0\n";
  expect_refusal(queued, comm_socket_v4_disconnect_client, 1);
  expect_refusal("DEBUG: client_idle() client[0] " + fd + " disconnected\n" + queued +
                     "DEBUG: client_idle() " + fd + " not able to add client to disconnect list\n",
                 comm_socket_v4_client_idle, 3);
}

TEST_F(ServerReadTest, ReceivedBytesAreJudgedAndCorruptedOnRequest) {
  const auto judge = [this](const CommPacket& p) {
    return comm_socket_v4_client_on_recv_packet(&s, p.get());
  };
  EXPECT_EQ(-1, judge(make_packet()));
  EXPECT_EQ(-1, judge(nullptr));
  EXPECT_EQ("", log());

  const std::string bytes = bytes_of(ping_packet().get());
  std::string hit(95, '\0');
  unsigned& bits = comm_socket_v4_recv_corrupt_debug;
  comm_socket_v4_shut_up(&s);
  for (bits = 1; bits < 1000; ++bits) {
    const CommPacket p = exact_packet(bytes);
    judge(p);
    unsigned flips = 0;
    for (std::size_t i = 0; i < hit.size(); ++i) {
      const auto changed = static_cast<unsigned char>(p->buffer[i] ^ bytes[i]);
      hit[i] = static_cast<char>(hit[i] | changed);
      flips += static_cast<unsigned>(std::popcount(changed));
    }
    EXPECT_LE(flips, bits);
    EXPECT_EQ(bits % 2, flips % 2);
  }
  bits = 0;
  EXPECT_EQ(std::string(94, '\xFF') + '\0', hit) << "any bit, but never of the NUL behind them";
}

}  // namespace
