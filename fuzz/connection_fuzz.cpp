// Raw peers against a server and against a client endpoint: any records and descriptors, and the
// calls of an application's loop, in any order. In the end nothing may be left over.
#include <algorithm>
#include <cerrno>
#include <deque>
#include <utility>
#include <vector>

#include "fuzz/raw_peers.h"

namespace {

// The far end of a connection, and what is under way in both directions.
struct Peer {
  comm_socket_v4 end;
  unsigned long slot = COMM_V4_NO_INDEX;
  bool taken = false;
  std::deque<Record> to_library, from_library;
  CommLargePacketQueue queue;
};

class World {
 public:
  explicit World(const Input& in) : in_(in) {
    current = this;
    comm_socket_v4_debug_logging(&server_);
    comm_socket_v4_debug_logging(&client_);
    reopen_server();
  }
  bool goes_on() const { return !in_.empty(); }

  // What could arrive has arrived.
  void come_to_rest() {
    for (std::uint64_t i = 0; i <= serial_; ++i) take_from_server();
    for (const Peer& peer : peers_) {
      const comm_socket_v4_client* const c = record(peer);
      if (c != nullptr && c->client_is_open() && c->halt == 0)
        for (const Record& left : peer.to_library) REQUIRE(!left.sound);
    }
  }

  void step() {
    make_step(in_, *this, "capgqiwrsdtfon", &World::connect, &World::accept, &World::peer_send,
              &World::peer_receive, &World::peer_close, &World::idle, &World::wait,
              &World::retrieve, &World::send, &World::disconnect, &World::take_disconnected,
              &World::free_client, &World::open_client, &World::reopen_server);
    for (const comm_socket_v4_client& c : server_.client) check(c);
  }

 private:
  static inline World* current;

  Peer& any_peer() { return peers_[in_.below(std::size(peers_))]; }
  bool is_client(const Peer& peer) const { return &peer == peers_; }
  comm_socket_v4_client* record(const Peer& peer) { return server_.index2client(peer.slot); }
  Peer& peer_of(const comm_socket_v4_client* c) {
    return *std::find_if(peers_, std::end(peers_), [&](Peer& peer) { return record(peer) == c; });
  }

  // An ended connection is on the list once, until it is taken from it; any other is not.
  void check(const comm_socket_v4_client& c) {
    const bool ended = c.status.disconnected || c.status.error;
    const auto index = static_cast<std::uint64_t>(&c - server_.client.data());
    const auto& list = server_.disconnect_list;
    REQUIRE(c.client_fd >= 0 ? c.server == &server_ : !ended && !c.next_packet && !c.server);
    REQUIRE(std::count(list.begin(), list.end(), index) == (ended && !peer_of(&c).taken ? 1 : 0));
  }

  // --- Connections: how they begin and end ------------------------------------------------------

  void reopen_server() {
    comm_socket_v4_close(&server_);
    for (Peer& peer : peers_) forget(peer);
    waiting_ = nullptr;
    REQUIRE(comm_socket_v4_create_server(&server_, server_path().c_str()) == 0);
  }

  // A second connection would have to wait for the accept of the first.
  void connect() {
    Peer& peer = any_peer();
    if (is_client(peer) || waiting_ != nullptr || record(peer) != nullptr) return;
    REQUIRE(comm_socket_v4_connect_to(&peer.end, server_.socket_path.c_str()) == 0);
    peer.to_library.clear();
    peer.from_library.clear();
    waiting_ = &peer;
  }

  void accept() {
    comm_socket_v4_client* const c = comm_socket_v4_accept_connection(&server_);
    if (c == nullptr) return REQUIRE(errno == EAGAIN && waiting_ == nullptr);
    std::exchange(waiting_, nullptr)->slot = comm_socket_v4_client_ptr2index(c);
    const int smallest = 0;
    if (in_.yes()) setsockopt(c->client_fd, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof(smallest));
    c->set_recv_cb([](comm_socket_v4_client* from, comm_socket_v4_packet* p) {
      return current->on_packet(current->peer_of(from), *p);
    });
  }

  // Opens the client endpoint, or closes it.
  void open_client() {
    Peer& peer = peers_[0];
    int ends[2];
    if (client_.socket_open() || comm_socket_v4_make_socketpair(ends) != 0) {
      comm_socket_v4_close(&client_);
      return;
    }
    comm_socket_v4_close(&peer.end);
    REQUIRE(comm_socket_v4_connect_use_socketpair(&client_, ends[0]) == 0);
    REQUIRE(comm_socket_v4_connect_use_socketpair(&peer.end, ends[1]) == 0);
    client_.set_recv_cb([](comm_socket_v4*, comm_socket_v4_packet* p) {
      return current->on_packet(current->peers_[0], *p);
    });
    // Of the last connection, only the packet that the endpoint holds is still to come.
    for (Record& record : peer.to_library) record.sound = false;
    peer.from_library.clear();
  }

  void peer_close() { comm_socket_v4_close(&any_peer().end); }

  void disconnect() {
    comm_socket_v4_client* const c = record(any_peer());
    if (c != nullptr) comm_socket_v4_disconnect_client(c);
  }

  void take_disconnected() {
    comm_socket_v4_client* const c = comm_socket_v4_get_disconnected_client(&server_);
    if (c != nullptr) REQUIRE(!c->client_is_open() && !std::exchange(peer_of(c).taken, true));
  }

  void free_client() {
    Peer& peer = any_peer();
    if (record(peer) == nullptr) return;
    comm_socket_v4_free_client(record(peer));
    forget(peer);
  }

  // The slot of this peer is empty. What is still queued for it is not sent any more.
  void forget(Peer& peer) {
    peer.from_library.resize(peer.from_library.size() - peer.queue.queued_count);
    peer.queue.dump_queued_packets();
    peer.slot = COMM_V4_NO_INDEX;
    peer.taken = false;
  }

  // --- What crosses them ------------------------------------------------------------------------

  void peer_send() {
    Peer& peer = any_peer();
    const Record record = any_record(in_, ++serial_);
    if (send_record(peer.end.socket_fd, record.bytes, record.descriptors))
      peer.to_library.push_back(record);
  }

  void peer_receive() {
    Peer& peer = any_peer();
    const CommPacket p(comm_socket_v4_client_get_packet_from_server(&peer.end));
    if (p != nullptr) expect_next(peer.from_library, *p);
  }

  void send() {
    Peer& peer = any_peer();
    const std::string argument = in_.text();
    CommPacket p = make_packet(argument, in_.below(3));
    if (in_.yes() && !kept_.empty()) p.swap(kept_.back());
    const std::size_t count = p->attached_fd_count();
    const int sent = is_client(peer) ? comm_socket_v4_packet_send_to_server(&client_, p.get())
                                     : peer.queue.send_packet(record(peer), p.get());
    REQUIRE(sent >= 0 || peer.queue.queued_count == 0);
    if (sent > 0)
      peer.from_library.push_back({bytes_of(p.get()), count, p->buffer_length <= 65551});
  }

  void take_from_server() {
    comm_socket_v4_client* from;
    CommPacket p(comm_socket_v4_server_get_packet(&server_, &from));
    if (p != nullptr) receive(std::move(p), peer_of(from));
  }

  void retrieve() {
    Peer& peer = any_peer();
    if (record(peer) != nullptr) record(peer)->halt = in_.yes();
    if (!is_client(peer)) return take_from_server();
    CommPacket p(comm_socket_v4_client_get_packet_from_server(&client_));
    if (p != nullptr) receive(std::move(p), peer);
  }

  void receive(CommPacket p, Peer& from) {
    read_everything(*p);
    expect_next(from.to_library, *p);
    keep(std::move(p));
  }

  void keep(CommPacket p) {
    if (kept_.size() >= 16) kept_.clear();
    kept_.push_back(std::move(p));
  }

  // Acts until it keeps the packet or refuses it, which may be gone from the library by then.
  int on_packet(Peer& peer, comm_socket_v4_packet& p) {
    p.addref();
    const CommPacket held(&p);
    std::size_t act;
    while ((act = in_.one_of(".rkaifdc")) > 1) {
      if (act == 2 && p.addref() > 0) keep(CommPacket(&p));
      if (act == 3) accept();
      if (act == 4) idle();
      if (act == 5) free_client();
      if (act == 6) disconnect();
      if (act == 7 && is_client(peer)) comm_socket_v4_close(&client_);
    }
    if (act == 1) expect_next(peer.to_library, p);
    return act == 1 ? -1 : 0;
  }

  void idle() {
    REQUIRE(comm_socket_v4_idle(&server_) == 0);
    comm_socket_v4_idle(&client_);
  }

  void wait() {
    const unsigned long deadline = in_.yes() ? monotonic_clock_us() + 2 : 0;
    comm_socket_v4_server_from_client_readable(&server_, deadline);
    comm_socket_v4_client_from_server_readable(&client_, deadline);
    comm_socket_v4_wait_for_client_to_server_writeable(&client_, deadline);
    comm_socket_v4_wait_for_server_to_client_writeable(record(any_peer()), deadline);
  }

  Input in_;
  comm_socket_v4 server_, client_;
  Peer peers_[18];           // the first is the client endpoint's; the others outgrow the table
  Peer* waiting_ = nullptr;  // to be accepted
  std::vector<CommPacket> kept_;
  std::uint64_t serial_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return run<World>({data, size});
}
