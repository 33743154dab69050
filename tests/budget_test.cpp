// What the library asks of the system and of the allocator, counted call by call: numbers that are
// the same on every machine.
#include <tarn_utils_v4/comm_loop.h>

#include <climits>

#include "connections.h"
#include "lib/spare_packets.h"

namespace {

class BudgetTest : public ServerTest {
 protected:
  using Step = std::function<void()>;

  CommPacket packet;
  const Step receive = [this] { packet = retrieve(&s); };
  const Step wait = [this] { comm_socket_v4_server_from_client_readable(&s, ULONG_MAX); };

  // The calls of a step. None may block, and an endless wait needs no timer.
  static std::string cost(const Step& step, unsigned limit = 1000) {
    Faults faults;
    faults.with_spares().fail_any(limit + 1);
    faults.replace(Call::poll, [](auto& real, void* timeout) {
      EXPECT_EQ(0, *static_cast<int*>(timeout));
      return real();
    });
    faults.replace(Call::select, [](auto&, void* timer) {
      EXPECT_EQ(nullptr, timer);
      return 0;
    });
    faults.during(step);
    EXPECT_EQ(0u, faults.fired()) << "more than " << limit << " calls: " << faults.calls();
    return faults.calls();
  }
};

TEST_F(BudgetTest, APacketCostsOneCallToSendTwoToReceiveAndTheMemoryOfTheOneBefore) {
  join();
  s.client.resize(1);  // every idle pass visits it
  const bool spares = spare_packets::are_kept;
  const std::string came =
      "recvmsg 1, ioctl 1, malloc 1" + std::string(spares ? "" : ", operator_new 1");
  const std::string built = spares ? "" : "malloc 1, operator_new 3";
  const std::pair<std::string, Step> steps[] = {
      {built, [&] { packet = ping_packet(); }},
      {"sendmsg 1", [&] { send_from(0, packet); }},
      {came, receive},
      {"poll 1", receive},  // nothing, as the time before
      {"select 1, poll 1", wait},
      {built, [&] { packet = ping_packet(); }},
      {"select 1, poll 1",
       [&] { comm_socket_v4_client_from_server_readable(client(), ULONG_MAX); }},
      {"sendmsg 1", [&] { send_to(0, packet); }},
      {came, [&] { packet = retrieve(client()); }}};
  for (const auto& step : steps) cost(step.second);  // makes room for descriptors, once
  for (int round = 0; round < 100; ++round)
    for (const auto& [calls, step] : steps) ASSERT_EQ(calls, cost(step));
}

TEST_F(BudgetTest, AQuietTableCostsFarFewerCallsThanItHasClients) {
  s.client.resize(64);
  for (const std::size_t clients : {64ul, 200ul}) {
    join(clients);
    cost(wait);  // takes newcomers in
    send_from(0);
    // The packet; then three retrievals that expect one more, as many as the time before, and none.
    for (const Step& step : {receive, receive, receive, receive, wait}) cost(step, 20);
    EXPECT_EQ(clients > 64 ? "epoll_wait 1" : "poll 1", cost(receive));
  }
  EXPECT_EQ("select 1, epoll_wait 1", cost(wait));
  const CommDescriptor copy(dup(s.client[9].client_fd));
  send_from(9);
  release(9);
  EXPECT_EQ("epoll_wait 1", cost(receive)) << "is told of who has gone";
  for (std::size_t i = 20; i < 160; ++i) send_from(i), s.client[i].halt = 1;
  send_from(190), cost(receive);
  EXPECT_NE(nullptr, packet) << "although there are more than it is told of";
  EXPECT_EQ(std::string::npos, cost(receive).find("epoll_wait")) << "is told of the same again";
  for (std::size_t i = 20; i < 160; ++i) s.client[i].halt = 0;
  for (int i = 0; i < 400; ++i) receive();
  EXPECT_EQ("epoll_wait 1", cost(receive));
}

TEST_F(BudgetTest, ALoopTakesALonePacketWithOneCallAndABurstInFewTurns) {
  CommLoopHandler handler;
  CommLoop loop;
  const std::string address = abstract_name();
  ASSERT_NE(0u, loop.serve(address.c_str(), handler).generation);
  const CommEndpoint peer = make_endpoint();
  ASSERT_EQ(0, comm_socket_v4_connect_to(peer.get(), address.c_str()));
  const auto turn = [&] { EXPECT_EQ(1, loop.dispatch(ULONG_MAX)); };
  const auto send = [&] { comm_socket_v4_packet_send_to_server(peer.get(), ping_packet().get()); };
  turn(), send(), turn();

  Faults lone, burst;
  const auto reads = [](const Faults& f) { return f.count(Call::recv) + f.count(Call::recvmsg); };
  lone.during([&] {
    for (int i = 0; i < 64; ++i) send(), turn();
  });
  EXPECT_EQ(std::tuple(67u, 64u, 0u),
            std::tuple(reads(lone), lone.count(Call::epoll_wait), lone.count(Call::ioctl)))
      << "every 17th time it looks whether there is one more";
  for (int i = 0; i < 100; ++i) send();
  burst.during([&] {
    while (loop.counters().packets_received < 165) turn();
  });
  EXPECT_GE(103u, reads(burst));
  EXPECT_GE(24u, burst.count(Call::epoll_wait)) << "17 alone, then 16 at a time";
}

}  // namespace
