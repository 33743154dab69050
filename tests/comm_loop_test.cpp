// CommLoop: what its handlers are told, what one peer cannot do to the others, and what is left
// when they have gone.
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/un.h>
#include <tarn_utils_v4/comm_loop.h>

#include <climits>
#include <csignal>
#include <map>
#include <thread>

#include "connections.h"

namespace {

std::string name_of(CommLoopReason why) {
  const char* const names[] = {"ended", "failed",       "unsendable",   "no first",
                               "idle",  "not finished", "disconnected", "finished"};
  return names[why];
}

// Writes down what it is told, and does what a test wants then.
struct Recorder : CommLoopHandler {
  std::vector<CommLoopId> peers;  // in the order of their coming
  Lines told;
  std::function<bool(CommLoopId)> connect_hook = [](CommLoopId) { return true; };
  std::function<void(CommLoopId, comm_socket_v4_packet*)> packet_hook = [](auto...) {};
  std::function<void()> other_hook = [] {};

  std::string name(CommLoopId id) const {
    for (std::size_t i = 0; i < peers.size(); ++i)
      if (peers[i] == id) return std::to_string(i) + " ";
    return "";
  }
  bool on_connect(CommLoop&, CommLoopId peer, const ucred& who) override {
    EXPECT_EQ(std::tuple(getpid(), getuid(), getgid()), std::tuple(who.pid, who.uid, who.gid));
    peers.push_back(peer);
    told.push_back(name(peer) + "connect");
    const auto hook = connect_hook;
    return hook(peer);
  }
  void on_packet(CommLoop&, CommLoopId from, comm_socket_v4_packet* p) override {
    told.push_back(name(from) + p->command());
    const auto hook = packet_hook;
    hook(from, p);
  }
  void on_room(CommLoop&, CommLoopId peer) override { tell(name(peer) + "room"); }
  void on_gone(CommLoop&, CommLoopId peer, CommLoopReason why, int error) override {
    tell(name(peer) + name_of(why) + (error != 0 ? std::string(" ") + strerrorname_np(error) : ""));
  }
  void on_accept_failed(CommLoop&, CommLoopId, int error) override {
    tell(std::string("accept ") + strerrorname_np(error));
  }
  void on_ready(CommLoop&, CommLoopId, std::uint32_t events) override {
    tell("ready " + std::to_string(events));
  }
  void on_time(CommLoop&, CommLoopId) override { tell("time"); }

 private:
  void tell(const std::string& line) {
    told.push_back(line);
    const auto hook = other_hook;
    hook();
  }
};

// Of an id: whether there is one.
long there(CommLoopId id) { return id.generation != 0; }

class CommLoopTest : public CommTest {
 protected:
  StderrCapture captured;
  std::string address = abstract_name();
  Recorder handler;
  CommLoop loop;
  CommLoopLimits limits;
  CommLoopId server = {0, 0};
  std::vector<CommEndpoint> clients;

  void serve() {
    limits.descriptors_per_packet = 60;
    server = loop.serve(address.c_str(), handler, limits);
    EXPECT_NE(0u, server.generation);
  }
  // Another one, at an address of its own.
  void serve_another() {
    address += "2";
    serve();
  }
  // Connects one more.
  comm_socket_v4* knock() {
    clients.push_back(make_endpoint());
    comm_socket_v4* const c = clients.back().get();
    EXPECT_EQ(0, comm_socket_v4_connect_to(c, address.c_str()));
    return c;
  }
  // And lets it in.
  comm_socket_v4* join() {
    comm_socket_v4* const c = knock();
    EXPECT_EQ(1, loop.dispatch(ULONG_MAX));
    return c;
  }
  // Turns until this was told; what else was told before, taken away.
  Lines until(const std::string& line) {
    Lines all;
    while (all.empty() || all.back() != line) {
      if (handler.told.empty()) {
        EXPECT_LE(0, loop.dispatch(ULONG_MAX));
      } else {
        all.push_back(handler.told.front());
        handler.told.erase(handler.told.begin());
      }
    }
    return all;
  }
  // Whatever can be done now. A loop that spins does not come back.
  Lines quiet() {
    while (loop.dispatch(0) == 1) continue;
    return std::exchange(handler.told, {});
  }
  int send_from(comm_socket_v4* c, const CommPacket& p = ping_packet()) {
    return comm_socket_v4_packet_send_to_server(c, p.get());
  }
  CommLoopId peer(std::size_t i = 0) const { return handler.peers.at(i); }
  std::string send(CommLoopId to, const CommPacket& p = ping_packet()) {
    return answered(loop.send(to, p.get()));
  }
  // Until the queue of the peer holds one packet; how many were sent.
  int fill(CommLoopId to) {
    int sent = 0;
    while (send(to) == "1") ++sent;
    return sent;
  }
  CommLoopCounters counters() const { return loop.counters(); }
};

TEST_F(CommLoopTest, ServesClientsAndPairsAndConnectsBehindOneDescriptor) {
  handler.packet_hook = [&](CommLoopId from, auto* p) {
    if (from == peer(3)) return;
    EXPECT_EQ("1", answered(loop.send(from, p)));
  };
  serve();
  comm_socket_v4* const c = join();
  int pair[2];
  ASSERT_EQ(0, comm_socket_v4_make_socketpair(pair));
  const CommEndpoint other = make_endpoint();
  comm_socket_v4_connect_use_socketpair(other.get(), pair[1]);
  CommLoopId own[] = {loop.adopt(pair[0], handler), loop.connect(address.c_str(), handler)};
  EXPECT_EQ((Lines{"0 connect", "1 connect", "2 connect", "3 connect"}), quiet());
  EXPECT_EQ(own[0], peer(2));
  EXPECT_EQ(own[1], peer(3)) << "is the client's end; peer 1 is the server's";

  const CommPacket sent = carrier(2);
  const Numbers files = files_of(sent);
  send_from(c, sent);
  send_from(other.get());
  EXPECT_EQ("1", send(own[1]));
  pollfd readable = {loop.fd(), POLLIN, 0};
  EXPECT_EQ(1, poll(&readable, 1, 0));
  Lines told = quiet();
  std::sort(told.begin(), told.end());
  EXPECT_EQ((Lines{"0 ping", "1 ping", "2 ping", "3 ping"}), told);
  EXPECT_EQ(0, poll(&readable, 1, 0));
  EXPECT_EQ(files, files_of(retrieve(c)));
  EXPECT_EQ(bytes_of(sent.get()), bytes_of(retrieve(other.get()).get()));

  CommLoopCounters of_server;
  EXPECT_EQ(0, loop.counters(server, of_server));
  EXPECT_EQ((std::tuple(2ul, 2ul, 188ul, 2ul, 188ul, 2ul)),
            std::tuple(of_server.accepted, of_server.packets_received, of_server.bytes_received,
                       of_server.packets_sent, of_server.bytes_sent, of_server.connections));
  EXPECT_EQ(4u, counters().packets_received);
  clients.clear();
  EXPECT_EQ("0 ended", until("0 ended").back());
  EXPECT_EQ(0, loop.remove(own[0]));
  EXPECT_EQ(0, loop.remove(server));
  EXPECT_EQ(Lines{"3 ended"}, until("3 ended"));
  EXPECT_EQ("", captured.text());
  EXPECT_EQ((std::tuple(2ul, 2ul, 0ul)),
            std::tuple(counters().accepted, counters().gone[comm_loop_peer_ended],
                       counters().connections));
}

TEST_F(CommLoopTest, AnIdThatHasGoneReachesNobody) {
  serve();
  join();
  const CommLoopId gone = peer(0);
  EXPECT_EQ(0, loop.set_tag(gone, 7));
  EXPECT_EQ(0, loop.disconnect(gone));
  EXPECT_EQ("-1 ENOENT", send(gone)) << "is going";
  handler.other_hook = [&] {
    EXPECT_EQ(7u, loop.tag(gone));
    EXPECT_NE(nullptr, loop.client(gone));
  };
  EXPECT_EQ((Lines{"0 connect", "0 disconnected"}), until("0 disconnected"));
  comm_socket_v4* const next = join();
  EXPECT_EQ(std::tuple(gone.slot, true),
            std::tuple(peer(1).slot, gone.generation != peer(1).generation));
  for (const CommLoopId id : {gone, CommLoopId{0, 0}, CommLoopId{99, 1}}) {
    CommLoopCounters some;
    const Outcome none(-1, ENOENT);
    EXPECT_EQ("-1 ENOENT", send(id));
    EXPECT_EQ(none, outcome([&] { return loop.disconnect(id); }));
    EXPECT_EQ(none, outcome([&] { return loop.finish(id); }));
    EXPECT_EQ(none, outcome([&] { return loop.pause(id); }));
    EXPECT_EQ(none, outcome([&] { return loop.remove(id); }));
    EXPECT_EQ(none, outcome([&] { return loop.stop_listening(id); }));
    EXPECT_EQ(none, outcome([&] { return loop.counters(id, some); }));
    EXPECT_EQ((std::tuple(0ul, nullptr, nullptr)),
              std::tuple(loop.tag(id), loop.client(id), loop.endpoint(id)));
  }
  EXPECT_EQ(nullptr, retrieve(next));
  EXPECT_EQ(1, comm_socket_v4_is_open(next));
  EXPECT_EQ(Outcome(-1, EINVAL), outcome([&] { return loop.finish(server); }));
  EXPECT_EQ(Outcome(-1, EINVAL), outcome([&] { return loop.stop_listening(peer(1)); }));
  EXPECT_EQ("-1 EINVAL", send(server));
}

TEST_F(CommLoopTest, AHandlerMayEndAnythingAtAnyMoment) {
  struct Fleeting : Recorder {
    CommLoop* loop = nullptr;
    CommLoopId server = {0, 0};
    const char* when = "";
    int* left = nullptr;
    ~Fleeting() override { --*left; }
    void end(const char* moment) {
      if (std::strcmp(when, moment) != 0) return;
      loop->remove(server);
      delete this;
    }
    bool on_connect(CommLoop&, CommLoopId, const ucred&) override { return end("connect"), true; }
    void on_packet(CommLoop& l, CommLoopId from, comm_socket_v4_packet* p) override {
      if (std::strcmp(when, "gone") == 0) l.disconnect(from);
      while (std::strcmp(when, "room") == 0 && l.send(from, p) == 1) continue;
      end("packet");
    }
    void on_room(CommLoop&, CommLoopId) override { end("room"); }
    void on_gone(CommLoop&, CommLoopId, CommLoopReason, int) override { end("gone"); }
  };
  int left = 4;
  for (const char* const when : {"connect", "packet", "room", "gone"}) {
    auto* const fleeting = new Fleeting;
    fleeting->loop = &loop;
    fleeting->when = when;
    fleeting->left = &left;
    fleeting->server = loop.serve(address.c_str(), *fleeting);
    const int before = left;
    comm_socket_v4* const c = join();
    if (comm_socket_v4_is_open(c)) send_from(c);
    send_from(c);
    while (left == before) {
      loop.dispatch(in_ms(1));
      retrieve(c);
    }
    clients.clear();
  }
  EXPECT_EQ(0, left);
}

TEST_F(CommLoopTest, WhoDoesNotReadFillsItsQueueAndIsNotReadUntilItIsEmpty) {
  limits.queued_packets = 3;
  serve();
  comm_socket_v4* const c = join();
  until("0 connect");
  const int in_socket = fill(peer());
  EXPECT_EQ("0", send(peer()));
  EXPECT_EQ("0", send(peer()));
  EXPECT_EQ("-1 EAGAIN", send(peer())) << "three are queued";
  EXPECT_EQ(
      (std::tuple(3ul, 282ul, 1ul)),
      std::tuple(counters().queued_packets, counters().queued_bytes, counters().sends_refused));
  send_from(c);
  EXPECT_EQ(Lines{}, quiet());
  int got = 0;
  for (; got < in_socket; ++got) EXPECT_NE(nullptr, retrieve(c));
  EXPECT_EQ((Lines{"0 room", "0 ping"}), quiet());
  for (; retrieve(c) != nullptr; ++got) continue;
  EXPECT_EQ(in_socket + 3, got);

  limits.queued_packets = 64;
  limits.queued_bytes = 94 + 1;
  serve_another();
  join();
  fill(peer(1));
  EXPECT_EQ("0", send(peer(1)));
  EXPECT_EQ("-1 EAGAIN", send(peer(1))) << "and for bytes";
  for (CommEndpoint& one : clients) one.reset();
  EXPECT_EQ((Lines{"1 connect", "1 room", "0 ended", "1 ended"}), quiet())
      << "who waits for room goes on";
  EXPECT_EQ(
      (std::tuple(0ul, 0ul, 2ul)),
      std::tuple(counters().queued_packets, counters().queued_bytes, counters().packets_unsent));
}

TEST_F(CommLoopTest, WhatCanNeverBeSentEndsTheConnectionAndNothingStandsBehindIt) {
  serve();
  comm_socket_v4* const c = join();
  join();
  const CommPacket begun = make_packet();
  begun->write_begin("x", nullptr, 0);
  const CommPacket empty = make_packet();
  EXPECT_EQ((Lines{"-1 EINVAL", "-1 EINVAL", "-1 EINVAL", "-1 EMSGSIZE"}),
            (Lines{answered(loop.send(peer(), nullptr)), send(peer(), begun), send(peer(), empty),
                   send(peer(), sized(65552))}));
  EXPECT_EQ((Lines{"0 connect", "1 connect"}), quiet());

  const CommPacket twice = carrier(1);
  EXPECT_EQ("1", send(peer(1), twice));
  fill(peer(0));
  EXPECT_EQ((Lines{"0", "0"}), (Lines{send(peer(0), twice), send(peer(0))}));
  EXPECT_EQ("-1 EBADF", send(peer(1), twice)) << "at once";
  while (retrieve(c) != nullptr) continue;
  Lines told = quiet();
  EXPECT_EQ((Lines{"1 unsendable EBADF", "0 unsendable EBADF"}), told);
  EXPECT_EQ(0u, counters().queued_packets);
}

TEST_F(CommLoopTest, APeerThatEndsByHalvesOrDiesHoldsNobodyUp) {
  serve();
  comm_socket_v4* const deaf = join();
  comm_socket_v4* const silent = join();
  comm_socket_v4* const paused = join();
  EXPECT_EQ((Lines{"0 connect", "1 connect", "2 connect"}), quiet());
  fill(peer(0));
  shutdown(deaf->socket_fd, SHUT_RD);
  while (recv(deaf->socket_fd, nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) > 0) continue;
  send_from(deaf);
  EXPECT_EQ((Lines{"0 room", "0 ping"}), quiet());
  EXPECT_EQ("1", send(peer(0))) << "nobody reads it";

  int waiting = fill(peer(1)) + 1;
  send_from(silent);
  shutdown(silent->socket_fd, SHUT_WR);
  EXPECT_EQ(Lines{"1 ping"}, quiet());
  for (; waiting > 0 && retrieve(silent) != nullptr; --waiting) loop.dispatch(0);
  EXPECT_EQ(0, waiting) << "who asks no more still gets what is queued";
  EXPECT_EQ((Lines{"1 room", "1 ended"}), quiet());

  loop.pause(peer(2));
  send_from(paused);
  clients.clear();
  EXPECT_EQ(Lines{"0 ended"}, quiet());
  EXPECT_EQ(0, loop.resume(peer(2)));
  EXPECT_EQ((Lines{"2 ping", "2 ended"}), quiet());
}

TEST_F(CommLoopTest, WhoIsTooMuchIsTurnedAwayAndCounted) {
  limits.clients = 2;
  limits.clients_per_user = 1;
  serve();
  join();
  comm_socket_v4* const second = join();
  await_end(second->socket_fd);
  EXPECT_EQ("-1 ENOTCONN", answered(comm_socket_v4_idle(second)));
  CommLoopLimits none;
  none.clients = none.accepts_per_turn = none.packets_per_turn = 0;
  address += "2";
  loop.serve(address.c_str(), handler, none);
  join();
  handler.connect_hook = [](CommLoopId) { return false; };
  address += "3";
  loop.serve(address.c_str(), handler);
  join();
  EXPECT_EQ((Lines{"0 connect", "1 connect"}), quiet()) << "nobody who was let in has gone";
  const CommLoopCounters all = counters();
  EXPECT_EQ((std::tuple(4ul, 1ul, 1ul, 1ul, 1ul)),
            std::tuple(all.accepted, all.turned_away_full, all.turned_away_user,
                       all.turned_away_handler, all.connections));
  handler.connect_hook = [](CommLoopId) { return true; };
  address.resize(address.size() - 2);
  clients[0].reset();
  until("0 ended");
  join();
  EXPECT_EQ(Lines{"2 connect"}, quiet()) << "the place of one who has gone is free";
}

TEST_F(CommLoopTest, WithoutDescriptorsAcceptsWaitAndGoOnByThemselves) {
  serve();
  comm_socket_v4* const c = join();
  until("0 connect");
  knock();
  CommLoop* const l = &loop;
  const rlim_t limit = lowest_free_descriptor();
  with_descriptor_limit(limit, [l] {
    while (l->dispatch(0) == 1) continue;
    return 0;
  });
  EXPECT_EQ((Lines{}), handler.told);
  EXPECT_EQ(1u, counters().accepts_put_off);
  EXPECT_EQ("WARNING: CommLoop puts new connections off, Too many open files",
            captured.lines().at(0));
  send_from(c);
  EXPECT_EQ((Lines{"0 ping", "1 connect"}), until("1 connect"));
  EXPECT_EQ(1u, captured.lines().size());
}

TEST_F(CommLoopTest, WithoutMemoryNobodyIsLost) {
  struct Echo : CommLoopHandler {
    void on_packet(CommLoop& l, CommLoopId from, comm_socket_v4_packet* p) override {
      l.send(from, p);
    }
  } echo;
  loop.serve(address.c_str(), echo);
  for (unsigned k = 1, fired = 1; fired != 0; ++k) {
    CommEndpoint c = make_endpoint();
    comm_socket_v4_connect_to(c.get(), address.c_str());
    send_from(c.get());
    Faults faults;
    faults.fail_any(k, ENOMEM, {Call::malloc, Call::operator_new});
    faults.during([&] { quiet(); });
    fired = faults.fired();
    while (comm_socket_v4_is_open(c.get()) && retrieve(c.get()) == nullptr) loop.dispatch(in_ms(1));
    EXPECT_EQ(1, comm_socket_v4_is_open(c.get())) << "allocation " << k;
    clients.push_back(std::move(c));
  }
  EXPECT_EQ(clients.size(), counters().connections);
}

TEST_F(CommLoopTest, WhoTakesTooLongIsEnded) {
  limits.first_packet_us = 1;
  serve();
  const CommLoopId first = server;
  join();
  EXPECT_EQ((Lines{"0 connect", "0 no first"}), until("0 no first"));
  loop.remove(first);
  limits.first_packet_us = 60000000;
  limits.idle_us = 20000;
  serve();
  comm_socket_v4* const c = join();
  send_from(c);
  const unsigned long start = in_ms(0);
  EXPECT_EQ("1 idle", until("1 idle").back());
  EXPECT_LE(start + 20000, in_ms(0));
  join();
  until("2 connect");
  loop.pause(peer(2));
  for (const unsigned long end = in_ms(50); in_ms(0) < end;) loop.dispatch(end);
  EXPECT_EQ(Lines{}, handler.told) << "who is paused is spared";
  loop.resume(peer(2));
  EXPECT_EQ(Lines{"2 idle"}, until("2 idle"));

  limits.connect_us = limits.finish_us = 1;
  limits.idle_us = 0;
  serve_another();
  loop.pause(server);
  knock();
  EXPECT_NE(0u, loop.connect(address.c_str(), handler, limits).generation);
  EXPECT_EQ(Lines{"failed ETIMEDOUT"}, until("failed ETIMEDOUT")) << "a full queue";
  loop.resume(server);
  until("3 connect");
  loop.finish(peer(3));
  EXPECT_EQ(Lines{"3 not finished"}, until("3 not finished"));

  const unsigned long called = in_ms(0);
  const CommLoopId timer = loop.after(20000, handler);
  EXPECT_EQ(0, loop.remove(loop.after(1, handler)));
  EXPECT_EQ(Lines{"time"}, until("time"));
  EXPECT_LE(called + 20000, in_ms(0));
  EXPECT_EQ(Outcome(-1, ENOENT), outcome([&] { return loop.remove(timer); }));

  address.pop_back();
  join();
  usleep(10000);
  comm_socket_v4* const late = join();
  usleep(12000);
  send_from(late);
  usleep(15000);
  // Its packet is behind the time of the other.
  until(std::to_string(handler.peers.size() - 1) + " ping");
}

TEST_F(CommLoopTest, AConnectThatMeetsAFullQueueCompletesByItself) {
  serve();
  loop.pause(server);
  knock();
  CommEndpoint prepared = make_endpoint();
  prepared->log_mask = 2;
  comm_socket_v4* const endpoint = prepared.get();
  EXPECT_EQ(Outcome(0, ENOENT),
            outcome([&] { return there(loop.connect(endpoint, "/does/not/exist", handler)); }));
  endpoint->next_packet = ping_packet().release();  // of an earlier connection
  const CommLoopId own = loop.connect(prepared.release(), address.c_str(), handler);
  EXPECT_EQ(std::make_pair(endpoint, 2), std::make_pair(loop.endpoint(own), +endpoint->log_mask));
  EXPECT_EQ(Outcome(0, EINVAL),
            outcome([&] { return there(loop.connect(endpoint, address.c_str(), handler)); }));
  EXPECT_EQ("0", send(own)) << "is queued until then";
  EXPECT_EQ(Lines{}, quiet());
  loop.resume(server);
  std::map<std::string, int> told;
  for (int events = 5; events > 0; --events) {
    while (handler.told.empty()) loop.dispatch(ULONG_MAX);
    ++told[handler.told.front().substr(2)];
    handler.told.erase(handler.told.begin());
  }
  EXPECT_EQ((std::map<std::string, int>{{"connect", 3}, {"room", 1}, {"ping", 1}}), told);
  EXPECT_EQ(Outcome(0, ENOENT),
            outcome([&] { return there(loop.connect("/does/not/exist", handler)); }));
}

TEST_F(CommLoopTest, LastWordsAreReadAndWhatTheOtherStillSendsIsDropped) {
  serve();
  comm_socket_v4* const c = join();
  until("0 connect");
  const int in_socket = fill(peer());
  send_from(c);
  EXPECT_EQ(0, loop.finish(peer()));
  EXPECT_EQ("-1 ENOENT", send(peer()));
  EXPECT_EQ(Lines{}, quiet());
  int got = 0;
  for (; comm_socket_v4_is_open(c); loop.dispatch(0))
    while (retrieve(c) != nullptr) ++got;
  EXPECT_EQ(in_socket + 1, got);
  EXPECT_EQ(Lines{"0 finished"}, until("0 finished"));

  comm_socket_v4* const other = join();
  for (int i = 0; i < 3; ++i) send(peer(1));
  send_from(other);
  EXPECT_EQ(0, loop.disconnect(peer(1)));
  EXPECT_EQ((Lines{"1 connect", "1 disconnected"}), quiet());
  for (int i = 0; i < 3; ++i) EXPECT_NE(nullptr, retrieve(other)) << "no reset takes them back";
}

// The socket of a connection lingers in the close when there are bytes that its peer does not read.
TEST_F(CommLoopTest, WhatIsTooLongIsDroppedAndDescriptorsComeOnceTheyMay) {
  std::vector<std::size_t> descriptors;
  handler.packet_hook = [&](CommLoopId, auto* p) { descriptors.push_back(p->attached_fd_count()); };
  server = loop.serve(address.c_str(), handler, limits);
  comm_socket_v4* const c = join();
  for (const std::size_t length : {65552ul, 65551ul}) send_from(c, sized(length));
  EXPECT_EQ(1, loop.dispatch(ULONG_MAX));
  EXPECT_EQ((Lines{"0 connect", "0 ping"}), std::exchange(handler.told, {}))
      << "what is dropped ends no turn";
  EXPECT_EQ(std::pair(1ul, 65551ul),
            std::pair(counters().packets_dropped, counters().bytes_received));
  comm_socket_v4_set_max_descriptors(loop.endpoint(server), 1);
  send_from(c, carrier(1));
  EXPECT_EQ(Lines{"0 ping"}, quiet());
  comm_socket_v4_set_max_descriptors(loop.endpoint(server), 0);
  address += "2";
  server = loop.serve(address.c_str(), handler, limits);
  comm_socket_v4_set_max_descriptors(loop.endpoint(server), 1);
  send_from(join(), carrier(1));
  EXPECT_EQ((Lines{"1 connect", "1 ping"}), quiet());
  EXPECT_EQ((std::vector<std::size_t>{0, 1, 1}), descriptors);

  // Sent before they were refused, by a client that was accepted by then, one that was not, and the
  // other end of a pair.
  const std::uint64_t dropped = counters().packets_dropped;
  for (const bool accepted : {true, false}) {
    CommEndpoint early = make_endpoint();
    address += "3";
    EXPECT_EQ(0, comm_socket_v4_create_server(early.get(), address.c_str()));
    send_from(knock(), carrier(1));
    EXPECT_EQ(accepted, accepted && comm_socket_v4_accept_connection(early.get()) != nullptr);
    comm_socket_v4_set_max_descriptors(early.get(), 0);
    loop.add(early.release(), handler, limits);
  }
  const CommEndpoint pair = make_endpoint();
  EXPECT_EQ(0, comm_socket_v4_connect_new_socketpair(pair.get()));
  send_from(pair.get(), carrier(1));
  loop.adopt(comm_socket_v4_socketpair_get_remote_end(pair.get()), handler, limits);
  EXPECT_EQ((Lines{"2 connect", "3 connect", "4 connect"}), quiet());
  EXPECT_EQ(dropped + 3, counters().packets_dropped);
}

TEST_F(CommLoopTest, ADescriptorThatLingersInItsCloseKeepsNobodyWaiting) {
  serve();
  const CommDescriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in at = {};
  socklen_t length = sizeof(at);
  at.sin_family = AF_INET;
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(listener.get(), reinterpret_cast<sockaddr*>(&at), length);
  listen(listener.get(), 8);
  getsockname(listener.get(), reinterpret_cast<sockaddr*>(&at), &length);
  const auto lingering = [&] {
    CommPacket p = ping_packet();
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&at), length));
    const linger for_days = {1, 30000};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &for_days, sizeof(for_days));
    const std::string bytes(1 << 22, 'x');
    while (::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) continue;
    p->attached_fd.push_back(fd);
    return p;
  };
  comm_socket_v4* const c = join();
  const CommPacket damaged = lingering();
  damaged->buffer[0] = 0;
  send_from(c, lingering());
  send_from(c, damaged);
  EXPECT_EQ((Lines{"0 connect", "0 ping"}), quiet());
  EXPECT_EQ(1u, counters().packets_dropped);
  iovec nothing = {nullptr, 0};
  msghdr record = {};
  record.msg_iov = &nothing;
  record.msg_iovlen = 1;
  EXPECT_EQ(0, sendmsg(c->socket_fd, &record, 0));
  send_from(c, lingering());
  loop.disconnect(peer());
  EXPECT_EQ(Lines{"0 disconnected"}, quiet()) << "what nobody has read, behind an empty record";
  comm_socket_v4* const other = join();
  EXPECT_EQ(0, sendmsg(other->socket_fd, &record, 0));
  send_from(other, lingering());
  EXPECT_EQ((Lines{"1 connect", "1 ended"}), quiet()) << "behind one that was read";
  int pair[2];
  ASSERT_EQ(0, comm_socket_v4_make_socketpair(pair));
  clients.push_back(make_endpoint());
  comm_socket_v4_connect_use_socketpair(clients.back().get(), pair[1]);
  const CommLoopId own = loop.adopt(pair[0], handler, limits);
  EXPECT_EQ("1", send(own));
  send_from(clients.back().get(), lingering());
  clients.pop_back();
  EXPECT_EQ((Lines{"2 connect", "2 ended"}), quiet()) << "behind a reset";
}

TEST_F(CommLoopTest, AForkedChildKeepsNoConnectionAliveAndTakesNothingDown) {
  address = path();
  serve();
  comm_socket_v4* const c = join();
  until("0 connect");
  int gate[2];
  ASSERT_EQ(0, pipe2(gate, O_CLOEXEC));
  {
    Peer child([&] {
      close(gate[1]);
      char byte;
      EXPECT_EQ(0, read(gate[0], &byte, 1));
      loop.~CommLoop();
      new (&loop) CommLoop;
    });
    loop.disconnect(peer());
    EXPECT_EQ(Lines{"0 disconnected"}, quiet());
    EXPECT_EQ(nullptr, retrieve(c));
    EXPECT_EQ(0, comm_socket_v4_is_open(c)) << "the end is heard in spite of the child's copy";
    join();
    close(gate[1]);
  }
  close(gate[0]);
  send_from(clients.back().get());
  EXPECT_EQ((Lines{"1 connect", "1 ping"}), until("1 ping"));
  join();
  EXPECT_EQ(Lines{"2 connect"}, quiet()) << "the file is there";
}

TEST_F(CommLoopTest, AStopEndsOneRunWhereverItComesFrom) {
  EXPECT_EQ(0, loop.dispatch(0));
  loop.stop();
  EXPECT_TRUE(loop.stopped());
  EXPECT_EQ(0, loop.run()) << "it came before";
  EXPECT_FALSE(loop.stopped());
  std::thread stopper([&] { loop.stop(); });
  EXPECT_EQ(0, loop.run());
  stopper.join();
  static CommLoop* signalled;
  signalled = &loop;
  signal(SIGUSR1, [](int) { signalled->stop(); });
  handler.other_hook = [] { raise(SIGUSR1); };
  loop.after(1, handler);
  EXPECT_EQ(0, loop.run());
  signal(SIGUSR1, SIG_DFL);
  handler.other_hook = [&] {
    loop.stop();
    EXPECT_EQ(Outcome(-1, EBUSY), outcome([&] { return loop.run(); }));
  };
  loop.after(1, handler);
  EXPECT_EQ((Lines{"time", "time"}), (until("time"), until("time"), Lines{"time", "time"}));
}

TEST_F(CommLoopTest, WhatAHandlerThrowsComesOutAndTheLoopGoesOn) {
  // Whatever can be done now. All that is told throws.
  const auto quiet_in_spite = [&] {
    for (std::size_t thrown = 0;;) {
      try {
        if (loop.dispatch(0) == 1) continue;
        EXPECT_EQ(handler.told.size(), thrown);
        return std::exchange(handler.told, {});
      } catch (int) {
        ++thrown;
      }
    }
  };
  const CommDescriptor counter(eventfd(1, EFD_CLOEXEC));
  std::uint64_t count;
  handler.connect_hook = [](CommLoopId) -> bool { throw 1; };
  handler.packet_hook = [](auto...) { throw 1; };
  handler.other_hook = [] { throw 1; };
  serve();
  knock();
  EXPECT_EQ(Lines{"0 connect"}, quiet_in_spite());
  EXPECT_EQ((std::pair(0ul, 1ul)),
            std::pair(counters().connections, counters().turned_away_handler));
  handler.connect_hook = [](CommLoopId) { return true; };
  comm_socket_v4* const slow = join();
  comm_socket_v4* const other = join();
  handler.told.clear();
  for (int i = 0; i < 3; ++i) send_from(slow);
  send_from(other);
  EXPECT_EQ((Lines{"1 ping", "2 ping", "1 ping", "1 ping"}), quiet_in_spite())
      << "who throws all the time takes no turn of another";
  for (int sent = fill(peer(1)); sent > 0; --sent) EXPECT_NE(nullptr, retrieve(slow));
  EXPECT_EQ(Lines{"1 room"}, quiet_in_spite());
  clients.clear();
  EXPECT_EQ((Lines{"1 ended", "2 ended"}), quiet_in_spite());
  EXPECT_EQ(0u, counters().connections);
  shutdown(loop.endpoint(server)->socket_fd, SHUT_RDWR);
  EXPECT_EQ(Lines{"accept EINVAL"}, quiet_in_spite());
  for (int i = 0; i < 2; ++i) loop.after(1, handler);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_EQ((Lines{"time", "time"}), quiet_in_spite());
  loop.watch(counter.get(), POLLIN, handler);
  handler.other_hook = [&] {
    EXPECT_EQ(8, read(counter.get(), &count, sizeof count));
    throw 1;
  };
  EXPECT_EQ(Lines{"ready 1"}, quiet_in_spite());
}

TEST_F(CommLoopTest, AServerWhoseSocketFailsServesItsClientsOn) {
  serve();
  comm_socket_v4* const c = join();
  shutdown(loop.endpoint(server)->socket_fd, SHUT_RDWR);
  EXPECT_EQ((Lines{"0 connect", "accept EINVAL"}), quiet());
  send_from(c);
  EXPECT_EQ(Lines{"0 ping"}, quiet());
  loop.remove(server);
  serve();
  comm_socket_v4* const waits = knock();
  EXPECT_EQ(0, loop.stop_listening(server));
  EXPECT_EQ(Lines{}, quiet());
  await_end(waits->socket_fd);
}

TEST_F(CommLoopTest, WatchesOtherDescriptors) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  const CommLoopId id = loop.watch(ends[0], POLLIN, handler);
  EXPECT_EQ(Lines{}, quiet());
  EXPECT_EQ(1, write(ends[1], "x", 1));
  EXPECT_EQ(Lines{"ready 1"}, until("ready 1"));
  EXPECT_EQ(0, loop.pause(id));
  EXPECT_EQ(Lines{}, quiet());
  EXPECT_EQ(0, loop.resume(id));
  EXPECT_EQ(Lines{"ready 1"}, until("ready 1"));
  EXPECT_EQ(0, loop.remove(id));
  EXPECT_EQ(Lines{}, quiet());
  close(ends[0]);
  close(ends[1]);
  EXPECT_EQ(Outcome(0, EBADF),
            outcome([&] { return there(loop.watch(ends[0], POLLIN, handler)); }));
}

// Servers that are there already, with clients and a packet in a slot.
TEST_F(CommLoopTest, TakesOverWhatIsOpen) {
  CommEndpoint s = make_endpoint();
  comm_socket_v4_create_server(s.get(), address.c_str());
  auto [c, index] = ::join(s.get());
  send_from(c.get());
  comm_socket_v4_idle(s.get());
  comm_socket_v4_idle(s.get());
  EXPECT_NE(nullptr, s->client[index].next_packet);
  auto [given_up, other] = ::join(s.get());
  comm_socket_v4_disconnect_client(&s->client[other]);
  const CommEndpoint closed = make_endpoint();
  EXPECT_EQ(Outcome(0, EINVAL), outcome([&] { return there(loop.add(closed.get(), handler)); }));
  EXPECT_EQ(Outcome(0, EINVAL), outcome([&] { return there(loop.connect("", handler)); }));
  EXPECT_EQ(Outcome(0, EBADF), outcome([&] { return there(loop.adopt(-1, handler)); }));
  EXPECT_EQ(Outcome(0, ENOTSOCK), outcome([&] { return there(loop.adopt(loop.fd(), handler)); }));
  handler.connect_hook = [&](CommLoopId id) { return loop.pause(id) == 0; };
  limits.idle_us = 60000000;
  EXPECT_NE(0u, loop.add(s.release(), handler, limits).generation);
  EXPECT_EQ(Lines{"0 connect"}, quiet());
  EXPECT_EQ(nullptr, retrieve(given_up.get()));
  EXPECT_EQ(0, comm_socket_v4_is_open(given_up.get()));
  loop.resume(peer());
  EXPECT_EQ(Lines{"0 ping"}, quiet());

  int pair[2];
  ASSERT_EQ(0, comm_socket_v4_make_socketpair(pair));
  const CommDescriptor theirs(pair[1]);
  const CommLoopId own = loop.adopt(pair[0], handler);
  while (send(own) == "1") continue;
  while (recv(theirs.get(), nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) > 0) continue;
  handler.connect_hook = [](CommLoopId) { return true; };
  EXPECT_EQ((Lines{"1 connect", "1 room"}), quiet()) << "in this order";
}

}  // namespace
