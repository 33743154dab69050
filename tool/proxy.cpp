// tarn-comm proxy: between clients and a server, to see what they say.
#include <fcntl.h>
#include <tarn_utils_v4/comm.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
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
  if (inherited_descriptor(settings.server_path).has_value())
    throw UsageError("SERVER_PATH is connected to for each client, a descriptor only once");
}

class Proxy : public PacketServer {
 public:
  explicit Proxy(const Settings& settings) : PacketServer(settings), settings_(settings) {
    // Known only now: its own socket file is there.
    if (same_socket(settings.path, settings.server_path))
      throw UsageError("SERVER_PATH leads back to the proxy itself");
    if (settings.folder.has_value()) file_ = open_file(*settings.folder, O_RDONLY);
  }

 private:
  // A client, and what happens on its connection to the server.
  struct ProxiedPeer : Peer, CommLoopHandler {
    explicit ProxiedPeer(Proxy& of) : proxy(of) {}
    ~ProxiedPeer() override { proxy.loop().remove(upstream); }

    bool on_connect(CommLoop& loop, CommLoopId /*id*/, const struct ucred& /*who*/) override {
      connected = true;
      loop.resume(id);
      return true;
    }
    void on_packet(CommLoop& /*loop*/, CommLoopId from, comm_socket_v4_packet* packet) override {
      proxy.pass_on(from, id, *packet);
    }
    void on_room(CommLoop& loop, CommLoopId /*id*/) override { loop.resume(id); }
    void on_gone(CommLoop& /*loop*/, CommLoopId /*id*/, CommLoopReason why, int error) override {
      proxy.on_server_gone(*this, why, error);
    }

    Proxy& proxy;
    CommLoopId upstream = {};
    bool connected = false;
  };

  std::unique_ptr<Peer> make_peer() override { return std::make_unique<ProxiedPeer>(*this); }

  // --- The connection to the server

  void on_client(Peer& accepted) override {
    auto& peer = static_cast<ProxiedPeer&>(accepted);
    CommEndpoint server = new_endpoint(settings_.verbose);
    server->set_tag(reinterpret_cast<std::uintptr_t>(&peer));
    server->set_recv_cb([](comm_socket_v4* from, comm_socket_v4_packet* packet) {
      const auto& receiver = *reinterpret_cast<ProxiedPeer*>(from->get_tag());
      return receiver.proxy.receive(receiver, Sender::server, *packet);
    });
    peer.upstream =
        loop().connect(server.get(), settings_.server_path.c_str(), peer, upstream_limits());
    if (!ServingLoop::is_member(peer.upstream))
      return on_server_gone(peer, comm_loop_failed, errno);
    static_cast<void>(server.release());
    loop().pause(peer.id);
  }

  CommLoopLimits upstream_limits() const {
    CommLoopLimits upstream = limits();
    upstream.connect_us = std::max<std::uint64_t>(settings_.timeout_us, 1);
    // However long the server takes for the requests of a client that has left.
    upstream.finish_us = UINT64_MAX;
    return upstream;
  }

  void on_server_gone(ProxiedPeer& peer, CommLoopReason why, int error) {
    const bool client_has_left = loop().client(peer.id) == nullptr;
    if (client_has_left) return forget(peer);
    if (!peer.connected)
      say(peer.name() + ": cannot connect to " + in_quotes(settings_.server_path) + ": " +
          std::strerror(error));
    else if (why == comm_loop_unsendable)
      say(peer.name() + ": the server takes no more packets: " + std::strerror(error));
    else
      say(peer.name() + ": the server has closed the connection");
    // The end of a server is read when nothing waits for the client any more.
    why == comm_loop_unsendable ? loop().finish(peer.id) : loop().disconnect(peer.id);
  }

  // Closed while answers wait in it, the connection would be reset, and what the server has not
  // read yet would be lost.
  bool on_end(Peer& peer) override {
    return loop().finish(static_cast<ProxiedPeer&>(peer).upstream) != 0;
  }

  // --- Packets

  void on_request(Peer& peer, comm_socket_v4_packet& packet) override {
    pass_on(peer.id, static_cast<ProxiedPeer&>(peer).upstream, packet);
  }

  // One that has to wait is the last until there is room.
  void pass_on(CommLoopId from, CommLoopId to, comm_socket_v4_packet& packet) {
    if (send(to, packet) == 0) loop().pause(from);
  }

  void on_room(CommLoop& loop, CommLoopId client) override {
    loop.resume(static_cast<ProxiedPeer&>(peer(client)).upstream);
  }

  // --- For the user

  std::string heading(const Peer& peer, Sender sender) const override {
    return peer.name() + (sender == Sender::client ? " -> server: " : " <- server: ");
  }

  std::string save(const Peer& peer, Sender sender, const comm_socket_v4_packet& packet) override {
    if (!settings_.folder.has_value()) return "";
    char name[64];
    std::snprintf(name, sizeof(name), "%06lu-client-%lu-%s", ++saved_, peer.number,
                  sender == Sender::client ? "to-server" : "from-server");
    file_ = CommDescriptor();
    file_ = create_file(*settings_.folder, name);
    write_all(file_.get(), {reinterpret_cast<const char*>(packet.buffer), packet.buffer_length},
              in_quotes(name));
    return std::string(", saved as ") + name;
  }

  const Settings& settings_;
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
