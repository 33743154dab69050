// One scenario that touches everything, played again and again: each time the next one of the calls
// that it makes of the system and of the allocator fails.
#include <filesystem>
#include <new>

#include "connections.h"
#include "faults.h"

namespace {

class EveryFailureTest : public CommTest {
 protected:
  EveryFailureTest() { std::filesystem::create_symlink(path_, link_); }

  void play(Faults& faults, const std::vector<Endpoint>& endpoints) {
    faults.replace(Call::usleep, [](auto&, void*) { return 0; });
    faults_ = &faults;
    try {
      play_server(endpoints[0].get(), endpoints[1].get(), endpoints[2].get());
      play_pair(endpoints[1].get(), endpoints[2].get());
    } catch (const Over&) {
    }
  }

 private:
  const std::string path_ = path("server"), link_ = path_of_length(120);
  Faults* faults_ = nullptr;

  // A failure ended a connection, and the rest of the scenario has nobody to talk to.
  struct Over {};

  // A call works, unless a fault came in it; then it works when it is made again. In a step that
  // `ends`, all but a lack of memory may end the connection; and so may a failed recvmsg in any.
  template <class Body>
  void step(const char* what, Body works, bool ends = false) {
    SCOPED_TRACE(what);
    for (int attempt = 1; attempt <= 2; ++attempt) {
      const unsigned fired = faults_->fired();
      bool worked = false;
      try {
        worked = faults_->during(works);
      } catch (const std::bad_alloc&) {
      }
      const Call failed = faults_->failed();
      const bool met = faults_->fired() != fired;
      EXPECT_TRUE(worked || met) << "fails, or does not work again";
      if (met && failed == Call::recvmsg) throw Over();
      if (worked) return;
      if (ends && failed != Call::operator_new && failed != Call::malloc) throw Over();
    }
    throw Over();
  }

  comm_socket_v4_client* accept(comm_socket_v4* s) {
    comm_socket_v4_client* client;
    step(
        "accept", [&] { return (client = comm_socket_v4_accept_connection(s)) != nullptr; }, true);
    return client;
  }
  Packet written() {
    Packet p;
    const unsigned char byte = 7;
    step("write", [&] {
      p = make_packet();
      return p != nullptr && p->write_begin("open", "none", 0) == 0 && p->write_argv("a") == 0 &&
             p->write_nv_pairf("k", "v") == 0 && p->write_data_binary(&byte, 1) == 1 &&
             p->write_end() == 0;
    });
    step("attach", [&] { return p->attach_fd_to_send(0); });
    return p;
  }

  void play_server(comm_socket_v4* s, comm_socket_v4* c, comm_socket_v4* late) {
    if (!std::filesystem::exists(path_)) close(bound_socket(path_));  // the file of a dead server
    step("create", [&] { return comm_socket_v4_create_server(s, path_.c_str()) == 0; });
    step("connect", [&] { return comm_socket_v4_connect_to(c, link_.c_str()) == 0; });
    comm_socket_v4_set_connect_timeout_routine(late, 1);
    step("connect to a full queue",
         [&] { return comm_socket_v4_connect_to(late, path_.c_str()) == 0; });
    step(
        "not yet",
        [&] { return comm_socket_v4_connect_wait_for_completion(late, in_ms(1000)) == 0; }, true);
    step("wait for a client",
         [&] { return comm_socket_v4_server_from_client_readable(s, in_ms(1000)) == 1; });
    const unsigned long index = comm_socket_v4_client_ptr2index(accept(s));
    step(
        "complete", [&] { return comm_socket_v4_connect_check_pending(late) == 1; }, true);
    const unsigned long late_index = comm_socket_v4_client_ptr2index(accept(s));
    std::vector<Endpoint> crowd;
    while (crowd.size() < 14) crowd.push_back(join(s).first);
    crowd.push_back(make_endpoint());
    EXPECT_EQ(0, comm_socket_v4_connect_to(crowd.back().get(), path_.c_str()));
    accept(s);
    EXPECT_EQ(24u, s->client_allocation_count());

    const Packet sent = written();
    step("send", [&] { return comm_socket_v4_packet_send_to_server(c, sent.get()) > 0; });
    comm_socket_v4_client* client = nullptr;
    Packet p;
    step("receive",
         [&] { return p.reset(comm_socket_v4_server_get_packet(s, &client)), p != nullptr; });
    EXPECT_EQ(s->index2client(index), client);
    EXPECT_TRUE(bytes_of(sent.get()) == bytes_of(p.get()) && p->attached_fd_count() == 1);
    step("answer", [&] { return comm_socket_v4_packet_send_to_client(client, p.get()) > 0; });
    step("wait for the answer",
         [&] { return comm_socket_v4_client_from_server_readable(c, in_ms(1000)) == 1; });
    step("read the answer",
         [&] { return p.reset(comm_socket_v4_client_get_packet_from_server(c)), p != nullptr; });

    comm_socket_v4_close(late);
    // A receive that failed has put another client on the list before it.
    step("notice", [&] {
      if (comm_socket_v4_idle(s) != 0 || comm_socket_v4_idle(s) != 0) return false;
      comm_socket_v4_client* gone;
      do gone = comm_socket_v4_get_disconnected_client(s);
      while (gone != nullptr && gone != s->index2client(late_index));
      return gone != nullptr;
    });
    step("disconnect", [&] { return comm_socket_v4_disconnect_client(client) == 0; });
    step("close", [&] { return comm_socket_v4_close(s) == 0; });
  }

  void play_pair(comm_socket_v4* one, comm_socket_v4* other) {
    comm_socket_v4_close(one);
    step("pair", [&] { return comm_socket_v4_connect_new_socketpair(one) == 0; });
    const int fd = comm_socket_v4_socketpair_get_remote_end(one);
    step("adopt", [&] { return comm_socket_v4_connect_use_socketpair(other, fd) == 0; });
  }
};

TEST_F(EveryFailureTest, LosesNothingAndLeavesEverythingUsable) {
  StderrCapture captured;
  unsigned k = 0;
  for (bool met = true; met && !HasFailure(); captured.clear()) {
    SCOPED_TRACE(++k);
    const std::vector<std::string> before = open_descriptors();
    {
      std::vector<Endpoint> endpoints(3);
      for (Endpoint& e : endpoints) comm_socket_v4_debug_logging((e = make_endpoint()).get());
      Faults faults, none;
      play(faults.fail_any(k), endpoints);
      met = faults.fired() != 0;
      play(none, endpoints);
    }
    EXPECT_EQ(before, open_descriptors());
  }
  EXPECT_LT(50u, k) << "the scenario makes hardly any calls";
}

// To find out who holds a path takes more allocations than a loop should meet.
TEST_F(CommTest, APathIsHeldEvenWhenThereIsNoMemoryToSayByWhom) {
  const StderrCapture captured;
  const std::string held = path();
  const int server = bound_socket(held);
  const Endpoint s = make_endpoint();
  EXPECT_EQ(0, comm_socket_v4_set_socket_path(s.get(), held.c_str()));
  for (unsigned k = 1; k < 30; ++k) {
    Faults faults;
    faults.fail(Call::operator_new, ENOMEM, k);
    EXPECT_EQ(Outcome(-1, EADDRINUSE),
              outcome(faults, [&] { return comm_socket_v4_create_server(s.get(), held.c_str()); }));
  }
  close(server);
}

}  // namespace
