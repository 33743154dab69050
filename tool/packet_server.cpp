#include "tool/packet_server.h"

#include <grp.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "tool/connection.h"
#include "tool/files.h"
#include "tool/packet_check.h"

namespace {

mode_t parse_mode(const std::string& text, const std::string& what) {
  mode_t mode = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, mode, 8);
  if (error != std::errc() || stop != end || mode > 0777)
    throw UsageError(what + ": " + in_quotes(text) + " is not an octal mode of at most 777");
  return mode;
}

gid_t parse_group(const std::string& text, const std::string& what) {
  struct group entry;
  struct group* named = nullptr;
  char texts[65536];
  if (::getgrnam_r(text.c_str(), &entry, texts, sizeof(texts), &named) == 0 && named != nullptr)
    return named->gr_gid;
  if (text.find_first_of("0123456789") != 0)
    throw UsageError(what + ": there is no group " + in_quotes(text));
  return static_cast<gid_t>(parse_uint64(text, what, 0, UINT32_MAX - 1));
}

CommEndpoint create_server(const ServerSettings& settings) {
  const std::string& path = settings.path;
  if (path.size() > COMM_V4_MAX_SERVER_PATH)
    throw UsageError("the path has " + std::to_string(path.size()) +
                     " characters, a server's has at most " +
                     std::to_string(COMM_V4_MAX_SERVER_PATH));
  const std::optional<int> inherited = inherited_descriptor(path);
  if ((is_abstract(path) || inherited.has_value()) &&
      (settings.mode.has_value() || settings.group.has_value()))
    throw UsageError("an abstract name has neither --mode nor --group, nor has a descriptor");
  std::string reason;  // The library's error line says more than errno.
  CommEndpoint server = new_endpoint(settings.verbose);
  if (settings.mode.has_value()) comm_socket_v4_set_socket_mode(server.get(), *settings.mode);
  if (settings.group.has_value()) comm_socket_v4_set_socket_group(server.get(), *settings.group);
  // Clients of other making may not try again when the queue is full.
  comm_socket_v4_set_listen_backlog(server.get(), 64);
  const unsigned mask = server->log_mask;
  server->log_mask = 1;
  comm_socket_v4_set_log_sink(server.get(), keep_first_line, &reason);
  const int opened = inherited.has_value()
                         ? comm_socket_v4_use_server_socket(server.get(), *inherited)
                         : comm_socket_v4_create_server(server.get(), path.c_str());
  if (opened != 0) throw Failure("cannot listen on " + in_quotes(path) + ": " + reason);
  comm_socket_v4_set_log_sink(server.get(), nullptr, nullptr);
  server->log_mask = mask & 15;
  return server;
}

}  // namespace

std::string Peer::name() const {
  return "client " + std::to_string(number) + " (pid " + std::to_string(cred.pid) + ", uid " +
         std::to_string(cred.uid) + ", gid " + std::to_string(cred.gid) + ")";
}

std::vector<Option> ServerSettings::options(std::vector<Option> own) {
  std::vector<Option> all = {
      format_option(format),
      {"mode", 0, true, [this](auto& value, auto& what) { mode = parse_mode(value, what); }},
      {"group", 0, true, [this](auto& value, auto& what) { group = parse_group(value, what); }},
      {"uid", 0, true,
       [this](auto& value, auto& what) {
         uids.push_back(static_cast<uid_t>(parse_uint64(value, what, 0, UINT32_MAX - 1)));
       }},
      flag_option("quiet", 'q', quiet),
      flag_option("verbose", 'v', verbose)};
  all.insert(all.end(), own.begin(), own.end());
  return all;
}

CommLoopLimits PacketServer::limits() {
  CommLoopLimits limits;
  limits.clients = limits.clients_per_user = COMM_V4_MAX_CLIENTS;
  limits.descriptors_per_packet = COMM_V4_MAX_SEND_FDS;
  return limits;
}

PacketServer::PacketServer(const ServerSettings& settings) : settings_(settings) {
  CommEndpoint server = create_server(settings);
  server->set_tag(reinterpret_cast<std::uintptr_t>(this));
  server_ = loop_.add(server.get(), *this, limits());
  if (!ServingLoop::is_member(server_)) throw system_failure("cannot watch the socket");
  static_cast<void>(server.release());
}

void PacketServer::run() {
  say("listening on " + in_quotes(loop_.endpoint(server_)->socket_path));
  loop_.run_until_signal();
}

void PacketServer::say(const std::string& text, const comm_socket_v4_packet* packet,
                       const std::string& more) const {
  if (settings_.quiet) return;
  print_event(settings_.format == Format::json ? stderr : stdout, text);
  if (packet != nullptr) print_packet(*packet, settings_.format, more);
  flush_standard_output();
}

// --- Clients come and go ------------------------------------------------------------------------

// Why somebody is not served; null for everybody else.
const char* PacketServer::objection_to(const struct ucred& cred) const {
  const std::vector<uid_t>& uids = settings_.uids;
  if (!uids.empty() && std::find(uids.begin(), uids.end(), cred.uid) == uids.end())
    return "--uid does not name this user";
  // A proxy may have been led back to itself.
  if (cred.pid == ::getpid()) return "it is this program itself";
  return nullptr;
}

bool PacketServer::on_connect(CommLoop& /*loop*/, CommLoopId id, const struct ucred& who) {
  const char* const objection = objection_to(who);
  std::unique_ptr<Peer> made = make_peer();
  Peer& peer = *made;
  peer.id = id;
  peer.number = ++connections_;
  peer.cred = who;
  if (objection != nullptr) {
    say(peer.name() + " turned away: " + objection);
    return false;
  }
  comm_socket_v4_client* const client = loop_.client(id);
  client->set_tag(reinterpret_cast<std::uintptr_t>(&peer));
  client->set_recv_cb([](comm_socket_v4_client* from, comm_socket_v4_packet* packet) {
    auto& server = *reinterpret_cast<PacketServer*>(from->get_server()->get_tag());
    return server.receive(*reinterpret_cast<Peer*>(from->get_tag()), Sender::client, *packet);
  });
  peers_[id.generation] = std::move(made);
  say(peer.name() + " connected");
  on_client(peer);
  return true;
}

void PacketServer::on_gone(CommLoop& /*loop*/, CommLoopId id, CommLoopReason why, int error) {
  Peer& ended = peer(id);
  if (why == comm_loop_unsendable)
    say(ended.name() + " takes no more packets: " + std::strerror(error));
  say(ended.name() + " disconnected");
  if (on_end(ended)) forget(ended);
}

void PacketServer::on_accept_failed(CommLoop& /*loop*/, CommLoopId /*server*/, int error) {
  errno = error;
  throw system_failure("cannot accept connections any more");
}

// --- Packets from and to a client ---------------------------------------------------------------

// The members of a packet's object that say whose it is.
std::string PacketServer::in_json(const Peer& peer, Sender sender) {
  const char* const direction = sender == Sender::client ? "to-server" : "from-server";
  return R"(, "peer": {"direction": ")" + std::string(direction) + R"(", "client": )" +
         std::to_string(peer.number) + R"(, "pid": )" + std::to_string(peer.cred.pid) +
         R"(, "uid": )" + std::to_string(peer.cred.uid) + R"(, "gid": )" +
         std::to_string(peer.cred.gid) + "}";
}

int PacketServer::receive(const Peer& peer, Sender sender, comm_socket_v4_packet& packet) {
  std::string rule;
  const bool went_well = loop_.attempt([&] {
    rule = broken_rule(packet);
    const std::string what =
        rule.empty() ? summary(packet) : "dropped a packet that is not valid: " + rule;
    say(heading(peer, sender) + what + save(peer, sender, packet), rule.empty() ? &packet : nullptr,
        in_json(peer, sender));
  });
  return went_well && rule.empty() ? 0 : -1;
}

void PacketServer::on_packet(CommLoop& /*loop*/, CommLoopId from, comm_socket_v4_packet* packet) {
  on_request(peer(from), *packet);
}

int PacketServer::send(CommLoopId to, comm_socket_v4_packet& packet) {
  const int sent = loop_.send(to, &packet);
  if (sent < 0 && errno == ENOMEM) throw std::bad_alloc();
  return sent;
}
