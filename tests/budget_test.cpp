// What the library asks of the system and of the allocator, counted call by call: numbers that are
// the same on every machine.
#include <climits>

#include "connections.h"
#include "lib/endpoint_internal.h"

namespace {

comm_v4_internals& own(comm_socket_v4* c) { return comm_v4_internals::of(c); }

class BudgetTest : public ServerTest {
 protected:
  Packet packet;

  static std::string cost(const std::function<void()>& body) {
    Faults counted;
    counted.replace(Call::poll, [](auto& real, void* timeout) {
      EXPECT_EQ(0, *static_cast<int*>(timeout)) << "blocks";
      return real();
    });
    counted.replace(Call::select, [](auto&, void*) { return 0; });
    counted.during(body);
    return counted.calls();
  }
  void receive() { packet.reset(comm_socket_v4_server_get_packet(&s, nullptr)); }
};

TEST_F(BudgetTest, APacketCostsOneCallToSendTwoToReceiveAndEveryTimeTheSameMemory) {
  join();
  comm_socket_v4* const c = peers[0].get();
  const std::string came = "recvmsg 1, ioctl 1, malloc 1, operator_new 1";
  own(&s).descriptor_room.reserve(COMM_V4_MAX_SEND_FDS);
  own(c).descriptor_room.reserve(COMM_V4_MAX_SEND_FDS);
  own(&s).retrieved_last_time = 1;
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ("malloc 1, operator_new 3", cost([&] { packet = ping_packet(); }));
    EXPECT_EQ("sendmsg 1", cost([&] { comm_socket_v4_packet_send_to_server(c, packet.get()); }));
    EXPECT_EQ(came, cost([&] { receive(); }));
    EXPECT_EQ("poll 1", cost([&] { receive(); })) << "nothing, as the time before";
    packet = ping_packet();
    EXPECT_EQ("sendmsg 1",
              cost([&] { comm_socket_v4_packet_send_to_client(&s.client[0], packet.get()); }));
    EXPECT_EQ(came, cost([&] { packet.reset(comm_socket_v4_client_get_packet_from_server(c)); }));
    ASSERT_NE(nullptr, packet);
  }
}

TEST_F(BudgetTest, QuietClientsCostOnePollFor64BeyondTheFirstTwoAndAWaitOneSelect) {
  const struct {
    std::size_t clients;
    std::string receive, wait;
  } rows[] = {{1, "recvmsg 1, ioctl 1, malloc 1, operator_new 1", "select 1, poll 1"},
              {2, "recvmsg 2, ioctl 2, malloc 2, operator_new 2", "select 1, poll 1"},
              {3, "recvmsg 2, ioctl 2, poll 1, malloc 2, operator_new 2", "select 1, poll 1"},
              {66, "recvmsg 2, ioctl 2, poll 1, malloc 2, operator_new 2", "select 1, poll 2"},
              {67, "recvmsg 2, ioctl 2, poll 2, malloc 2, operator_new 2", "select 1, poll 2"}};
  own(&s).descriptor_room.reserve(COMM_V4_MAX_SEND_FDS);
  for (const auto& row : rows) {
    join(row.clients);
    // An idle pass over all of them, the first one first.
    s.client.resize(2 * row.clients);
    s.client_idlescan = s.client_getpktscan = 0;
    own(&s).retrieved_in_a_row = own(&s).retrieved_last_time + 1;
    EXPECT_EQ(row.receive, cost([&] { receive(); }));
    EXPECT_EQ(row.wait,
              cost([&] { comm_socket_v4_server_from_client_readable(&s, in_ms(1000000)); }));
  }
  const auto wait = [&](auto deadline) {
    return comm_socket_v4_client_from_server_readable(peers[0].get(), deadline);
  };
  EXPECT_EQ("select 1, poll 1", cost([&] { wait(in_ms(1000000)); }));
  Faults untimed;
  untimed.replace(Call::select, [](auto&, void* timer) { return timer == nullptr; });
  EXPECT_EQ(1, untimed.during([&] { return wait(ULONG_MAX); })) << "without a deadline";
}

}  // namespace
