// One scenario that touches everything, played again and again: each time the next one of the calls
// that it makes of the system and of the allocator fails.
#include <filesystem>
#include <new>

#include "connections.h"
#include "faults.h"

namespace {

class EveryFailureTest : public CommTest {
 protected:
  // A failure ended a connection, and the rest of the scenario has nobody to talk to.
  struct Over {};

  const std::string path_ = path("server"), link_ = path_of_length(120);
  Faults* faults_ = nullptr;

  // A call works, unless a fault came in it; then it works when it is made again, or, but for a
  // lack of memory, has ended a connection.
  template <class Body>
  void step(const char* what, Body works) {
    for (int attempt = 1; attempt <= 2; ++attempt) {
      const unsigned fired = faults_->fired();
      bool worked = false;
      try {
        worked = faults_->during(works);
      } catch (const std::bad_alloc&) {
      }
      const bool met = faults_->fired() != fired, in_call = faults_->failed() < Call::malloc;
      EXPECT_TRUE(worked || met) << what << " fails, or does not work again";
      if (worked ? met && faults_->failed() == Call::recvmsg : !met || in_call) throw Over();
      if (worked) return;
    }
  }

  void play(comm_socket_v4* s, comm_socket_v4* c, comm_socket_v4* late) {
    comm_socket_v4_client* client = nullptr;
    Packet p, received;
    const auto accept = [&] { return comm_socket_v4_accept_connection(s) != nullptr; };
    const auto receive = [&] {
      received.reset(comm_socket_v4_server_get_packet(s, &client));
      return received != nullptr;
    };
    const auto write = [&] {
      p = make_packet();
      return p != nullptr && p->write_begin("open", "none", 0) == 0 && p->write_argv("a") == 0 &&
             p->write_nv_pairf("k", "v") == 0 && p->write_end() == 0 && p->attach_fd_to_send(0);
    };
    const auto notice = [&] {
      // A pass looks at half of the clients.
      return comm_socket_v4_idle(s) == 0 && comm_socket_v4_idle(s) == 0 &&
             comm_socket_v4_get_disconnected_client(s) != nullptr;
    };
    step("create", [&] { return comm_socket_v4_create_server(s, path_.c_str()) == 0; });
    step("connect", [&] { return comm_socket_v4_connect_to(c, link_.c_str()) == 0; });
    comm_socket_v4_set_connect_timeout_routine(late, 1);
    step("meet a full queue", [&] { return comm_socket_v4_connect_to(late, path_.c_str()) == 0; });
    step("wait for a client",
         [&] { return comm_socket_v4_server_from_client_readable(s, in_ms(1000)) == 1; });
    step("accept", accept);
    step("complete", [&] { return comm_socket_v4_connect_check_pending(late) == 1; });
    step("accept", accept);
    step("write", write);
    step("send", [&] { return comm_socket_v4_packet_send_to_server(c, p.get()) > 0; });
    step("receive", receive);
    EXPECT_TRUE(bytes_of(p.get()) == bytes_of(received.get()) &&
                received->attached_fd_count() == 1);
    step("answer",
         [&] { return comm_socket_v4_packet_send_to_client(client, received.get()) > 0; });
    step("wait for it",
         [&] { return comm_socket_v4_client_from_server_readable(c, in_ms(1000)) == 1; });
    comm_socket_v4_close(c);
    step("notice", notice);
    step("pair", [&] { return comm_socket_v4_connect_new_socketpair(c) == 0; });
  }
};

TEST_F(EveryFailureTest, LosesNothingAndLeavesEverythingUsable) {
  StderrCapture captured;
  std::filesystem::create_symlink(path_, link_);
  unsigned k = 0;
  for (bool met = true; met && !HasFailure(); captured.clear()) {
    SCOPED_TRACE(++k);
    const std::vector<std::string> before = open_descriptors();
    {
      const Endpoint s = make_endpoint(), c = make_endpoint(), late = make_endpoint();
      Faults faults, none;
      for (Faults* const now : {&faults.fail_any(k), &none}) {
        faults_ = now;
        try {
          play(s.get(), c.get(), late.get());
        } catch (const Over&) {
        }
        for (const Endpoint* const e : {&c, &late, &s}) comm_socket_v4_close(e->get());
      }
      met = faults.fired() != 0;
    }
    EXPECT_EQ(before, open_descriptors());
  }
  EXPECT_LT(50u, k) << "the scenario makes hardly any calls";
}

// To find out who holds a path takes more allocations than a loop should meet.
TEST_F(EveryFailureTest, APathIsHeldEvenWhenThereIsNoMemoryToSayByWhom) {
  const StderrCapture captured;
  const int server = bound_socket(path_);
  const Endpoint s = make_endpoint();
  EXPECT_EQ(0, comm_socket_v4_set_socket_path(s.get(), path_.c_str()));
  for (unsigned k = 1; k < 30; ++k) {
    Faults faults;
    faults.fail(Call::operator_new, ENOMEM, k);
    EXPECT_EQ(Outcome(-1, EADDRINUSE), outcome(faults, [&] {
                return comm_socket_v4_create_server(s.get(), path_.c_str());
              }));
  }
  close(server);
}

}  // namespace
