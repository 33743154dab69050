// One scenario that touches everything, played again and again: each time the next one of the calls
// that it makes of the system and of the allocator fails, is interrupted, or meets a full queue.
#include <tarn_utils_v4/comm_loop.h>

#include <climits>
#include <memory>

#include "connections.h"

namespace {

// These calls give this error, which costs time and nothing else; 0: all fail, each in its own way.
struct Mode {
  int error;
  std::vector<Call> calls;
};

// Of a step: a failure ends a connection; without memory it may throw std::bad_alloc.
enum Trait : unsigned { ends = 1, throws = 2 };

class EveryFailureTest : public CommTest {
 protected:
  // The rest of the scenario has nobody to talk to.
  struct Over {};

  const std::string path_ = path("server"), link_ = path_of_length(120);
  const Mode* mode_ = nullptr;
  Faults* faults_ = nullptr;

  // A call answers `good` unless a fault came in it. Then it works when it is made again, as it
  // always does after a lack of memory, or has ended a connection, as a failed recvmsg always has.
  // An int tells what happened, and errno why: the error of the call, or what is said of a path
  // whose holder cannot be asked and of a link that cannot be read.
  template <unsigned traits = 0, class Answer, class Body>
  void step(const char* what, Answer good, Body body) {
    SCOPED_TRACE(what);
    for (int attempt = 1; attempt <= 2; ++attempt) {
      const unsigned fired = faults_->fired();
      Outcome got(-1, ENOMEM);
      try {
        got = outcome(*faults_, body);
      } catch (const std::bad_alloc&) {
        EXPECT_TRUE(traits & throws);
      }
      const bool worked = got.first == good, met = faults_->fired() != fired;
      const bool fails = met && mode_->error == 0;
      EXPECT_EQ(met ? got.first : good, got.first) << "fails, or does not work again";
      if (!worked && std::is_same_v<Answer, int>) {
        const bool of_path = got.second == EADDRINUSE || got.second == ENAMETOOLONG;
        EXPECT_EQ(fails || of_path ? -1 : 0, got.first);
        EXPECT_EQ(of_path ? got.second : faults_->error(), got.second);
      }
      if (fails && faults_->failed() == Call::recvmsg) throw Over();
      if (worked) return;
      if (fails && traits & ends && faults_->failed() < Call::malloc) throw Over();
    }
    throw Over();
  }

  void connect(comm_socket_v4* c, const std::string& to) {
    step<throws>("connect", 0, [&] { return comm_socket_v4_connect_to(c, to.c_str()); });
    EXPECT_EQ(1, comm_socket_v4_is_open(c));
  }
  unsigned long accept(comm_socket_v4* s) {
    comm_socket_v4_client* client;
    const auto call = [&] { return (client = comm_socket_v4_accept_connection(s)) != nullptr; };
    step<ends>("accept", true, call);
    return comm_socket_v4_client_ptr2index(client);
  }
  CommPacket written() {
    CommPacket p;
    const auto write = [&] {
      p = make_packet();
      return p != nullptr && p->write_begin("open", "none", 0) == 0 && p->write_argv("a") == 0 &&
             p->write_nv_pair("k", "v") == 0 && p->write_end() == 0;
    };
    step<throws>("write", true, write);
    step<throws>("attach", true, [&] { return p->attach_fd_to_send(0); });
    return p;
  }
  void receive(const CommPacket& sent, const std::function<comm_socket_v4_packet*()>& retrieve) {
    CommPacket p;
    step("receive", true, [&] { return p.reset(retrieve()), p != nullptr; });
    EXPECT_EQ(bytes_of(sent.get()), bytes_of(p.get()));
    EXPECT_EQ(1u, p->attached_fd_count());
  }

  void play(comm_socket_v4* s, comm_socket_v4* c, comm_socket_v4* late) {
    if (!fs::exists(path_)) close(bound_socket(path_));  // the file of a dead server
    if (!comm_socket_v4_is_open(s)) await_death(path_);
    step("keep a reserve", 0, [&] { return comm_socket_v4_set_descriptor_reserve(s, 1); });
    comm_socket_v4_set_socket_mode(s, 0600);
    comm_socket_v4_set_max_descriptors(s, 60);
    step<throws>("create", 0, [&] { return comm_socket_v4_create_server(s, path_.c_str()); });
    connect(c, link_);
    comm_socket_v4_set_connect_timeout_routine(late, 1);
    connect(late, path_);
    step("watch", true, [&] { return comm_socket_v4_get_connect_fd(late) >= 0; });
    const auto wait = [&] { return comm_socket_v4_connect_wait_for_completion(late, ULONG_MAX); };
    step<ends>("wait in the queue", 0, wait);
    step("wait for a client", 1,
         [&] { return comm_socket_v4_server_from_client_readable(s, ULONG_MAX); });
    const unsigned long index = accept(s);
    step<ends>("complete", 1, [&] { return comm_socket_v4_connect_check_pending(late); });
    const unsigned long late_index = accept(s);
    std::vector<CommEndpoint> crowd;
    while (crowd.size() < 14) crowd.push_back(join(s).first);
    const CommEndpoint last = make_endpoint();
    comm_socket_v4_connect_to(last.get(), path_.c_str());
    accept(s);
    EXPECT_EQ(24u, s->client_allocation_count());

    step("who is it", true, [&] {
      return CommDescriptor(comm_socket_v4_client_get_pidfd(&s->client[index])).is_open();
    });
    ucred cred;
    step("who serves", 0, [&] { return comm_socket_v4_get_server_cred(c, &cred); });
    const CommPacket request = written(), answer = written();
    const auto length = static_cast<int>(request->buffer_length);
    step("send", length, [&] { return comm_socket_v4_packet_send_to_server(c, request.get()); });
    step("idle", 0, [&] { return comm_socket_v4_idle(s); });
    comm_socket_v4_client* client = nullptr;
    receive(request, [&] { return comm_socket_v4_server_get_packet(s, &client); });
    EXPECT_EQ(s->index2client(index), client);
    CommLargePacketQueue queue;
    int ahead = 0;
    for (const CommPacket p = ping_packet();
         comm_socket_v4_packet_send_to_client(client, p.get()) > 0;)
      ++ahead;
    step<throws>("queue", 1, [&] { return queue.send_packet(client, answer.get()); });
    for (; ahead > 0; --ahead) CommPacket(comm_socket_v4_client_get_packet_from_server(c));
    step("flush", true, [&] { return queue.flush_queued_packet(client), queue.queued_count == 0; });
    step("wait for it", 1,
         [&] { return comm_socket_v4_client_from_server_readable(c, ULONG_MAX); });
    receive(answer, [&] { return comm_socket_v4_client_get_packet_from_server(c); });

    comm_socket_v4_close(late);
    await_end(s->client[late_index].client_fd);
    step("notice", true, [&] {
      return comm_socket_v4_idle(s) == 0 && comm_socket_v4_idle(s) == 0 &&
             (client = comm_socket_v4_get_disconnected_client(s)) == s->index2client(late_index);
    });
    step("release", 0, [&] { return comm_socket_v4_free_client(client), 0; });
    step("refuse descriptors", 0, [&] { return comm_socket_v4_set_max_descriptors(s, 0); });
    step("last words", 0, [&] { return comm_socket_v4_client_end_sending(&s->client[index]); });
    CommDescriptor handed_over(dup(s->socket_fd));
    step("stop listening", 0, [&] { return comm_socket_v4_stop_listening(s); });
    step("close", 0, [&] { return comm_socket_v4_close(s); });
    step<throws>("take over", 0, [&] {
      const int taken = comm_socket_v4_use_server_socket(s, handed_over.get());
      if (taken == 0) handed_over.release();
      return taken;
    });
    comm_socket_v4_close(s);
    comm_socket_v4_close(c);
    step("pair", 0, [&] { return comm_socket_v4_connect_new_socketpair(c); });
    const int fd = comm_socket_v4_socketpair_get_remote_end(c);
    step("adopt", 0, [&] { return comm_socket_v4_connect_use_socketpair(late, fd); });
  }

  // The same scenario twice on what `make` gives, the first time with the next fault, until there
  // are no more.
  template <class Make, class Play>
  void play_all(const std::vector<Mode>& modes, const Make& make, const Play& play_once) {
    StderrCapture captured;
    for (const Mode& mode : modes) {
      mode_ = &mode;
      unsigned k = 0;
      for (bool met = true; met && !HasFailure(); captured.clear()) {
        SCOPED_TRACE(testing::Message() << "error " << mode.error << ", call " << ++k);
        const Lines before = open_descriptors();
        {
          const auto scene = make();
          Faults faults, none;
          faults.fail_any(k, mode.error, mode.calls);
          for (Faults* const now : {&faults, &none}) {
            faults_ = &now->replace(Call::usleep, [](auto&, void*) { return 0; });
            try {
              play_once(*scene);
            } catch (const Over&) {
              EXPECT_EQ(&faults, faults_) << "does not work again";
            }
          }
          met = faults.fired() != 0;
        }
        EXPECT_EQ(Lines{}, changed_descriptors(before));
      }
      EXPECT_LT(10u, k) << "the scenario makes hardly any calls";
    }
  }
};

TEST_F(EveryFailureTest, IsToldLosesNothingAndLeavesEverythingUsable) {
  struct Scene {
    const CommEndpoint s = make_endpoint(), c = make_endpoint(), late = make_endpoint();
  };
  fs::create_symlink(path_, link_);
  play_all(
      {{0, {}},
       {EINTR, {Call::sendmsg, Call::recvmsg, Call::select, Call::poll, Call::usleep}},
       {EAGAIN, {Call::sendmsg, Call::recvmsg, Call::connect, Call::accept4}}},
      [] { return std::make_unique<Scene>(); },
      [&](Scene& scene) { play(scene.s.get(), scene.c.get(), scene.late.get()); });
}

// A server that sends back what it gets, and a client, in one loop.
struct EchoLoop : CommLoopHandler {
  std::unique_ptr<CommLoop> loop;
  CommLoopId server = {0, 0}, own = {0, 0}, peer = {0, 0};
  int answers = 0, times = 0;
  std::vector<CommLoopReason> gone;

  bool on_connect(CommLoop&, CommLoopId id, const ucred&) override {
    if (id != own) peer = id;
    return true;
  }
  void on_packet(CommLoop&, CommLoopId from, comm_socket_v4_packet* p) override {
    if (from == own)
      ++answers;
    else if (loop->send(from, p) < 0)
      loop->disconnect(from);
  }
  void on_gone(CommLoop&, CommLoopId, CommLoopReason why, int) override { gone.push_back(why); }
  void on_time(CommLoop&, CommLoopId) override { ++times; }
};

class EveryFailureOfALoopTest : public EveryFailureTest {
 protected:
  // Turns until this holds, or a connection has gone that should not have, which takes a fault.
  template <class Done>
  void turn_until(EchoLoop& echo, bool may_go, const Done& done) {
    while (!done()) {
      const unsigned fired = faults_->fired();
      const Outcome turn = outcome(*faults_, [&] { return echo.loop->dispatch(ULONG_MAX); });
      if (turn.first < 0) {
        EXPECT_EQ(Outcome(fired + 1, faults_->error()), Outcome(faults_->fired(), turn.second));
      }
      if (may_go || echo.gone.empty()) continue;
      EXPECT_EQ(1u, faults_->fired());
      throw Over();
    }
  }
  void play(EchoLoop& echo) {
    step<throws>("loop", true, [&] {
      if (echo.loop == nullptr || echo.loop->fd() < 0) echo.loop = std::make_unique<CommLoop>();
      return echo.loop->fd() >= 0;
    });
    CommLoop& loop = *echo.loop;
    loop.remove(echo.server);
    loop.remove(echo.own);
    echo.answers = echo.times = 0;
    echo.gone.clear();
    echo.gone.reserve(4);  // Handlers must not throw.
    const auto there = [](CommLoopId id) { return id.generation != 0; };
    step("serve", true, [&] { return there(echo.server = loop.serve(path_.c_str(), echo)); });
    step("connect", true, [&] { return there(echo.own = loop.connect(path_.c_str(), echo)); });
    step("time", true, [&] { return there(loop.after(1, echo)); });
    const CommPacket request = ping_packet();
    step<ends>("send", true, [&] { return loop.send(echo.own, request.get()) >= 0; });
    turn_until(echo, false, [&] { return echo.answers == 1 && echo.times >= 1; });
    step("finish", 0, [&] { return loop.finish(echo.peer); });
    turn_until(echo, true, [&] { return echo.gone.size() == 2; });
  }
};

TEST_F(EveryFailureOfALoopTest, IsToldOrPassesAndTheLoopGoesOn) {
  play_all(
      {{0, {}},
       {EINTR, {Call::send, Call::recv, Call::recvmsg, Call::accept4, Call::epoll_wait}},
       {EAGAIN, {Call::send, Call::recv, Call::recvmsg, Call::connect, Call::accept4}}},
      [] { return std::make_unique<EchoLoop>(); }, [&](EchoLoop& echo) { play(echo); });
}

// To find out who holds a path takes more allocations than a loop should meet.
TEST_F(EveryFailureTest, APathIsHeldEvenWhenThereIsNoMemoryToSayByWhom) {
  const StderrCapture captured;
  const int server = bound_socket(path_);
  const CommEndpoint s = make_endpoint();
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
