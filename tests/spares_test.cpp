// What released packets leave to the next ones of their thread.
#include <malloc.h>
#include <pthread.h>

#include <thread>

#include "lib/spare_packets.h"
#include "support.h"

namespace {

using P = comm_socket_v4_packet;

class SparesTest : public CommTest {
 protected:
  void SetUp() override {
    if (!spare_packets::are_kept) GTEST_SKIP() << "a sanitizer wants every packet new";
    comm_socket_v4_packet_keep_spares(0);
    comm_socket_v4_packet_keep_spares(1);
  }

  static std::vector<CommPacket> packets(std::size_t count, std::size_t size) {
    std::vector<CommPacket> all(count);
    for (CommPacket& p : all) {
      p.reset(comm_socket_v4_packet_create());
      EXPECT_EQ(0, p->resize_buffer(size));
    }
    return all;
  }
  static std::string cost(std::size_t count, std::size_t size) {
    std::vector<CommPacket> all;
    Faults faults;
    faults.during([&] { all = packets(count, size); });
    return faults.calls();
  }
};

TEST_F(SparesTest, AreFewAndTakenForWhatFits) {
  packets(10, 8192);
  EXPECT_EQ("malloc 8, operator_new 7", cost(10, 4096)) << "and one for the vector";
  packets(10, 81920);
  EXPECT_EQ("operator_new 1", cost(2, 81920));
  EXPECT_EQ("malloc 2, operator_new 1", cost(2, 32768)) << "not for less than half";
  packets(2, 81921);
  EXPECT_EQ("operator_new 1", cost(2, 32768)) << "what is too large leaves the others alone";
  packets(2, 2000);
  EXPECT_EQ("malloc 2, operator_new 1", cost(2, 32768)) << "the eldest leave";
  comm_socket_v4_packet_keep_spares(0);
  packets(2, 32768);
  EXPECT_EQ("malloc 2, operator_new 3", cost(2, 32768));
}

TEST_F(SparesTest, AreAsNewAndNeverHandedOutTwice) {
  CommPacket old = rich_packet();
  old->addref();
  P* const p = old.release();
  p->set_stream_id(7);
  p->tag = p->error_code = p->message_id = 8;
  p->set_complete_cb([](P*) { return 0; });
  p->wr_argv.resize(3);
  EXPECT_TRUE(p->attach_fd_to_send(0));
  EXPECT_EQ(1, p->release());
  EXPECT_EQ(0, p->release());
  {
    const StderrCapture captured;
    EXPECT_EQ(0, p->release());
    EXPECT_EQ("comm socket v4 packet error: result released below zero!\n", captured.text());
  }
  const CommPacket next = make_packet(), other = make_packet(), fresh(new P);
  EXPECT_EQ(p, next.get());
  EXPECT_NE(p, other.get());
  const auto state = [](const CommPacket& q) {
    return std::tuple(q->buffer, q->buffer_alloc, q->buffer_write, q->buffer_length, q->flags,
                      q->message_id, q->error_code, +q->refcount, q->write_state, q->wr_argv.size(),
                      q->wr_nv_pair.size(), q->attached_fd.size(), q->stream_id, q->complete_cb,
                      q->tag);
  };
  EXPECT_EQ(state(fresh), state(next));
  EXPECT_EQ(bytes_of(ping_packet().get()), [&] {
    next->make_request();
    next->write_begin("ping", nullptr, 0);
    next->write_argv("a");
    next->write_nv_pair("k", "v");
    next->write_end();
    return bytes_of(next.get());
  }());
}

// Whenever the packets of a thread are released: while it runs, by the destructors behind it, or by
// another thread.
TEST_F(SparesTest, EndWithTheirThread) {
  pthread_key_t late;
  ASSERT_EQ(0, ::pthread_key_create(&late, [](void* p) { static_cast<P*>(p)->release(); }));
  const auto run = [late](CommPacket from_elsewhere) {
    thread_local CommPacket released_behind;
    released_behind = std::move(packets(1, 50000)[0]);
    ::pthread_setspecific(late, packets(1, 50000)[0].release());
    packets(6, 60000);
    from_elsewhere.reset();
  };
  const auto used = [] { return ::mallinfo2().uordblks + ::mallinfo2().hblkhd; };
  std::size_t before = 0;
  for (int round = 0; round < 20; ++round) {
    if (round == 10) before = used();
    std::thread(run, std::move(packets(1, 70000)[0])).join();
  }
  EXPECT_GT(before + 10000, used());
  ::pthread_key_delete(late);
}

}  // namespace
