#include "tool/packet_server.h"

#include <grp.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <utility>

#include "tool/files.h"

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
  if (is_abstract(path) && (settings.mode.has_value() || settings.group.has_value()))
    throw UsageError("an abstract name has neither --mode nor --group");
  std::string reason;  // The library's error line says more than errno.
  CommEndpoint server = new_endpoint(settings.verbose);
  if (settings.mode.has_value()) comm_socket_v4_set_socket_mode(server.get(), *settings.mode);
  if (settings.group.has_value()) comm_socket_v4_set_socket_group(server.get(), *settings.group);
  // Clients of other making may not try again when the queue is full.
  comm_socket_v4_set_listen_backlog(server.get(), 64);
  // Without a descriptor left new clients are turned away, and those who are here served on.
  if (comm_socket_v4_set_descriptor_reserve(server.get(), 1) != 0)
    throw system_failure("cannot keep a descriptor back");
  const unsigned mask = server->log_mask;
  server->log_mask = 1;
  comm_socket_v4_set_log_sink(server.get(), keep_first_line, &reason);
  if (comm_socket_v4_create_server(server.get(), path.c_str()) != 0)
    throw Failure("cannot listen on " + in_quotes(path) + ": " + reason);
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

PacketServer::PacketServer(const ServerSettings& settings)
    : settings_(settings), server_(create_server(settings)) {
  server_->set_tag(reinterpret_cast<std::uintptr_t>(this));
}

void PacketServer::run() {
  loop_.watch(signals_.fd(), EPOLLIN, [this](std::uint32_t) { loop_.stop(); });
  loop_.watch(server_->get_socket_fd(), EPOLLIN, [this](std::uint32_t) { accept_client(); });
  say("listening on " + in_quotes(server_->socket_path));
  flush_standard_output();
  loop_.run([this] {
    release_ended();
    flush_standard_output();
  });
}

void PacketServer::say(const std::string& text) const {
  if (!settings_.quiet) print_event(text);
}

void PacketServer::say(const std::string& text, const comm_socket_v4_packet& packet) const {
  say(text);
  if (!settings_.quiet) print_packet(packet, settings_.format);
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

void PacketServer::accept_client() {
  comm_socket_v4_client* const client = comm_socket_v4_accept_connection(server_.get());
  if (!server_->socket_open()) throw system_failure("cannot accept connections any more");
  if (client == nullptr) return;
  client->set_recv_cb(on_receive);
  std::unique_ptr<Peer> made = make_peer();
  Peer& peer = *made;
  peer.index = comm_socket_v4_client_ptr2index(client);
  peer.number = ++connections_;
  peer.cred = client->cred;
  if (const char* const objection = objection_to(peer.cred); objection != nullptr) {
    say(peer.name() + " turned away: " + objection);
    return comm_socket_v4_free_client(client);
  }
  peers_[peer.index] = std::move(made);
  say(peer.name() + " connected");
  on_connect(peer);
  update(peer);
}

void PacketServer::release_ended() {
  while (comm_socket_v4_client* const client =
             comm_socket_v4_get_disconnected_client(server_.get())) {
    auto ended = peers_.extract(comm_socket_v4_client_ptr2index(client));
    loop_.forget(client->get_client_fd());
    comm_socket_v4_free_client(client);
    say(ended.mapped()->name() + " disconnected");
    on_end(std::move(ended.mapped()));
  }
}

// --- Packets from and to a client ---------------------------------------------------------------

int PacketServer::on_receive(comm_socket_v4_client* client, comm_socket_v4_packet* packet) {
  auto* const server = reinterpret_cast<PacketServer*>(client->get_server()->get_tag());
  return keep_if_refused(server->refused_, *packet);
}

void PacketServer::on_refused(Peer& peer, const Refused& refused) {
  say(peer.name() + ": dropped a packet that is not valid: " + refused.rule);
}

void PacketServer::on_client_event(Peer& peer, std::uint32_t events) {
  const bool hung_up = (events & (EPOLLHUP | EPOLLERR)) != 0;
  if (hung_up && !peer.queue.queued_packets.empty())
    give_up_sending(peer, "it has gone");
  else if ((events & EPOLLOUT) != 0)
    flush(peer);
  const bool readable = hung_up || (events & EPOLLIN) != 0;
  if (readable && !peer.paused && !peer.closing) {
    CommPacket packet(comm_socket_v4_client_get_packet(record(peer)));
    for (const Refused& refused : std::exchange(refused_, {})) on_refused(peer, refused);
    if (packet != nullptr) on_packet(peer, std::move(packet));
  }
  update(peer);
}

void PacketServer::send(Peer& peer, comm_socket_v4_packet& packet) {
  if (peer.deaf) return;
  const int sent = peer.queue.send_packet(record(peer), &packet);
  if (sent <= 0) give_up_sending(peer, sent < 0 ? std::strerror(errno) : "its queue is full");
}

// A writeable socket that refuses the oldest packet for any other reason than its size at this
// moment refuses it for ever.
void PacketServer::flush(Peer& peer) {
  const std::uint64_t before = peer.queue.queued_count;
  errno = 0;
  peer.queue.flush_queued_packet(record(peer));
  const bool stuck = peer.queue.queued_count == before && errno != EAGAIN && errno != EINTR;
  if (stuck && before > 0) give_up_sending(peer, std::strerror(errno));
}

void PacketServer::give_up_sending(Peer& peer, const std::string& why) {
  say(peer.name() + " takes no more packets: " + why);
  peer.deaf = true;
  peer.queue.dump_queued_packets();
}

void PacketServer::update(Peer& peer) {
  comm_socket_v4_client* const client = record(peer);
  const bool queued = !peer.queue.queued_packets.empty();
  if (peer.closing && !queued) comm_socket_v4_disconnect_client(client);
  const std::uint32_t in = !peer.paused && !peer.closing ? EPOLLIN : 0u;
  const std::uint32_t out = queued ? EPOLLOUT : 0u;
  loop_.watch(client->get_client_fd(), in | out, [this, index = peer.index](std::uint32_t events) {
    on_client_event(*peers_.at(index), events);
  });
}
