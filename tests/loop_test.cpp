// The application's loop: idle, retrieval and waits.
#include <array>
#include <climits>
#include <random>

#include "connections.h"

namespace {

// At the server and its first client.
enum Wait { server_reads, client_reads, client_writes, server_writes };
constexpr Wait kWaits[] = {server_reads, client_reads, client_writes, server_writes};
constexpr const char* kNames[] = {"server_from_client_readable", "client_from_server_readable",
                                  "wait_for_client_to_server_writeable",
                                  "wait_for_server_to_client_writeable"};
using Answers = std::array<int, 4>;  // in this order

class LoopTest : public ServerTest {
 protected:
  int wait(Wait which, unsigned long deadline = ULONG_MAX) {
    if (which == server_reads) return comm_socket_v4_server_from_client_readable(&s, deadline);
    if (which == server_writes)
      return comm_socket_v4_wait_for_server_to_client_writeable(record(), deadline);
    return which == client_reads
               ? comm_socket_v4_client_from_server_readable(client(), deadline)
               : comm_socket_v4_wait_for_client_to_server_writeable(client(), deadline);
  }
  Answers waits(unsigned long deadline = ULONG_MAX) {
    Answers answers;
    for (const Wait which : kWaits) answers[which] = wait(which, deadline);
    return answers;
  }
  // The slot that the next packet comes from.
  unsigned long next_sender() {
    comm_socket_v4_client* from = &s.client[0];
    const CommPacket p(comm_socket_v4_server_get_packet(&s, &from));
    EXPECT_EQ(p == nullptr, from == nullptr);
    return comm_socket_v4_client_ptr2index(from);
  }
};

// --- Idle and retrieval -------------------------------------------------------------------------

TEST_F(LoopTest, AnIdlePassReadsFromHalfOfTheSlotsInRotation) {
  const std::pair<std::size_t, Numbers> rows[] = {
      {16, {0, 8, 0}}, {200, {0, 100}}, {5, {0, 3, 1, 4, 2, 0}}};
  for (const auto& [slots, cursors] : rows) {
    open_server();
    s.client.resize(slots);
    join(slots);
    for (const unsigned long cursor : cursors) {
      EXPECT_EQ(cursor, s.client_idlescan);
      for (std::size_t i = 0; i < slots; ++i) send_from(i);
      EXPECT_EQ(0, comm_socket_v4_idle(&s));
      for (std::size_t i = 0; i < slots; ++i) {
        const CommPacket p(std::exchange(s.client[i].next_packet, nullptr));
        EXPECT_EQ((i + slots - cursor) % slots < (slots + 1) / 2, p != nullptr) << i;
      }
    }
  }
  s.flags.idle_enabled = client()->flags.idle_enabled = 0;
  send_to(0);
  EXPECT_EQ(0, comm_socket_v4_idle(&s));
  EXPECT_EQ(0, comm_socket_v4_idle(client()));
  EXPECT_EQ(3u, s.client_idlescan);
  EXPECT_EQ(nullptr, client()->next_packet);
}

// Clients of a table that is large enough for an epoll come, go and fall silent, and a copy of each
// connection outlives it.
TEST_F(LoopTest, ALargeTableIsServedInTurnWhateverBecomesOfItsClients) {
  constexpr std::size_t slots = 200, moved = 1, heir = 199;
  std::mt19937 random(1);
  for (const bool has_epoll : {true, false}) {
    std::vector<CommDescriptor> copies;
    std::vector<int> waiting(slots);  // packets, by slot
    const auto come = [&](std::size_t slot) {
      auto [peer, index] = ::join(&s);
      EXPECT_EQ(slot, index);
      peers[slot] = std::move(peer);
      copies.emplace_back(dup(s.client[slot].client_fd));
      waiting[slot] = 0;
    };
    const auto send = [&](std::size_t slot) { ++waiting[slot], send_from(slot); };
    const auto senders_in_turn = [&] {
      Numbers senders;
      std::size_t slot = s.client_getpktscan % slots;
      for (std::size_t quiet = 0; quiet < slots; slot = (slot + 1) % slots) {
        ++quiet;
        if (waiting[slot] == 0 || s.client[slot].halt != 0) continue;
        --waiting[slot];
        senders.push_back(slot);
        quiet = 0;
      }
      senders.push_back(COMM_V4_NO_INDEX);
      return senders;
    };
    Faults faults;
    faults.replace(Call::epoll_create1,
                   [=](auto& real, void*) { return has_epoll ? real() : (errno = EMFILE, -1); });
    faults.replace(Call::poll, [&](auto& real, void*) {
      return random() % 8 != 0 ? real() : (errno = ENOMEM, -1);
    });
    open_server();
    peers.resize(slots);
    s.client.resize(slots);
    for (std::size_t slot = 0; slot < slots; ++slot) come(slot);
    for (int round = 0; round < 500; ++round) {
      for (std::size_t left = random() % 5; left > 0; --left) send(random() % slots);
      const std::size_t slot = random() % slots;
      if (round % 4 == 0) release(slot), come(slot);
      if (round % 4 == 1) s.client[slot].halt = static_cast<int>(random() % 2);
      if (round == 150)
        for (std::size_t each = 0; each < slots; ++each) send(each);
      if (round == 200) s.client_getpktscan = 5 * slots;
      // Behind the server's back: its descriptor is closed, and the copy is still told of; it gets
      // another number, and the next client the old one.
      if (round == 250) close(s.client[slot].client_fd), release(slot), come(slot);
      if (round == 300) {
        int& fd = s.client[moved].client_fd;
        const int before = std::exchange(fd, fcntl(fd, F_DUPFD_CLOEXEC, 900));
        release(heir), close(before), come(heir);
      }
      if (round == 301) release(moved), come(moved);
      if (round > 301) send(heir);
      const Numbers expected = senders_in_turn();
      Numbers senders;
      while (senders.empty() || senders.back() != COMM_V4_NO_INDEX)
        senders.push_back(faults.during([this] { return next_sender(); }));
      ASSERT_EQ(expected, senders) << round;
    }
  }
}

TEST_F(LoopTest, AForkedChildAndAnyFailureLeaveALargeTableItsEpollOrDoWithout) {
  join(100);
  const auto expect_packet = [&](std::size_t slot) {
    send_from(slot);
    EXPECT_EQ(slot, next_sender());
    EXPECT_EQ(COMM_V4_NO_INDEX, next_sender());
  };
  const int epoll = static_cast<int>(lowest_free_descriptor());
  expect_packet(50);
  EXPECT_EQ(FD_CLOEXEC, fcntl(epoll, F_GETFD));
  Peer([&] {
    release(50);
    EXPECT_EQ(COMM_V4_NO_INDEX, next_sender());
  });
  expect_packet(50);
  knock();
  EXPECT_NE(nullptr, with_descriptor_limit(lowest_free_descriptor(), [this] { return accept(); }))
      << "the epoll has its descriptor";
  Faults without;
  without.during([&] { expect_packet(80); });
  EXPECT_EQ(0u, without.count(Call::epoll_create1));

  for (unsigned kth = 1, fired = 1; fired > 0; ++kth) {
    open_server();
    join(100);
    send_from(60);
    Faults faults;
    faults.fail_any(kth, ENOMEM,
                    {Call::epoll_create1, Call::epoll_ctl, Call::epoll_wait, Call::operator_new});
    const unsigned long sender = faults.during([&] { return next_sender(); });
    fired = faults.fired();
    const bool lacks_memory = fired > 0 && faults.failed() == Call::operator_new;
    EXPECT_EQ(60u, lacks_memory && sender != 60 ? next_sender() : sender) << kth;
    expect_packet(90);
  }
}

TEST_F(LoopTest, AHaltedClientIsLeftAloneAndAPendingResponseHoldsPacketsBack) {
  join();
  const CommPacket response = make_packet();
  const auto expect_none = [&](int halt, comm_socket_v4_packet* pending, bool is_read) {
    record()->halt = halt;
    record()->pending_response_packet = pending;
    EXPECT_EQ(COMM_V4_NO_INDEX, next_sender());
    EXPECT_EQ(is_read, record()->next_packet != nullptr);
  };
  send_from(0);
  expect_none(1, nullptr, false);
  expect_none(0, response.get(), true);
  expect_none(1, nullptr, true);
  record()->halt = 0;
  EXPECT_EQ(0u, next_sender());
}

TEST_F(LoopTest, IdleTellsWhatIsClosedAndHow) {
  join();
  comm_socket_v4_client stray = *record();
  send_from(0);
  EXPECT_NE(nullptr, CommPacket(comm_socket_v4_client_get_packet(&stray)));
  stray.status.error = 1;
  EXPECT_EQ("-1 EINVAL", answered(comm_socket_v4_client_idle(&stray)));
  stray.status.disconnected = 1;
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_client_idle(&stray)));
  stray.client_fd = -1;
  EXPECT_EQ("-1 EBADF", answered(comm_socket_v4_client_idle(&stray)));
  release(0);
  await_end(client()->socket_fd);
  EXPECT_EQ(nullptr, comm_socket_v4_client_get_packet_from_server(client()));
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_idle(client())));
  EXPECT_EQ("-1 EBADF", answered(comm_socket_v4_idle_clientside(client())));
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_idle(nullptr)));
  EXPECT_EQ(nullptr, comm_socket_v4_client_get_packet_from_server(nullptr));
  EXPECT_EQ("BUG: client_idle() while closed\nBUG: idle_clientside() while closed\n", log());
}

// --- Waits --------------------------------------------------------------------------------------

TEST_F(LoopTest, AWaitOnWhatIsClosedOrOfTheWrongKindSaysNothing) {
  join();
  const auto wait_on = [](auto* call, auto* what) {
    EXPECT_EQ(Outcome(-1, errno_before), outcome([&] { return call(what, ULONG_MAX); }));
  };
  wait_on(comm_socket_v4_client_from_server_readable, &s);
  record()->status.disconnected = 1;
  for (comm_socket_v4_client* const c : {record(), {}})
    wait_on(comm_socket_v4_wait_for_server_to_client_writeable, c);
  comm_socket_v4_close(&s);
  for (comm_socket_v4* const c : {&s, {}})
    for (auto* const wait :
         {comm_socket_v4_server_from_client_readable, comm_socket_v4_client_from_server_readable,
          comm_socket_v4_wait_for_client_to_server_writeable})
      wait_on(wait, c);
  EXPECT_EQ("", log());
}

TEST_F(LoopTest, TheDeadlineComesBeforeAWaitingPacketAtTheServerAndBehindItAtTheClient) {
  join();
  EXPECT_EQ((Answers{0, 0, 0, 0}), waits(0));
  for (const Wait which : {server_reads, client_reads}) {
    const unsigned long deadline = in_ms(120);  // more microseconds than have five digits
    EXPECT_EQ(0, wait(which, deadline));
    EXPECT_LE(deadline, in_ms(0));
  }
  send_from(0);
  send_to(0);
  EXPECT_EQ(0, comm_socket_v4_client_idle(record()));
  EXPECT_EQ((Answers{0, 1, 0, 0}), waits(0));
  EXPECT_EQ((Answers{1, 1, 1, 1}), waits());
  EXPECT_EQ(0u, next_sender());
  knock();
  EXPECT_EQ(1, wait(server_reads));
  EXPECT_EQ(-1, s.client[1].client_fd) << "no wait accepts";
  EXPECT_EQ(&s.client[1], accept());
  s.flags.idle_enabled = 0;
  int& fd = record()->client_fd;
  close(std::exchange(fd, fcntl(fd, F_DUPFD_CLOEXEC, 900)));
  send_from(0);
  EXPECT_EQ(1, wait(server_reads)) << "by the highest, not the last one";
  send_from(1);
  EXPECT_EQ(1, wait(server_reads)) << "two are ready";
}

TEST_F(LoopTest, ASignalEndsAWaitAndAnotherFailureOfSelectIsReported) {
  join();
  for (const Wait which : kWaits) {
    const auto fails = [&](int error) {
      return told([&] { return failing(Call::select, error, [&] { return wait(which); }); });
    };
    EXPECT_EQ(Told(-1, ENOMEM,
                   {std::string("ERROR: ") + kNames[which] +
                    "() select() error Cannot allocate memory\n"}),
              fails(ENOMEM));
    EXPECT_EQ(Told(0, EINTR, {}), fails(EINTR));
  }
}

TEST_F(LoopTest, AnIdleThatFailsOrClosesEndsTheWait) {
  for (const Wait which : {client_reads, client_writes}) {
    open_server();
    join(2);
    release(0);
    await_end(client()->socket_fd);
    EXPECT_EQ("-1 ENOTCONN", answered(wait(which)));
    peers[0].swap(peers[1]);
    client()->set_recv_cb([](comm_socket_v4* c, auto*) { return comm_socket_v4_close(c); });
    send_to(1);
    EXPECT_EQ(-1, wait(which));
  }
  EXPECT_EQ(
      R"(BUG: wait_for_client_to_server_readable() idle() did not signal error but socket was closed----known to cause a crash

BUG: wait_for_client_to_server_writeable() idle() did not signal error but socket was closed----known to cause a crash

)",
      log());
}

// poll(2) says nothing of a listening socket, and a read from it fails.
TEST_F(LoopTest, AWaitOnASocketWithoutPeerFailsAsItsReadDoes) {
  peers.push_back(make_endpoint());
  ASSERT_EQ(0, comm_socket_v4_connect_use_socketpair(client(), bound_socket(path())));
  for (const Wait which : {client_reads, client_writes})
    EXPECT_EQ("-1 EINVAL", answered(wait(which)));
}

TEST_F(LoopTest, DescriptorsFrom1024OnWorkAndLowerOnesNeedNoMemory) {
  join();
  s.flags.idle_enabled = client()->flags.idle_enabled = 0;
  // Without a deadline, except of those that are not ready.
  const auto expect_waits = [&](const Answers& expected) {
    Answers answers;
    for (const Wait which : kWaits)
      answers[which] = wait(which, expected[which] == 1 ? ULONG_MAX : in_ms(2));
    EXPECT_EQ(expected, answers);
  };
  const auto move_to = [&](int number, int step) {
    for (int* const fd : {&client()->socket_fd, &s.client[0].client_fd, &s.socket_fd}) {
      close(std::exchange(*fd, fcntl(*fd, F_DUPFD_CLOEXEC, number)));
      EXPECT_EQ(number, *fd);
      number += step;
    }
    return 0;
  };
  with_descriptor_limit(4000, [&] { return move_to(1021, 1); });
  Faults counted;
  counted.during([&] { expect_waits({0, 0, 1, 1}); });
  EXPECT_EQ("select 4", counted.calls());
  with_descriptor_limit(4000, [&] { return move_to(1024, 1000); });
  expect_waits({0, 0, 1, 1});
  for (const Wait which : kWaits)
    EXPECT_EQ(-1, failing(Call::malloc, EIO, [&] { return wait(which); }));
  while (send_from(0) > 0) {
  }
  expect_waits({1, 0, 0, 1});
}

}  // namespace
