// One scenario that touches everything, played again and again: each time the next one of the calls
// that it makes of the system and of the allocator fails, is interrupted or meets a full queue.
#include <algorithm>
#include <filesystem>
#include <new>

#include "connections.h"
#include "faults.h"

namespace {

struct Mode {
  const char* name;
  int (*error_of)(Call);  // null: all fail, each with its own error
  bool passes;            // it costs time and nothing else
};

int interruption(Call call) {
  for (Call may_be : {Call::sendmsg, Call::recvmsg, Call::select, Call::poll, Call::usleep})
    if (call == may_be) return EINTR;
  return 0;
}
int short_queue(Call call) {
  for (Call may_be : {Call::sendmsg, Call::recvmsg, Call::connect, Call::accept4})
    if (call == may_be) return EAGAIN;
  return 0;
}

constexpr int any_errno = -1;

// What a step answers.
struct Answers {
  long good, failed;
  std::vector<int> errors = {};   // beside that of the call that failed
  std::vector<Call> ending = {};  // these failures end the connection or close the endpoint
  bool throws = false;            // std::bad_alloc
};

bool has(const auto& list, auto element) {
  return std::find(list.begin(), list.end(), element) != list.end();
}

// The rest of the scenario has nobody to talk to.
struct Over {};

class EveryFailureTest : public CommTest, public testing::WithParamInterface<Mode> {
 protected:
  EveryFailureTest() { std::filesystem::create_symlink(path_, link_); }

  struct Endpoints {
    const Endpoint server = make_endpoint(), client = make_endpoint(), late = make_endpoint(),
                   one = make_endpoint(), other = make_endpoint();
  };
  void play(const Endpoints& endpoints, Faults& faults) {
    faults.replace(Call::usleep, [](auto&, void*) { return 0; });
    faults_ = &faults;
    play_server(endpoints.server.get(), endpoints.client.get(), endpoints.late.get());
    play_pair(endpoints.one.get(), endpoints.other.get());
  }

 private:
  const std::string path_ = path("server"), link_ = path_of_length(120);
  Faults* faults_ = nullptr;

  // A call fails only where a failure is planned, answers as documented, and works when it is made
  // again, unless the failure ended the connection.
  template <class Body>
  void step(const char* what, const Answers& answers, Body body) {
    SCOPED_TRACE(what);
    for (int attempt = 1; attempt <= 2; ++attempt) {
      const unsigned fired = faults_->fired();
      bool thrown = false;
      long answer = answers.failed;
      errno = 0;
      try {
        answer = faults_->during(body);
      } catch (const std::bad_alloc&) {
        thrown = true;
      }
      const int error = errno;
      const bool met = faults_->fired() != fired;
      if (thrown || answer != answers.good) {
        EXPECT_TRUE(met && (!thrown || answers.throws)) << answer << ", errno " << error;
        const bool named = has(answers.errors, error);
        EXPECT_TRUE(thrown || named || error == faults_->error() || has(answers.errors, any_errno))
            << error;
        EXPECT_EQ(GetParam().passes && !named ? 0 : answers.failed, answer);
      }
      if (met && !GetParam().passes &&
          (faults_->failed() == Call::recvmsg || has(answers.ending, faults_->failed())))
        throw Over();
      if (answer == answers.good && !thrown) return;
    }
    ADD_FAILURE() << "does not work again";
    throw Over();
  }

  void send(const char* what, const Packet& p, auto body) {
    step(what, {static_cast<long>(p->buffer_length), -1}, body);
  }
  void get(const char* what, Packet& p, auto retrieve) {
    step(what, {1, 0, {any_errno}}, [&] { return p.reset(retrieve()), p != nullptr; });
  }
  comm_socket_v4_client* accept(comm_socket_v4* s) {
    comm_socket_v4_client* record = nullptr;
    step("accept", {1, 0, {}, {Call::accept4, Call::getsockopt}},
         [&] { return (record = comm_socket_v4_accept_connection(s)) != nullptr; });
    return record;
  }
  Endpoint knock() {
    Endpoint visitor = make_endpoint();
    EXPECT_EQ(0, comm_socket_v4_connect_to(visitor.get(), path_.c_str()));
    return visitor;
  }

  Packet written() {
    Packet p;
    const std::uint64_t numbers[] = {1, 2};
    const unsigned char data[9] = {1, 2, 3};
    step("write", {0, -1, {}, {}, true}, [&] {
      p.reset(comm_socket_v4_packet_create());
      if (p == nullptr || p->write_begin("open", "none", 0) != 0) return -1;
      const int entries = p->write_argv("a") | p->write_nv_pair_uint64("k", numbers, 2);
      return p->write_data_binary(data, 9) == 9 ? entries | p->write_end() : -1;
    });
    step("attach", {1, 0, {}, {}, true}, [&] { return p->attach_fd_to_send(0); });
    return p;
  }

  void play_server(comm_socket_v4* s, comm_socket_v4* c, comm_socket_v4* late) {
    if (!std::filesystem::exists(path_)) close(bound_socket(path_));  // the file of a dead server
    step("create", {0, -1, {EADDRINUSE}, {}, true},
         [&] { return comm_socket_v4_create_server(s, path_.c_str()); });
    step("connect", {0, -1, {ENAMETOOLONG}, {}, true},
         [&] { return comm_socket_v4_connect_to(c, link_.c_str()); });
    const unsigned long index = comm_socket_v4_client_ptr2index(accept(s));

    std::vector<Endpoint> crowd;
    crowd.push_back(knock());
    comm_socket_v4_set_connect_timeout_routine(late, 1);
    step("connect to a full queue", {0, -1, {}, {}, true},
         [&] { return comm_socket_v4_connect_to(late, path_.c_str()); });
    EXPECT_EQ(1, comm_socket_v4_connection_pending(late));
    step("wait for the connection", {0, -1, {}, {Call::select, Call::getsockopt, Call::recv}},
         [&] { return comm_socket_v4_connect_wait_for_completion(late, in_ms(1000)); });
    step("wait for a client", {1, -1},
         [&] { return comm_socket_v4_server_from_client_readable(s, in_ms(1000)); });
    accept(s);
    step("complete", {1, -1, {}, {Call::connect}},
         [&] { return comm_socket_v4_connect_check_pending(late); });
    const unsigned long late_index = comm_socket_v4_client_ptr2index(accept(s));
    while (crowd.size() < 14) crowd.push_back(join(s).first);
    crowd.push_back(knock());
    accept(s);
    EXPECT_EQ(24u, s->client_allocation_count());

    const Packet request = written();
    send("send", request, [&] { return comm_socket_v4_packet_send_to_server(c, request.get()); });
    Packet got, answer;
    comm_socket_v4_client* record = nullptr;
    step("idle", {0, -1}, [&] { return comm_socket_v4_idle(s); });
    get("receive", got, [&] { return comm_socket_v4_server_get_packet(s, &record); });
    EXPECT_EQ(bytes_of(request.get()), bytes_of(got.get()));
    EXPECT_EQ(s->index2client(index), record);
    play_answer(record, c, got);

    step("leave", {0, 0}, [&] { return comm_socket_v4_close(late); });
    comm_socket_v4_client* gone = nullptr;
    step("notice", {1, 0, {any_errno}}, [&] {
      comm_socket_v4_idle(s);
      comm_socket_v4_idle(s);
      return (gone = comm_socket_v4_get_disconnected_client(s)) != nullptr;
    });
    EXPECT_EQ(s->index2client(late_index), gone);
    step("release", {0, 0}, [&] { return comm_socket_v4_free_client(gone), 0; });
    step("disconnect", {0, -1}, [&] { return comm_socket_v4_disconnect_client(record); });
    step("reopen", {0, 0}, [&] { return comm_socket_v4_reopen_server(s); });
    step("close", {0, 0}, [&] { return comm_socket_v4_close(s); });
  }

  // The answer waits in a queue, since the client does not read.
  void play_answer(comm_socket_v4_client* record, comm_socket_v4* c, const Packet& packet) {
    const Packet filler = ping_packet();
    std::size_t waiting = 0;
    while (comm_socket_v4_packet_send_to_client(record, filler.get()) > 0) ++waiting;
    CommLargePacketQueue queue;
    step("queue", {1, -1, {}, {}, true}, [&] { return queue.send_packet(record, packet.get()); });
    for (; waiting > 0; --waiting)
      EXPECT_NE(nullptr, Packet(comm_socket_v4_client_get_packet_from_server(c)));
    step("flush", {1, 0, {any_errno}}, [&] {
      queue.flush_queued_packet(record);
      return queue.queued_count == 0;
    });
    step("wait to send", {1, -1},
         [&] { return comm_socket_v4_wait_for_server_to_client_writeable(record, in_ms(1000)); });
    step("wait for the answer", {1, -1},
         [&] { return comm_socket_v4_client_from_server_readable(c, in_ms(1000)); });
    Packet answer;
    get("answer", answer, [&] { return comm_socket_v4_client_get_packet_from_server(c); });
    EXPECT_EQ(bytes_of(packet.get()), bytes_of(answer.get()));
    EXPECT_EQ(1u, answer->attached_fd_count());
  }

  void play_pair(comm_socket_v4* one, comm_socket_v4* other) {
    comm_socket_v4_close(one);
    comm_socket_v4_close(other);
    step("pair", {0, -1}, [&] { return comm_socket_v4_connect_new_socketpair(one); });
    int fd = -1;
    step("hand over", {1, 0},
         [&] { return (fd = comm_socket_v4_socketpair_get_remote_end(one)) >= 0; });
    step("adopt", {0, -1, {any_errno}},
         [&] { return comm_socket_v4_connect_use_socketpair(other, fd); });
    const Packet sent = written();
    send("send", sent, [&] { return comm_socket_v4_packet_send_to_server(one, sent.get()); });
    step("wait to send", {1, -1},
         [&] { return comm_socket_v4_wait_for_client_to_server_writeable(one, in_ms(1000)); });
    step("idle", {0, -1}, [&] { return comm_socket_v4_idle(other); });
    Packet got;
    get("receive", got, [&] { return comm_socket_v4_client_get_packet_from_server(other); });
    EXPECT_EQ(bytes_of(sent.get()), bytes_of(got.get()));
    step("close", {0, 0}, [&] { return comm_socket_v4_close(one); });
    step("close", {0, 0}, [&] { return comm_socket_v4_close(other); });
  }
};
INSTANTIATE_TEST_SUITE_P(Of, EveryFailureTest,
                         testing::Values(Mode{"Failures", nullptr, false},
                                         Mode{"Interruptions", interruption, true},
                                         Mode{"ShortQueues", short_queue, true}),
                         [](auto& mode) { return mode.param.name; });

TEST_P(EveryFailureTest, IsToldLosesNothingAndLeavesEverythingUsable) {
  StderrCapture captured;
  unsigned k = 0;
  for (bool met = true; met && !HasFailure(); captured.clear()) {
    SCOPED_TRACE(++k);
    const std::vector<std::string> before = open_descriptors();
    {
      const Endpoints endpoints;
      Faults faults, none;
      faults.fail_any(k, GetParam().error_of);
      try {
        play(endpoints, faults);
      } catch (const Over&) {
      }
      met = faults.fired() != 0;
      play(endpoints, none);
    }
    EXPECT_EQ(before, open_descriptors());
  }
  EXPECT_GT(k, 20u) << "the scenario made hardly any calls";
}

// To find out who holds a path takes many allocations, more than a loop should meet.
TEST_F(CommTest, APathIsHeldEvenWhenThereIsNoMemoryToSayByWhom) {
  StderrCapture captured;
  const std::string held = path();
  const int server = bound_socket(held);
  const Endpoint endpoint = make_endpoint();
  comm_socket_v4* const s = endpoint.get();
  EXPECT_EQ(0, comm_socket_v4_set_socket_path(s, held.c_str()));
  for (unsigned k = 1; k < 30; ++k) {
    Faults faults;
    faults.fail(Call::operator_new, ENOMEM, k);
    EXPECT_EQ(Outcome(-1, EADDRINUSE),
              outcome(faults, [&] { return comm_socket_v4_create_server(s, held.c_str()); }));
    EXPECT_EQ(0, comm_socket_v4_is_open(s));
  }
  close(server);
}

}  // namespace
