// What `serve` and `proxy` have in common: a server on an event loop, with a queue for each client.
#ifndef TOOL_PACKET_SERVER_H
#define TOOL_PACKET_SERVER_H

#include <tarn_utils_v4/comm.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tool/arguments.h"
#include "tool/event_loop.h"
#include "tool/handles.h"
#include "tool/packet_check.h"
#include "tool/packet_print.h"

// A client, from its accept to its end.
struct Peer {
  virtual ~Peer() = default;
  std::string name() const;  // for the user

  unsigned long index = 0;   // of its record, which may move
  unsigned long number = 0;  // counts connections from 1
  struct ucred cred = {};
  CommLargePacketQueue queue;
  bool paused = false;   // it is not read
  bool closing = false;  // likewise, and it is disconnected once the queue is empty
  bool deaf = false;     // it can be sent nothing any more; what it has sent is still read
};

struct ServerSettings {
  std::string path;
  Format format = Format::readable;
  bool quiet = false;
  bool verbose = false;
  std::optional<mode_t> mode;  // of the socket file,
  std::optional<gid_t> group;  // and its group
  std::vector<uid_t> uids;     // who is served; everybody if there are none

  // Those of SERVER_OPTIONS_HELP, and behind them those of the caller.
  std::vector<Option> options(std::vector<Option> own);
};

#define SERVER_OPTIONS_HELP                                                                        \
  FORMAT_OPTION_HELP                                                                               \
  "      --mode MODE           of the socket file, octal (666); who may write to it may connect\n" \
  "      --group GROUP         of the socket file, a name or a number\n"                           \
  "      --uid UID             turn away everybody but this user; may be repeated\n"               \
  "  -q, --quiet               print nothing\n"                                                    \
  "  -v, --verbose             let the library log what it does\n"                                 \
  "  -h, --help                this text\n"

class PacketServer {
 public:
  // The settings live at least as long.
  explicit PacketServer(const ServerSettings& settings);
  virtual ~PacketServer() = default;
  PacketServer(const PacketServer&) = delete;
  PacketServer& operator=(const PacketServer&) = delete;

  void run();  // until a signal asks for the end

 protected:
  virtual std::unique_ptr<Peer> make_peer() { return std::make_unique<Peer>(); }
  virtual void on_connect(Peer& /*peer*/) {}
  virtual void on_packet(Peer& peer, CommPacket packet) = 0;
  virtual void on_refused(Peer& peer, const Refused& refused);
  virtual void on_end(std::unique_ptr<Peer> /*peer*/) {}
  // Watches the client for what it can be served with now. To be called after every change.
  virtual void update(Peer& peer);

  void send(Peer& peer, comm_socket_v4_packet& packet);
  // Print a line, and the packet that it is about. Not if the user wants it quiet.
  void say(const std::string& text) const;
  void say(const std::string& text, const comm_socket_v4_packet& packet) const;
  EventLoop& loop() { return loop_; }

 private:
  static int on_receive(comm_socket_v4_client* client, comm_socket_v4_packet* packet);

  void accept_client();
  const char* objection_to(const struct ucred& cred) const;
  void on_client_event(Peer& peer, std::uint32_t events);
  void flush(Peer& peer);
  void give_up_sending(Peer& peer, const std::string& why);
  void release_ended();
  comm_socket_v4_client* record(const Peer& peer) { return server_->index2client(peer.index); }

  const ServerSettings& settings_;
  StopSignals signals_;  // before there is a socket file to be removed
  EventLoop loop_;
  CommEndpoint server_;
  std::unordered_map<unsigned long, std::unique_ptr<Peer>> peers_;  // by index
  std::vector<Refused> refused_;                                    // in the read that goes on
  unsigned long connections_ = 0;
};

// A received packet is complete; marked so, it is sent without a warning.
inline void allow_sending_on(comm_socket_v4_packet& packet) {
  packet.write_state = comm_socket_v4_packet::write_state_end;
}

#endif
