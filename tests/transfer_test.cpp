// One packet over one connection: receiving and sending, at a server and at a client.
#include <bit>
#include <sstream>

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

  comm_socket_v4_client* record() { return &s.client[0]; }
  comm_socket_v4* client() { return peers[0].get(); }
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
  int send(bool to_client, const Packet& p) {
    return to_client ? comm_socket_v4_packet_send_to_client(record(), p.get())
                     : comm_socket_v4_packet_send_to_server(client(), p.get());
  }
  int send(const Packet& p) { return send(at_server, p); }
  int peer_sends(const Packet& p) { return send(!at_server, p); }
  void peer_leaves() {
    at_server ? void(comm_socket_v4_close(client())) : release(0);
    await_end(fd);
  }
  int read() {
    return at_server ? comm_socket_v4_client_idle(record()) : comm_socket_v4_idle(client());
  }
  Packet take() { return Packet(std::exchange(*slot, nullptr)); }
  Packet peer_takes() {
    return Packet(at_server ? comm_socket_v4_client_get_packet_from_server(client())
                            : comm_socket_v4_client_get_packet(record()));
  }
  // Compares with what was printed: lines that begin with "S: " at the server, "C: " at the client.
  void expect_log(const std::string& marked) {
    std::string expected;
    std::istringstream in(marked);
    for (std::string line; std::getline(in, line);) {
      if (line.rfind(at_server ? "C: " : "S: ", 0) == 0) continue;
      expected += line.substr(line.rfind(at_server ? "S: " : "C: ", 0) == 0 ? 3 : 0) + "\n";
    }
    const std::string printed = replaced(log(), "fd=" + std::to_string(fd) + " ", "fd=N ");
    EXPECT_EQ(expected, replaced(printed, at_server ? "_to_client" : "_to_server", "_to_X"));
  }
  // Prints the answer of a read, and what the next one finds where a packet waits if one can.
  void then_read(int answer) {
    const std::string first = answered(answer);
    EXPECT_EQ(nullptr, *slot);
    callback = nullptr;
    peer_sends(ping_packet());
    const bool ended = read() < 0 && at_server == (fcntl(fd, F_GETFD) >= 0);
    EXPECT_EQ(ended && at_server ? record() : nullptr, comm_socket_v4_get_disconnected_client(&s));
    EXPECT_EQ(ended && at_server && first != "-1 ENOTCONN", record()->status.error);
    fprintf(stderr, "%s, then %s\n", first.c_str(), *slot ? "a packet" : ended ? "the end" : "?");
    connect();
  }
  // Prints the answer of a send, and what became of the descriptors.
  void then_look(int answer, const Packet& p = nullptr) {
    const std::string text = answered(answer);
    const Numbers files = p != nullptr ? files_of(p) : Numbers{};
    fprintf(stderr, "%s%s\n", text.c_str(), files.empty() ? "" : files[1] ? " kept" : " closed");
    errno = 0;
  }
};
INSTANTIATE_TEST_SUITE_P(At, TransferTest, testing::Bool(),
                         [](auto& side) { return side.param ? "Server" : "Client"; });

// --- Receiving ----------------------------------------------------------------------------------

TEST_P(TransferTest, AReadThatFailsLosesNothingOrEndsTheConnection) {
  const auto read_failing = [this](Call call, int error, unsigned nth = 1) {
    peer_sends(ping_packet());
    then_read(failing(
        call, error, [this] { return read(); }, nth));
  };
  read_failing(Call::operator_new, EIO, 2);  // room for descriptors, kept from then on
  read_failing(Call::operator_new, EIO);
  read_failing(Call::ioctl, EAGAIN);
  read_failing(Call::ioctl, EIO);
  read_failing(Call::malloc, EIO);
  read_failing(Call::recvmsg, EAGAIN);
  read_failing(Call::recvmsg, EINTR);
  read_failing(Call::recvmsg, EIO);
  send(ping_packet());
  peer_leaves();  // with a packet unread
  then_read(read());
  expect_log(R"(DEBUG: client_idle() fd=N cannot create packet
-1 ENOMEM, then a packet
DEBUG: client_idle() fd=N cannot create packet
-1 ENOMEM, then a packet
WARNING: ioctl(FIONREAD) returns EWOULDBLOCK?
-1 EAGAIN, then a packet
ERROR: ioctl(FIONREAD) returned error Input/output error
-1 EIO, then a packet
DEBUG: client_idle() fd=N cannot resize packet buffer
-1 ENOMEM, then a packet
0, then a packet
0, then a packet
ERROR: client_idle() fd=N recv error Input/output error
S: DEBUG: client_disconnect = 0
-1 EIO, then the end
C: ERROR: client_idle() fd=N recv error Connection reset by peer
S: DEBUG: client_disconnect = 0
-1 ECONNRESET, then the end
)");
}

TEST_P(TransferTest, TheEndOfTheStreamQueuesTheClientOrClosesTheEndpoint) {
  peer_leaves();
  then_read(read());
  Faults emptying;
  emptying.replace(Call::sendmsg, [](auto& real, void* message) {
    static_cast<msghdr*>(message)->msg_iov->iov_len = 0;
    return real();
  });
  emptying.during([this] { return peer_sends(carrier(2)); });
  peer_sends(ping_packet());
  then_read(read());
  expect_log(R"(S: DEBUG: client_idle() client[0] fd=N disconnected
S: DEBUG: client_disconnect = 0
C: DEBUG: client_idle() fd=N disconnected [client-side]
-1 ENOTCONN, then the end
DEBUG: client_idle() received 2 file descriptors over SCM_RIGHTS
S: DEBUG: client_idle() client[0] fd=N disconnected
S: BUG: client_idle() fd=N disconnect but FIONREAD last returned 94, something strange?
S: DEBUG: client_disconnect = 0
C: DEBUG: client_idle() fd=N disconnected [client-side]
C: BUG: client_idle() fd=N disconnect [client-side] but FIONREAD last returned 94, something strange?
-1 ENOTCONN, then the end
)");
}

TEST_P(TransferTest, ADroppedPacketClosesItsDescriptorsAndTheNextOneArrives) {
  const auto drop = [this](const std::string& bytes, int answer, rlim_t limit = 1000) {
    const Packet p = exact_packet(bytes);
    p->write_state = comm_socket_v4_packet::write_state_end;
    carrier(2)->attached_fd.swap(p->attached_fd);
    peer_sends(p);
    callback = [answer](auto*) { return answer; };
    then_read(with_descriptor_limit(limit, [this] { return read(); }));
  };
  const std::string good = bytes_of(ping_packet().get());
  drop(good, -1);
  drop(good.substr(0, 63), 0);
  drop("x" + good, 7);
  drop(std::string(65552, 'x'), -1);
  drop(good, -1, lowest_free_descriptor() + 1);
  expect_log(R"(DEBUG: client_idle() received 2 file descriptors over SCM_RIGHTS
DEBUG: client_idle() fd=N dropping packet, callback refused it
0, then a packet
DEBUG: client_idle() received 2 file descriptors over SCM_RIGHTS
WARNING: client_idle() fd=N dropping packet, failed to decode
0, then a packet
DEBUG: client_idle() received 2 file descriptors over SCM_RIGHTS
DEBUG: packet validation failed. sighdr wrong
WARNING: client_idle() fd=N dropping packet, failed to decode
0, then a packet
DEBUG: client_idle() received 2 file descriptors over SCM_RIGHTS
S: WARNING: client_idle() fd=N returned packet is larger than buffer (server-side)
C: WARNING: client_idle() fd=N returned packet is larger than buffer (client-side)

0, then a packet
DEBUG: client_idle() received 1 file descriptors over SCM_RIGHTS
S: WARNING: client_idle() fd=N returned packet is larger than buffer (server-side)
C: WARNING: client_idle() fd=N returned packet is larger than buffer (client-side)

0, then a packet
)");
}

TEST_P(TransferTest, TheBufferFitsAndTheSlotHoldsOnePacket) {
  const auto sized = [](std::size_t length) {
    const std::vector<unsigned char> zeros(length - 68);
    Packet p = begin_request();
    p->write_data_binary(zeros.data(), zeros.size());
    p->write_end();
    return p;
  };
  const std::size_t rows[][3] = {{100, 70, 186},
                                 {100, 40000, 132},
                                 {40000, 100, 40116},
                                 {65551, 100, 65552},
                                 {100, 65500, 132}};
  for (const auto& [first, second, allocated] : rows) {
    EXPECT_EQ(first + second, std::size_t(peer_sends(sized(first)) + peer_sends(sized(second))));
    Faults counted;
    EXPECT_EQ(0, counted.during([this] { return read() + read(); }));
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
  const Packet sent = rich_packet();
  EXPECT_TRUE(sent->attach_fd_to_send(0));
  callback = [&](comm_socket_v4_packet* p) {
    EXPECT_EQ(bytes_of(sent.get()), bytes_of(p));
    EXPECT_EQ(0, p->buffer[p->buffer_length]);
    EXPECT_EQ(1u, p->attached_fd_count());
    EXPECT_EQ((Numbers{0, 0, 0, 0, 0}), state(p));
    return 5;
  };
  peer_sends(sent);
  EXPECT_EQ(0, read());
  const Packet p = take();
  EXPECT_EQ((Numbers{0xFEDCBA9876543210, 0xAB, 5, 0xB, 4}), state(p.get()));
  EXPECT_EQ(0, fcntl(p->attached_fd[0], F_GETFD)) << "is inherited";
}

TEST_P(TransferTest, ACallbackMayKeepThePacketThrowOrEndTheConnection) {
  Packet kept;
  callback = [&](comm_socket_v4_packet* p) { return p->addref(), kept.reset(p), -1; };
  peer_sends(carrier(1));
  EXPECT_EQ(0, read());
  EXPECT_TRUE(*slot == nullptr && kept->refcount == 1);
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
  const Packet unwritten = make_packet(), empty = make_packet(), good = carrier(2);
  empty->write_state = comm_socket_v4_packet::write_state_end;
  then_look(send(nullptr));
  then_look(comm_socket_v4_packet_send_to_client(nullptr, good.get()));
  then_look(comm_socket_v4_packet_send_to_server(nullptr, good.get()));
  record()->status.error = 1;
  then_look(send(true, good), good);
  record()->status.disconnected = 1;
  then_look(send(true, good), good);
  comm_socket_v4_close(client());
  then_look(send(unwritten));
  then_look(send(empty));
  empty->resize_buffer(1);
  then_look(send(empty));
  release(0);
  then_look(send(good), good);
  then_look(send(true, unwritten));
  expect_log(R"(-1 EINVAL
-1 EINVAL
-1 EINVAL
-1 ENOTCONN kept
-1 ECONNRESET kept
DEBUG: send_to_X(): attempt to send packet without writing data to it
-1 0
DEBUG: send_to_X(): attempt to send packet with no data or no buffer
-1 EINVAL
DEBUG: send_to_X(): attempt to send packet with no data or no buffer
-1 EINVAL
C: DEBUG: send_to_X(): attempt to send packet when socket is not open
-1 ENOTCONN kept
-1 0
)");
}

TEST_P(TransferTest, DescriptorsAreClosedOnceTheyAreOnTheirWay) {
  const Packet p = carrier(2), other = carrier(2), big = begin_request();
  const std::vector<unsigned char> zeros(262144);
  big->write_data_binary(zeros.data(), zeros.size());
  big->write_end();
  Faults shortened;
  shortened.replace(Call::sendmsg,
                    [left = 2l](auto& real, void*) mutable { return real(), --left * 93; });
  const auto send_it = [&] { return send(p); };
  then_look(failing(Call::sendmsg, EINTR, send_it), p);
  then_look(failing(Call::sendmsg, EIO, send_it), p);
  then_look(send(big));
  fcntl(fd, F_SETFL, 0);  // it must not block all the same
  while (send(ping_packet()) > 0) {
  }
  EXPECT_EQ(EAGAIN, errno);
  then_look(send_it(), p);
  connect();
  peer_leaves();
  then_look(send_it(), p);
  connect();
  shortened.fail(Call::close, EIO);
  then_look(shortened.during(send_it), p);
  then_look(shortened.during([&] { return send(other); }), other);
  then_look(send_it(), p);
  expect_log(R"(0 kept
-1 EIO kept
-1 EMSGSIZE
0 kept
-1 EPIPE kept
WARNING: send_to_X(): packet was not fully written (93 out of 94)
-1 0 closed
0 closed
-1 EBADF closed
)");
}

TEST_P(TransferTest, UpTo60DescriptorsGoAlongInOrder) {
  for (const std::size_t count : {0u, 2u, 60u, 61u}) {
    const bool go = count == 2 || count == 60;
    const Packet p = carrier(count);
    const Numbers files = go ? files_of(p) : Numbers{};
    Faults faults;
    faults.replace(Call::sendmsg, [go](auto& real, void* message) {
      EXPECT_EQ(go, static_cast<msghdr*>(message)->msg_control != nullptr);
      return real();
    });
    EXPECT_EQ(94, faults.during([&] { return send(p); }));
    EXPECT_EQ(std::vector<int>(count, -1), p->attached_fd);
    EXPECT_EQ(files, files_of(peer_takes()));
  }
  expect_log("WARNING: send_to_X(): too many file descriptors, not sending\n");
}

TEST_P(TransferTest, AnUnfinishedPacketIsEndedAndAReceivedOneSentOnUnchanged) {
  static int completed;
  completed = 0;
  const Packet header = begin_request(), data = begin_request(), relayed = carrier(2);
  header->write_argv("a");
  header->attach_fd_to_send(0);
  data->write_data_binary(header->buffer, 5);
  peer_sends(relayed);
  read();
  const Packet received = take();
  for (const Packet* const p : {&header, &data, &received}) {
    const Numbers files = files_of(*p);
    (*p)->set_complete_cb([](auto*) { return ++completed; });
    EXPECT_LT(0, send(*p));
    const Packet got = peer_takes();
    EXPECT_EQ(bytes_of(p->get()), bytes_of(got.get()));
    EXPECT_EQ(files, files_of(got));
  }
  EXPECT_EQ(2, completed);
  EXPECT_STREQ("a", header->argv_text(0));
  EXPECT_EQ(bytes_of(relayed.get()), bytes_of(received.get()));
  expect_log(R"(DEBUG: client_idle() received 2 file descriptors over SCM_RIGHTS
WARNING: send_to_X(): attempt to send packet that has been incompletely written. auto-terminating packet (state=1).
WARNING: send_to_X(): attempt to send packet that has been incompletely written. auto-terminating packet (state=2).
WARNING: send_to_X(): attempt to send packet that has been incompletely written. auto-terminating packet (state=4).
)");
}

// --- At the server only -------------------------------------------------------------------------

class ServerReadTest : public ServerTest {
 protected:
  ~ServerReadTest() override { callback = nullptr; }
  void send_from(std::size_t peer) {
    comm_socket_v4_packet_send_to_server(peers[peer].get(), carrier(1).get());
  }
  // One that waits takes the place of the client, and the number of its descriptor, all within one
  // tick of the clock; it has sent.
  comm_socket_v4_client* replace(unsigned long index) {
    const std::uint64_t time = s.client[index].accept_time_us;
    send_from(peers.size() - 1);
    release(index);
    s.client_next = index;
    comm_socket_v4_client* const client = accept();
    client->accept_time_us = time;
    return client;
  }
};

// What was not validated leaves the slot, whatever the callback wrote into the record.
TEST_F(ServerReadTest, ACallbackMayWriteToItsRecord) {
  join();
  s.client[0].set_recv_cb([](comm_socket_v4_client* c, comm_socket_v4_packet* p) {
    c->accept_time_us = p->buffer[0] = 0;
    c->server = nullptr;
    return 0;
  });
  send_from(0);
  EXPECT_EQ(nullptr, comm_socket_v4_client_get_packet(&s.client[0]));
  EXPECT_EQ(nullptr, s.client[0].next_packet);
}

// Slot 2 is the first one of a window that is asked about at once; slot 5 is in it, and quiet then.
TEST_F(ServerReadTest, APassSeesWhatACallbackDidToTheClientsBehindIt) {
  for (const bool replaces : {false, true}) {
    open_server();
    join(16);
    knock();
    s.client[2].set_recv_cb(call_back);
    callback = [&](auto*) {
      const int fd = s.client[5].client_fd;
      if (!replaces) return send_from(5), -1;
      EXPECT_EQ(fd, replace(5)->client_fd);
      return -1;
    };
    send_from(2);
    EXPECT_NE(nullptr, Packet(comm_socket_v4_server_get_packet(&s, nullptr)));
    EXPECT_EQ(nullptr, Packet(comm_socket_v4_server_get_packet(&s, nullptr)));
  }
}

// The descriptor's number belongs to another connection by then.
TEST_F(ServerReadTest, ASendFailsWhenTheCompletionCallbackEndedTheConnection) {
  static std::function<void()> complete;
  const Endpoint stranger = make_endpoint();
  join();
  knock();
  const auto send_ending = [](auto send, auto* to, const std::function<void()>& end) {
    const Packet p = begin_request();
    complete = end;
    p->set_complete_cb([](auto*) { return complete(), 0; });
    EXPECT_EQ("-1 EBADF", answered(send(to, p.get())));
  };
  send_ending(comm_socket_v4_packet_send_to_client, &s.client[0], [this] { replace(0); });
  send_ending(comm_socket_v4_packet_send_to_server, peers[0].get(), [&] {
    comm_socket_v4_close(peers[0].get());
    comm_socket_v4_connect_new_socketpair(stranger.get());
  });
  EXPECT_EQ(0, comm_socket_v4_idle(peers[1].get()));
  EXPECT_EQ(nullptr, peers[1]->next_packet) << "the packet reached a stranger";
}

TEST_F(ServerReadTest, ACallbackMayCloseTheServerThatIsReading) {
  callback = [this](auto*) { return comm_socket_v4_close(&s); };
  for (const int call : {0, 1, 2}) {
    open_server();
    join(3);
    s.client[1].set_recv_cb(call_back);
    send_from(1);
    EXPECT_TRUE(call == 0   ? comm_socket_v4_idle(&s) == 0
                : call == 1 ? comm_socket_v4_server_get_packet(&s, nullptr) == nullptr
                            : comm_socket_v4_server_from_client_readable(&s, ULONG_MAX) == -1);
    EXPECT_FALSE(comm_socket_v4_is_open(&s));
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
  const std::string bytes = bytes_of(ping_packet().get()) + '\0';
  const auto judge = [&](const Packet& p) {
    return comm_socket_v4_client_on_recv_packet(&s, p.get());
  };
  const Packet good = exact_packet(bytes.substr(0, 94));
  EXPECT_EQ(0, judge(good));
  good->buffer[94] = 1;
  EXPECT_EQ(-1, judge(good)) << "no NUL behind the packet";
  good->buffer[94] = 0;
  good->buffer_alloc = 94;
  EXPECT_EQ(-1, judge(good)) << "no room for it";
  EXPECT_EQ(-2, judge(make_packet()) + judge(nullptr));
  EXPECT_EQ("", log());

  comm_socket_v4_shut_up(&s);
  unsigned& bits = comm_socket_v4_recv_corrupt_debug;
  std::string hit(bytes.size(), '\0');
  for (bits = 1; bits < 1000; ++bits) {
    const Packet p = exact_packet(bytes.substr(0, 94));
    judge(p);
    unsigned flips = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      const auto changed = static_cast<unsigned char>(p->buffer[i] ^ bytes[i]);
      hit[i] = static_cast<char>(hit[i] | changed);
      flips += static_cast<unsigned>(std::popcount(changed));
    }
    EXPECT_TRUE(flips <= bits && flips % 2 == bits % 2);
  }
  bits = 0;
  EXPECT_EQ(std::string(94, '\xFF') + '\0', hit) << "any bit, but never of the NUL behind them";
}

}  // namespace
