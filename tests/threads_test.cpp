// The one thing that threads may share: references to a packet.
#include <thread>

#include "connections.h"

namespace {

TEST_F(CommTest, ThreadsShareAPacketThatTheLastOneDestroys) {
  const std::string bytes = bytes_of(ping_packet().get());
  for (int round = 0; round < 100; ++round) {
    CommPacket p = carrier(1);
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
      threads.emplace_back([&bytes, shared = (p->addref(), p.get())] {
        for (int k = 0; k < 100; ++k) {
          EXPECT_LE(2, shared->addref());
          EXPECT_EQ(shared, comm_socket_v4_packet_release(shared));
        }
        EXPECT_EQ(bytes, bytes_of(shared));
        comm_socket_v4_packet_release(shared);
      });
    p.reset();
    for (std::thread& thread : threads) thread.join();
  }
}

}  // namespace
