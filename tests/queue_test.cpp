// Packets to a client that does not read.
#include "connections.h"

namespace {

class QueueTest : public ServerTest {
 protected:
  QueueTest() { join(); }

  std::unique_ptr<CommLargePacketQueue> queue = std::make_unique<CommLargePacketQueue>();
  Packet p = ping_packet();

  int send(const Packet& packet) { return queue->send_packet(&s.client[0], packet.get()); }
  // Fills the socket, then queues p so many times.
  void fill(std::uint64_t count) {
    while (queue->queued_count < count) ASSERT_EQ(1, send(p));
  }
  std::uint64_t drain() {
    std::uint64_t packets = 0;
    while (Packet(comm_socket_v4_client_get_packet_from_server(peers[0].get()))) ++packets;
    return packets;
  }
  void expect_queued(std::uint64_t count) {
    EXPECT_EQ(count, queue->queued_count);
    EXPECT_EQ(count, queue->queued_packets.size());
    EXPECT_EQ(1 + static_cast<int>(count), p->refcount.load());
  }
};

TEST_F(QueueTest, RefusesThePacketBehind4096AndEndsWithItsPacketsUnsent) {
  fill(4096);
  EXPECT_EQ(0, send(p));
  expect_queued(4096);
  const std::uint64_t room = drain();
  EXPECT_EQ(1, send(p));
  expect_queued(4096 - room + 1);
  queue.reset();
  EXPECT_EQ(1, p->refcount.load());
  EXPECT_EQ(room, drain());
}

TEST_F(QueueTest, ADeadConnectionShowsOnlyWhileNothingIsQueued) {
  fill(2);
  peers.clear();
  await_end(s.client[0].client_fd);
  EXPECT_EQ(1, send(p));
  expect_queued(3);
  queue->dump_queued_packets();
  EXPECT_EQ(-1, send(p));
  EXPECT_EQ(EPIPE, errno);
  s.client[0].status.disconnected = 1;
  EXPECT_EQ(-1, send(p));
  EXPECT_EQ(ECONNRESET, errno);
  expect_queued(0);
}

}  // namespace
