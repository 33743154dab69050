// Raw peers against a CommLoop with a server and an end of a pair: any records, descriptors, ends
// and halves of ends, and any calls, from within handlers too, which may throw. Nobody gets what is
// another's, in the end everything that could arrive has arrived, and the loop comes to rest.
#include <sys/socket.h>
#include <tarn_utils_v4/comm_loop.h>

#include <algorithm>
#include <deque>

#include "fuzz/raw_peers.h"

namespace {

// The far end of a connection, and what is under way in both directions.
struct Peer {
  comm_socket_v4 end;
  CommLoopId id = {0, 0};
  std::deque<Record> to_loop, from_loop;
};

struct Thrown {};

class World : CommLoopHandler {
 public:
  explicit World(const Input& in) : in_(in) {
    limits_.descriptors_per_packet = 60;
    limits_.queued_packets = 3;
    limits_.finish_us = 1;
    serve();
  }
  bool goes_on() const { return !in_.empty(); }
  void step() {
    make_step(in_, *this, "cpgqhtsdfznxo", &World::connect, &World::peer_send, &World::peer_receive,
              &World::peer_close, &World::peer_shutdown, &World::turn, &World::send,
              &World::disconnect, &World::finish, &World::pause, &World::serve, &World::remove,
              &World::adopt);
  }

  // Once all peers read, and nobody is paused.
  void come_to_rest() {
    for (Peer& peer : peers_) loop_.resume(peer.id);
    loop_.resume(server_);
    for (int quiet = 0, turns = 0; quiet < 2; ++turns) {
      REQUIRE(turns < 10000);
      quiet = dispatch() == 0 ? quiet + 1 : 0;
      for (Peer& peer : peers_)
        while (receive(peer)) quiet = 0;
    }
    for (const Peer& peer : peers_)
      if (there(peer.id) && peer.end.socket_open())
        for (const Record& left : peer.to_loop) REQUIRE(!left.sound);
  }

 private:
  bool there(CommLoopId id) const { return loop_.endpoint(id) != nullptr; }
  Peer& any_peer() { return peers_[in_.below(std::size(peers_))]; }
  Peer& peer_of(CommLoopId id) {
    const auto found = std::find_if(std::begin(peers_), std::end(peers_),
                                    [id](const Peer& peer) { return peer.id == id; });
    REQUIRE(found != std::end(peers_));
    return *found;
  }
  void begin(Peer& peer, CommLoopId id) {
    peer.id = id;
    peer.to_loop.clear();
    peer.from_loop.clear();
  }

  // --- Connections: how they begin and end ------------------------------------------------------

  void serve() {
    loop_.remove(server_);
    waiting_ = nullptr;
    path_ = server_path();
    server_ = loop_.serve(path_.c_str(), *this, limits_);
    REQUIRE(there(server_));
  }
  // A second connection would have to wait for the accept of the first.
  void connect() {
    Peer& peer = any_peer();
    if (waiting_ != nullptr || there(peer.id)) return;
    if (comm_socket_v4_connect_to(&peer.end, path_.c_str()) != 0) return;
    begin(peer, {0, 0});
    waiting_ = &peer;
  }
  void adopt() {
    Peer& peer = any_peer();
    int ends[2];
    if (&peer == waiting_ || there(peer.id) || comm_socket_v4_make_socketpair(ends) != 0) return;
    comm_socket_v4_close(&peer.end);
    REQUIRE(comm_socket_v4_connect_use_socketpair(&peer.end, ends[0]) == 0);
    begin(peer, loop_.adopt(ends[1], *this, limits_));
    REQUIRE(there(peer.id));
  }
  void peer_close() { comm_socket_v4_close(&any_peer().end); }
  void peer_shutdown() { ::shutdown(any_peer().end.socket_fd, static_cast<int>(in_.below(3))); }
  void disconnect() { loop_.disconnect(any_peer().id); }
  void finish() { loop_.finish(any_peer().id); }
  void remove() { loop_.remove(any_peer().id); }
  void pause() {
    const CommLoopId id = in_.yes() ? any_peer().id : server_;
    in_.yes() ? loop_.pause(id) : loop_.resume(id);
  }
  void turn() { REQUIRE(dispatch() >= 0); }
  int dispatch() {
    try {
      return loop_.dispatch(0);
    } catch (const Thrown&) {
      return 1;
    }
  }

  // --- What crosses them ------------------------------------------------------------------------

  void peer_send() {
    Peer& peer = any_peer();
    const Record record = any_record(in_, ++serial_);
    if (send_record(peer.end.socket_fd, record.bytes, record.descriptors))
      peer.to_loop.push_back(record);
  }
  bool receive(Peer& peer) {
    const CommPacket p(comm_socket_v4_client_get_packet_from_server(&peer.end));
    if (p != nullptr) expect_next(peer.from_loop, *p);
    return p != nullptr;
  }
  void peer_receive() { receive(any_peer()); }
  void send() { send_to(any_peer(), *make_packet(in_.text(), in_.below(3))); }
  void send_to(Peer& peer, comm_socket_v4_packet& p) {
    const std::size_t descriptors = p.attached_fd_count();
    const bool was_there = there(peer.id);
    const int sent = loop_.send(peer.id, &p);
    REQUIRE(sent < 0 || was_there);
    if (sent >= 0) peer.from_loop.push_back({bytes_of(&p), descriptors, true});
  }

  // --- What the loop tells ----------------------------------------------------------------------

  bool on_connect(CommLoop&, CommLoopId id, const ucred&) override {
    if (std::none_of(std::begin(peers_), std::end(peers_),
                     [id](const Peer& peer) { return peer.id == id; })) {
      REQUIRE(waiting_ != nullptr);
      std::exchange(waiting_, nullptr)->id = id;
    }
    act();
    return in_.below(8) != 7;
  }
  void on_packet(CommLoop&, CommLoopId from, comm_socket_v4_packet* p) override {
    Peer& peer = peer_of(from);
    read_everything(*p);
    expect_next(peer.to_loop, *p);
    if (in_.yes()) send_to(peer, *p);
    act();
  }
  void on_room(CommLoop&, CommLoopId peer) override { peer_of(peer), act(); }
  void on_gone(CommLoop&, CommLoopId id, CommLoopReason, int) override {
    Peer& peer = peer_of(id);
    act();
    if (peer.id == id) peer.id = {0, 0};
  }
  void fail() { throw Thrown(); }
  // What an application may do at any moment.
  void act() {
    if (in_.yes())
      make_step(in_, *this, "sdfznxo!", &World::send, &World::disconnect, &World::finish,
                &World::pause, &World::serve, &World::remove, &World::adopt, &World::fail);
  }

  Input in_;
  CommLoopLimits limits_;
  CommLoop loop_;
  CommLoopId server_ = {0, 0};
  std::string path_;
  Peer peers_[6];
  Peer* waiting_ = nullptr;  // to be accepted
  std::uint64_t serial_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return run<World>({data, size});
}
