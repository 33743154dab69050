// One scenario that touches everything, played again and again: each time the next one of the calls
// that it makes of the system and of the allocator fails, is interrupted or meets a full queue.
#include <filesystem>
#include <new>

#include "connections.h"
#include "faults.h"

namespace {

struct Mode {
  const char* name;
  int error;  // 0: a failure, of each kind its own; otherwise it costs time and nothing else
  std::vector<Call> calls;
};

// Of a step that fails: it answers null, or 0, instead of -1; its errno says nothing; it throws
// std::bad_alloc; all but a lack of memory ends the connection or the endpoint.
enum Trait : unsigned { null = 1, untold = 2, throws = 4, ends = 8 };

// A failure ended a connection, and the rest of the scenario has nobody to talk to.
struct Over {};

class EveryFailureTest : public CommTest, public testing::WithParamInterface<Mode> {
 protected:
  EveryFailureTest() { std::filesystem::create_symlink(path_, link_); }

  void play(Faults& faults, const std::vector<Endpoint>& endpoints) {
    faults.replace(Call::usleep, [](auto&, void*) { return 0; });
    faults_ = &faults;
    play_server(endpoints[0].get(), endpoints[1].get(), endpoints[2].get());
    play_pair(endpoints[3].get(), endpoints[4].get());
  }

 private:
  const std::string path_ = path("server"), link_ = path_of_length(120);
  Faults* faults_ = nullptr;

  // A call answers `good` unless a failure was planned in it. Then it answers as documented, and
  // works when it is made again, unless the failure ended the connection.
  template <class Body>
  void step(const char* what, long good, Body body, unsigned traits = 0, int other_error = 0) {
    SCOPED_TRACE(what);
    for (int attempt = 1; attempt <= 2; ++attempt) {
      const unsigned fired = faults_->fired();
      bool thrown = false;
      Outcome got(0, 0);
      try {
        got = outcome(*faults_, body);
      } catch (const std::bad_alloc&) {
        thrown = true;
      }
      const Call failed = faults_->failed();
      const bool met = faults_->fired() != fired, passes = GetParam().error != 0;
      if (thrown || got.first != good) {
        const bool other = got.second == other_error;
        EXPECT_TRUE(met && (!thrown || traits & throws));
        EXPECT_EQ(thrown || traits & null || (passes && !other) ? 0 : -1, got.first);
        if (!thrown && !other && !(traits & untold)) {
          EXPECT_EQ(faults_->error(), got.second);
        }
      }
      const bool final = traits & ends && failed != Call::operator_new && failed != Call::malloc;
      if (met && !passes && (final || failed == Call::recvmsg)) throw Over();
      if (!thrown && got.first == good) return;
    }
    ADD_FAILURE() << "does not work again";
    throw Over();
  }

  // A failure to open leaves the endpoint closed.
  static int opens(comm_socket_v4* e, int answer) {
    EXPECT_EQ(answer == 0, comm_socket_v4_is_open(e));
    return answer;
  }
  comm_socket_v4_client* accept(comm_socket_v4* s) {
    comm_socket_v4_client* client;
    step(
        "accept", true, [&] { return (client = comm_socket_v4_accept_connection(s)) != nullptr; },
        null | ends);
    return client;
  }
  // As `sent`, and with the descriptor.
  void receive(const Packet& sent, auto retrieve) {
    Packet p;
    step(
        "receive", true, [&] { return p.reset(retrieve()), p != nullptr; }, null | untold);
    EXPECT_EQ(bytes_of(sent.get()), bytes_of(p.get()));
    EXPECT_EQ(1u, p->attached_fd_count());
  }
  Packet written() {
    Packet p;
    const std::uint64_t numbers[] = {1, 2};
    const unsigned char byte = 7;
    const auto write = [&] {
      p = make_packet();
      return p == nullptr || p->write_begin("open", "none", 0) != 0 || p->write_argv("a") != 0 ||
                     p->write_nv_pair_uint64("k", numbers, 2) != 0 ||
                     p->write_data_binary(&byte, 1) != 1
                 ? -1
                 : p->write_end();
    };
    step("write", 0, write, untold | throws);
    step(
        "attach", true, [&] { return p->attach_fd_to_send(0); }, null | throws);
    return p;
  }

  void play_server(comm_socket_v4* s, comm_socket_v4* c, comm_socket_v4* late) {
    if (!std::filesystem::exists(path_)) close(bound_socket(path_));  // the file of a dead server
    step(
        "create", 0, [&] { return opens(s, comm_socket_v4_create_server(s, path_.c_str())); },
        throws, EADDRINUSE);
    step(
        "connect", 0, [&] { return opens(c, comm_socket_v4_connect_to(c, link_.c_str())); }, throws,
        ENAMETOOLONG);
    const unsigned long index = comm_socket_v4_client_ptr2index(accept(s));

    std::vector<Endpoint> crowd;
    const auto knock = [&] {
      crowd.push_back(make_endpoint());
      EXPECT_EQ(0, comm_socket_v4_connect_to(crowd.back().get(), path_.c_str()));
    };
    knock();
    comm_socket_v4_set_connect_timeout_routine(late, 1);
    step(
        "connect to a full queue", 0,
        [&] { return opens(late, comm_socket_v4_connect_to(late, path_.c_str())); }, throws);
    step(
        "not yet", 0, [&] { return comm_socket_v4_connect_wait_for_completion(late, in_ms(1000)); },
        ends);
    step("wait for a client", 1,
         [&] { return comm_socket_v4_server_from_client_readable(s, in_ms(1000)); });
    accept(s);
    step(
        "complete", 1, [&] { return comm_socket_v4_connect_check_pending(late); }, ends);
    const unsigned long late_index = comm_socket_v4_client_ptr2index(accept(s));
    while (crowd.size() < 14) crowd.push_back(join(s).first);
    knock();
    accept(s);
    EXPECT_EQ(24u, s->client_allocation_count());

    const Packet sent = written();
    step("send", static_cast<long>(sent->buffer_length),
         [&] { return comm_socket_v4_packet_send_to_server(c, sent.get()); });
    step("idle", 0, [&] { return comm_socket_v4_idle(s); });
    comm_socket_v4_client* client = nullptr;
    receive(sent, [&] { return comm_socket_v4_server_get_packet(s, &client); });
    EXPECT_EQ(s->index2client(index), client);
    play_answer(client, c);

    step("leave", 0, [&] { return comm_socket_v4_close(late); });
    comm_socket_v4_client* gone;
    const auto notice = [&] {
      return comm_socket_v4_idle(s) == 0 && comm_socket_v4_idle(s) == 0 &&
             (gone = comm_socket_v4_get_disconnected_client(s)) != nullptr;
    };
    step("notice", true, notice, null | untold);
    EXPECT_EQ(s->index2client(late_index), gone);
    step("release", 0, [&] { return comm_socket_v4_free_client(gone), 0; });
    step("disconnect", 0, [&] { return comm_socket_v4_disconnect_client(client); });
    step("reopen", 0, [&] { return comm_socket_v4_reopen_server(s); });
    step("close", 0, [&] { return comm_socket_v4_close(s); });
  }

  // It waits in a queue, since the client does not read.
  void play_answer(comm_socket_v4_client* client, comm_socket_v4* c) {
    int ahead = 0;
    for (const Packet p = ping_packet(); comm_socket_v4_packet_send_to_client(client, p.get()) > 0;)
      ++ahead;
    CommLargePacketQueue queue;
    const Packet sent = written();
    step(
        "queue", 1, [&] { return queue.send_packet(client, sent.get()); }, throws);
    for (; ahead > 0; --ahead) Packet(comm_socket_v4_client_get_packet_from_server(c));
    step(
        "flush", true, [&] { return queue.flush_queued_packet(client), queue.queued_count == 0; },
        null | untold);
    step("wait to answer", 1,
         [&] { return comm_socket_v4_wait_for_server_to_client_writeable(client, in_ms(1000)); });
    step("wait for the answer", 1,
         [&] { return comm_socket_v4_client_from_server_readable(c, in_ms(1000)); });
    receive(sent, [&] { return comm_socket_v4_client_get_packet_from_server(c); });
  }

  void play_pair(comm_socket_v4* one, comm_socket_v4* other) {
    for (comm_socket_v4* end : {one, other})
      step("close", 0, [&] { return comm_socket_v4_close(end); });
    step("pair", 0, [&] { return opens(one, comm_socket_v4_connect_new_socketpair(one)); });
    int fd = -1;
    step("hand over", true,
         [&] { return (fd = comm_socket_v4_socketpair_get_remote_end(one)) >= 0; });
    step("adopt", 0,
         [&] { return opens(other, comm_socket_v4_connect_use_socketpair(other, fd)); });
    const Packet sent = written();
    step("wait to send", 1,
         [&] { return comm_socket_v4_wait_for_client_to_server_writeable(one, in_ms(1000)); });
    step("send", static_cast<long>(sent->buffer_length),
         [&] { return comm_socket_v4_packet_send_to_server(one, sent.get()); });
    step("idle", 0, [&] { return comm_socket_v4_idle(other); });
    receive(sent, [&] { return comm_socket_v4_client_get_packet_from_server(other); });
  }
};
INSTANTIATE_TEST_SUITE_P(
    Of, EveryFailureTest,
    testing::Values(
        Mode{"Failures", 0, {}},
        Mode{"Interruptions",
             EINTR,
             {Call::sendmsg, Call::recvmsg, Call::select, Call::poll, Call::usleep}},
        Mode{"ShortQueues", EAGAIN, {Call::sendmsg, Call::recvmsg, Call::connect, Call::accept4}}),
    [](auto& mode) { return mode.param.name; });

TEST_P(EveryFailureTest, IsToldLosesNothingAndLeavesEverythingUsable) {
  StderrCapture captured;
  unsigned k = 0;
  for (bool met = true; met && !HasFailure(); captured.clear()) {
    SCOPED_TRACE(++k);
    const std::vector<std::string> before = open_descriptors();
    {
      std::vector<Endpoint> endpoints(5);
      for (Endpoint& e : endpoints) comm_socket_v4_debug_logging((e = make_endpoint()).get());
      Faults faults, none;
      faults.fail_any(k, GetParam().error, GetParam().calls);
      try {
        play(faults, endpoints);
      } catch (const Over&) {
      }
      met = faults.fired() != 0;
      play(none, endpoints);
    }
    EXPECT_EQ(before, open_descriptors());
  }
  EXPECT_LT(20u, k) << "the scenario makes hardly any calls";
}

// To find out who holds a path takes more allocations than a loop should meet.
TEST_F(CommTest, APathIsHeldEvenWhenThereIsNoMemoryToSayByWhom) {
  StderrCapture captured;
  const std::string held = path();
  const int server = bound_socket(held);
  const Endpoint s = make_endpoint();
  EXPECT_EQ(0, comm_socket_v4_set_socket_path(s.get(), held.c_str()));
  for (unsigned k = 1; k < 30; ++k) {
    Faults faults;
    faults.fail(Call::operator_new, ENOMEM, k);
    EXPECT_EQ(Outcome(-1, EADDRINUSE),
              outcome(faults, [&] { return comm_socket_v4_create_server(s.get(), held.c_str()); }));
    EXPECT_EQ(0, comm_socket_v4_is_open(s.get()));
  }
  close(server);
}

}  // namespace
