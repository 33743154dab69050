// What `serve` and `proxy` have in common: a server that prints what its clients send.
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
#include "tool/handles.h"
#include "tool/packet_print.h"
#include "tool/serving_loop.h"

// A client, from its accept to its end.
struct Peer {
  virtual ~Peer() = default;
  std::string name() const;  // for the user

  CommLoopId id = {};
  unsigned long number = 0;  // counts connections from 1
  struct ucred cred = {};
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

class PacketServer : protected CommLoopHandler {
 public:
  // The settings live at least as long.
  explicit PacketServer(const ServerSettings& settings);
  PacketServer(const PacketServer&) = delete;
  PacketServer& operator=(const PacketServer&) = delete;

  void run();  // until a signal asks for the end

 protected:
  // Nobody is kept out, and no descriptor.
  static CommLoopLimits limits();

  virtual std::unique_ptr<Peer> make_peer() { return std::make_unique<Peer>(); }
  virtual void on_client(Peer& /*peer*/) {}
  virtual void on_request(Peer& peer, comm_socket_v4_packet& packet) = 0;
  // Returns false when the peer is to stay until it is forgotten.
  virtual bool on_end(Peer& /*peer*/) { return true; }
  Peer& peer(CommLoopId client) { return *peers_.at(client.generation); }
  void forget(const Peer& peer) { peers_.erase(peer.id.generation); }

  // The body of receive callbacks, of a client or of its server: says what came, or which rule it
  // breaks, and where it was saved. Returns 0; -1 for what is to be refused.
  enum class Sender { client, server };
  int receive(const Peer& peer, Sender sender, comm_socket_v4_packet& packet);
  // How the line of a packet begins, and how it ends.
  virtual std::string heading(const Peer& peer, Sender /*from*/) const {
    return peer.name() + ": ";
  }
  virtual std::string save(const Peer& /*peer*/, Sender /*from*/,
                           const comm_socket_v4_packet& /*packet*/) {
    return "";
  }

  // As CommLoop::send; without memory it throws.
  int send(CommLoopId to, comm_socket_v4_packet& packet);
  // Writes a line, and the packet that it is about, whose JSON gets `more`. Not if the user wants
  // it quiet.
  void say(const std::string& text, const comm_socket_v4_packet* packet = nullptr,
           const std::string& more = "") const;
  ServingLoop& loop() { return loop_; }

 private:
  bool on_connect(CommLoop& loop, CommLoopId id, const struct ucred& who) override;
  void on_packet(CommLoop& loop, CommLoopId from, comm_socket_v4_packet* packet) override;
  void on_gone(CommLoop& loop, CommLoopId id, CommLoopReason why, int error) override;
  void on_accept_failed(CommLoop& loop, CommLoopId server, int error) override;

  static std::string in_json(const Peer& peer, Sender sender);
  const char* objection_to(const struct ucred& cred) const;

  const ServerSettings& settings_;
  ServingLoop loop_;  // before there is a socket file to be removed
  CommLoopId server_ = {};
  std::unordered_map<std::uint64_t, std::unique_ptr<Peer>> peers_;  // by the generation of their id
  unsigned long connections_ = 0;
};

#endif
