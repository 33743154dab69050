// tarn-comm proxy: between clients and a server, to see what they say.
#include <fcntl.h>
#include <sys/epoll.h>
#include <tarn_utils_v4/comm.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tool/connection.h"
#include "tool/files.h"
#include "tool/packet_server.h"

namespace {

constexpr char help[] =
    "usage: tarn-comm proxy [OPTION...] LISTEN_PATH SERVER_PATH\n"
    "Listens on LISTEN_PATH and connects every client to the server at SERVER_PATH. Packets and\n"
    "their descriptors pass both ways, unchanged and in order, and are printed. Packets that are\n"
    "not valid are reported and dropped. Ends on SIGINT, SIGTERM and SIGHUP, and removes the\n"
    "socket file.\n\n"
    "The server sees the proxy's process, user and group ids, not those of the clients.\n\n"
    "  -s, --save FOLDER         save the bytes of every packet, dropped ones too, in numbered\n"
    "                            files, for 'tarn-comm decode'\n"
    "  -t, --timeout SECONDS     for connecting to the server (5)\n" SERVER_OPTIONS_HELP
    "\nExit status: 0 after a signal, 1 when something failed, 2 for wrong usage.\n";

struct Settings : ServerSettings {
  std::string server_path;
  std::optional<std::string> folder;
  std::uint64_t timeout_us = 5'000'000;
};

void parse(int argc, char** argv, Settings& settings) {
  const std::vector<std::string> words =
      parse_options(proxy_subcommand, argc, argv,
                    settings.options({text_option("save", 's', settings.folder),
                                      seconds_option("timeout", 't', settings.timeout_us)}),
                    {"LISTEN_PATH", "SERVER_PATH"}, 0);
  settings.path = words[0];
  settings.server_path = words[1];
}

// A client and its connection to the server.
struct ProxiedPeer : Peer {
  CommEndpoint upstream;
  int upstream_fd = -1;     // as it is watched
  bool connecting = false;  // the server's queue of connections is full
  std::uint64_t connect_deadline_us = 0;
  CommPacket to_server;          // waits for the server; the client is paused meanwhile
  std::vector<Refused> refused;  // in the read that goes on
};

class Proxy : public PacketServer {
 public:
  explicit Proxy(const Settings& settings) : PacketServer(settings), settings_(settings) {
    // Known only now: its own socket file is there.
    if (same_socket(settings.path, settings.server_path))
      throw UsageError("SERVER_PATH leads back to the proxy itself");
    if (settings.folder.has_value()) file_ = open_file(*settings.folder, O_RDONLY);
  }

 private:
  enum class Direction { to_server, to_client };

  std::unique_ptr<Peer> make_peer() override { return std::make_unique<ProxiedPeer>(); }

  // --- The connection to the server

  void on_connect(Peer& accepted) override {
    auto& peer = static_cast<ProxiedPeer&>(accepted);
    peer.upstream = new_endpoint(settings_.verbose);
    keep_refused(*peer.upstream, peer.refused);
    peer.connect_deadline_us = now_us() + settings_.timeout_us;
    // Without waiting: what is not connected at once is tried again later.
    comm_socket_v4_set_connect_timeout_routine(peer.upstream.get(), 1);
    comm_socket_v4_connect_to(peer.upstream.get(), settings_.server_path.c_str());
    peer.connecting = peer.paused = comm_socket_v4_connection_pending(peer.upstream.get()) == 1;
    const int retry = peer.connecting ? comm_socket_v4_get_connect_fd(peer.upstream.get()) : -1;
    if (retry < 0) return finish_connecting(peer);
    loop().watch(retry, EPOLLIN,
                 [=, this, &peer](std::uint32_t) { retry_connecting(peer, retry); });
  }

  void retry_connecting(ProxiedPeer& peer, int retry) {
    peer.connecting = comm_socket_v4_connect_check_pending(peer.upstream.get()) == 0;
    if (peer.connecting && now_us() < peer.connect_deadline_us) return;
    if (peer.connecting) errno = ETIMEDOUT;
    finish_connecting(peer);
    loop().forget(retry);
    update(peer);
  }

  // It is connected, or errno says why not.
  void finish_connecting(ProxiedPeer& peer) {
    if (peer.connecting) comm_socket_v4_close(peer.upstream.get());
    peer.connecting = peer.paused = false;
    peer.upstream_fd = peer.upstream->get_socket_fd();
    if (peer.upstream->socket_open()) return;
    say(peer.name() + ": cannot connect to " + in_quotes(settings_.server_path) + ": " +
        std::strerror(errno));
    peer.closing = true;
  }

  // --- Packets

  void on_packet(Peer& from, CommPacket packet) override {
    auto& peer = static_cast<ProxiedPeer&>(from);
    show(peer, Direction::to_server, *packet);
    allow_sending_on(*packet);
    peer.to_server = std::move(packet);
    send_to_server(peer);
  }

  void on_refused(Peer& peer, const Refused& refused) override {
    show_refused(peer, Direction::to_server, refused);
  }

  // The end of a server that has gone is noticed when it is read, behind its last packets.
  void send_to_server(ProxiedPeer& peer) {
    const int sent =
        comm_socket_v4_packet_send_to_server(peer.upstream.get(), peer.to_server.get());
    if (sent < 0) say(peer.name() + ": the server takes no more packets: " + std::strerror(errno));
    if (sent != 0) peer.to_server.reset();
    peer.paused = sent == 0;
  }

  void on_upstream_event(ProxiedPeer& peer, std::uint32_t events) {
    if (peer.to_server != nullptr && events != EPOLLIN) send_to_server(peer);
    if ((events & ~EPOLLOUT) != 0 && peer.queue.queued_packets.empty() && !read_from_server(peer)) {
      say(peer.name() + ": the server has closed the connection");
      peer.to_server.reset();
      peer.closing = true;
    }
    update(peer);
  }

  // False when the server has closed the connection.
  bool read_from_server(ProxiedPeer& peer) {
    const CommPacket packet(comm_socket_v4_client_get_packet_from_server(peer.upstream.get()));
    for (const Refused& refused : std::exchange(peer.refused, {}))
      show_refused(peer, Direction::to_client, refused);
    if (packet != nullptr) {
      show(peer, Direction::to_client, *packet);
      allow_sending_on(*packet);
      send(peer, *packet);
    }
    if (peer.upstream->socket_open()) return true;
    loop().forget(std::exchange(peer.upstream_fd, -1));
    return false;
  }

  void update(Peer& changed) override {
    PacketServer::update(changed);
    auto& peer = static_cast<ProxiedPeer&>(changed);
    if (peer.connecting || peer.upstream_fd < 0) return;
    const std::uint32_t in = peer.queue.queued_packets.empty() ? EPOLLIN : 0u;
    const std::uint32_t out = peer.to_server != nullptr ? EPOLLOUT : 0u;
    loop().watch(peer.upstream_fd, in | out,
                 [this, &peer](std::uint32_t events) { on_upstream_event(peer, events); });
  }

  // The connection to the server ends when the server ends it: closed while answers wait in it, it
  // would be reset, and what the server has not read yet would be lost.
  void on_end(std::unique_ptr<Peer> ended) override {
    auto& peer = static_cast<ProxiedPeer&>(*ended);
    if (peer.upstream_fd < 0) return;
    peer.deaf = true;
    comm_socket_v4_end_sending(peer.upstream.get());
    loop().forget(peer.upstream_fd);
    loop().watch(peer.upstream_fd, EPOLLIN, [this, &peer](std::uint32_t) {
      if (!read_from_server(peer)) departed_.erase(peer.number);
    });
    departed_[peer.number] = std::move(ended);
  }

  // --- For the user

  void show(const Peer& peer, Direction direction, const comm_socket_v4_packet& packet) {
    say(line(peer, direction) + summary(packet) + save(peer, direction, packet), packet);
  }

  void show_refused(const Peer& peer, Direction direction, const Refused& refused) {
    say(line(peer, direction) + "dropped a packet that is not valid: " + refused.rule +
        save(peer, direction, *refused.packet));
  }

  static std::string line(const Peer& peer, Direction direction) {
    return peer.name() + (direction == Direction::to_server ? " -> server: " : " <- server: ");
  }

  // Answers how the file is called, for the line that is printed.
  std::string save(const Peer& peer, Direction direction, const comm_socket_v4_packet& packet) {
    if (!settings_.folder.has_value()) return std::string();
    char name[64];
    std::snprintf(name, sizeof(name), "%06lu-client-%lu-%s", ++saved_, peer.number,
                  direction == Direction::to_server ? "to-server" : "from-server");
    file_ = CommDescriptor();
    file_ = create_file(*settings_.folder, name);
    write_all(file_.get(), {reinterpret_cast<const char*>(packet.buffer), packet.buffer_length},
              in_quotes(name));
    return std::string(", saved as ") + name;
  }

  const Settings& settings_;
  std::unordered_map<unsigned long, std::unique_ptr<Peer>> departed_;  // clients, by number
  unsigned long saved_ = 0;
  CommDescriptor file_;  // the last one; it stays open so that the next can always be opened
};

int run(int argc, char** argv) {
  Settings settings;
  parse(argc, argv, settings);
  if (settings.folder.has_value()) make_empty_folder(*settings.folder);
  Proxy(settings).run();
  return exit_ok;
}

}  // namespace

const Subcommand proxy_subcommand = {"proxy", "pass packets on to a server, and print them", help,
                                     run};
