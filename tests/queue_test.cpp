// Packets to a client that does not read.
#include "connections.h"

namespace {

class QueueTest : public ServerTest {
 protected:
  QueueTest() { join(); }

  std::unique_ptr<CommLargePacketQueue> queue = std::make_unique<CommLargePacketQueue>();
  CommPacket p = ping_packet();

  int send() { return queue->send_packet(record(), p.get()); }
  // Fills the socket, then queues p so many times.
  void fill(std::uint64_t count) {
    while (queue->queued_count < count) ASSERT_EQ(1, send());
  }
  std::uint64_t drain() {
    std::uint64_t packets = 0;
    while (retrieve(client())) ++packets;
    return packets;
  }
  // As the queue says, as the list is, and by the references to p.
  Numbers queued() {
    return {queue->queued_count, queue->queued_packets.size(),
            static_cast<std::size_t>(p->refcount) - 1};
  }
};

TEST_F(QueueTest, RefusesThePacketBehind4096AndEndsWithItsPacketsUnsent) {
  fill(4096);
  EXPECT_EQ(0, send());
  EXPECT_EQ(Numbers(3, 4096), queued());
  const std::uint64_t room = drain();
  EXPECT_EQ(1, send());
  EXPECT_EQ(Numbers(3, 4096 - room + 1), queued());
  queue.reset();
  EXPECT_EQ(1, p->refcount);
  EXPECT_EQ(room, drain());
}

TEST_F(QueueTest, ADeadConnectionShowsOnlyWhileNothingIsQueued) {
  fill(2);
  peers.clear();
  await_end(record()->client_fd);
  EXPECT_EQ(1, send());
  EXPECT_EQ(Numbers(3, 3), queued());
  queue->dump_queued_packets();
  EXPECT_EQ("-1 EPIPE", answered(send()));
  EXPECT_EQ(Numbers(3, 0), queued());
}

}  // namespace
