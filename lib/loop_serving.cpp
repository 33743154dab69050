// What a loop does for its servers and connections: how a client comes in, how its packets are read
// and answered, and how it leaves.
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "lib/at_scope_end.h"
#include "lib/endpoint_internal.h"
#include "lib/loop_connection.h"
#include "lib/loop_internal.h"
#include "lib/or_no_memory.h"
#include "suite/time.h"

namespace {

// What lacks memory or descriptors is tried again.
constexpr std::uint64_t retry_us = 100000;

bool is_shortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS ||
         error == ETOOMANYREFS;
}

bool says_that_peer_has_gone(int error) {
  return error == EPIPE || error == ECONNRESET || error == ENOTCONN;
}

bool is_complete(const comm_socket_v4_packet& p) {
  return p.buffer_length != 0 && (p.write_state == comm_socket_v4_packet::write_state_end ||
                                  p.write_state == comm_socket_v4_packet::write_state_received);
}

}  // namespace

// --- Adding an endpoint -------------------------------------------------------------------------

CommLoopId comm_v4_loop::add(comm_socket_v4* endpoint, CommLoopHandler& handler,
                             const CommLoopLimits& limits) {
  if (!comm_socket_v4_is_open(endpoint) || limits.descriptors_per_packet > COMM_V4_MAX_SEND_FDS) {
    errno = EINVAL;
    return {0, 0};
  }
  std::unique_ptr<LoopEndpoint> home(new (std::nothrow) LoopEndpoint);
  const LoopKind kind = endpoint->flags.server ? LoopKind::server : LoopKind::connection;
  if (home == nullptr) errno = ENOMEM;
  LoopMember* const m = home != nullptr ? create(kind, handler, nullptr) : nullptr;
  if (m == nullptr) return {0, 0};
  if (!watch_endpoint(*m, endpoint)) {
    destroy(*m);
    return {0, 0};
  }
  home->limits = limits;
  home->endpoint.reset(endpoint);
  comm_v4_internals::of(endpoint).loop_epoll = epoll.get();
  m->home = home.release();
  comm_socket_v4_set_max_descriptors(endpoint, limits.descriptors_per_packet);
  endpoint->flags.idle_enabled = 1;
  const CommLoopId id = m->id;
  if (kind == LoopKind::server) {
    comm_socket_v4_set_descriptor_reserve(endpoint, 0);
    comm_v4_internals::of(endpoint).watched_clients.clear();
    m->accepts_nobody = comm_v4_internals::of(endpoint).stopped_listening;
    update_events(*m);
    adopt_clients(*m);
  } else {
    m->connecting = comm_socket_v4_connection_pending(endpoint);
    m->holds_packet = endpoint->next_packet != nullptr;
    m->since = monotonic_clock_us();
    ++m->home->counters.connections;
    m->connecting ? update_due(*m) : settle_later(*m);
  }
  return id;
}

bool comm_v4_loop::watch_endpoint(LoopMember& m, comm_socket_v4* endpoint) noexcept {
  const int fd = comm_socket_v4_connection_pending(endpoint)
                     ? comm_socket_v4_get_connect_fd(endpoint)
                     : endpoint->socket_fd;
  return fd >= 0 && watch(m, fd, EPOLLIN);
}

// The clients that a server had before it came into the loop.
void comm_v4_loop::adopt_clients(LoopMember& server) {
  for (comm_socket_v4_client& client : server.home->endpoint->client) {
    if (client.client_fd < 0) continue;
    if (!client.client_is_open()) {
      loop_connection::release(client);
      continue;
    }
    LoopMember* const m = add_client(server, client);
    if (m == nullptr) continue;
    m->since = monotonic_clock_us();
    m->holds_packet = client.next_packet != nullptr;
    settle_later(*m);
  }
}

// --- Accepting ----------------------------------------------------------------------------------

void comm_v4_loop::accept_clients(LoopMember& server, std::uint32_t events) {
  const CommLoopId id = server.id;
  comm_socket_v4* const endpoint = server.home->endpoint.get();
  const std::uint64_t& accepted = comm_v4_internals::of(endpoint).accepted;
  const std::uint32_t most = std::max(server.home->limits.accepts_per_turn, 1u);
  for (std::uint32_t i = 0; i < most && server.accepts(); ++i) {
    if (!make_room() || !server.home->users.make_room()) return on_failed_accept(server, errno);
    const std::uint64_t accepted_before = accepted;
    comm_socket_v4_client* const client = comm_socket_v4_accept_connection(endpoint);
    if (client == nullptr && accepted == accepted_before) {
      // Somebody who has the socket as well has shut it down: an accept finds nobody, for ever.
      const bool is_shut_down = errno == EAGAIN && (events & EPOLLHUP) != 0;
      return on_failed_accept(server, is_shut_down ? EINVAL : errno);
    }
    ++server.home->counters.accepted;
    if (client == nullptr) {
      ++server.home->counters.turned_away_failed;
      continue;
    }
    // What the slot's last client left there.
    client->tag = 0;
    client->recv_cb = nullptr;
    LoopMember* const m = add_client(server, *client);
    if (m != nullptr) announce(*m);
    if (!is_there(id)) return;
  }
}

void comm_v4_loop::on_failed_accept(LoopMember& server, int error) {
  if (error == EAGAIN || error == EINTR || error == ECONNABORTED) return;
  comm_socket_v4* const endpoint = server.home->endpoint.get();
  if (is_shortage(error) || error == EPERM) {
    if (!std::exchange(server.warned_of_shortage, true))
      comm_socket_v4_warning(endpoint, "CommLoop puts new connections off, %s",
                             std::strerror(error));
    ++server.home->counters.accepts_put_off;
    put_off(server, server.accepts_put_off);
    return;
  }
  comm_socket_v4_error(endpoint, "CommLoop cannot accept connections any more, %s",
                       std::strerror(error));
  server.accepts_nobody = true;
  server.error = error;
  update_events(server);
  settle_later(server);
}

// Null when the client was turned away.
LoopMember* comm_v4_loop::add_client(LoopMember& server, comm_socket_v4_client& client) {
  CommLoopCounters& counters = server.home->counters;
  const CommLoopLimits& limits = server.home->limits;
  LoopUsers& users = server.home->users;
  std::uint64_t* reason = nullptr;
  if (counters.connections >= limits.clients)
    reason = &counters.turned_away_full;
  else if (users.count(client.cred.uid) >= limits.clients_per_user)
    reason = &counters.turned_away_user;
  else if (!make_room() || !users.make_room())
    reason = &counters.turned_away_failed;
  if (reason != nullptr) {
    ++*reason;
    loop_connection::release(client);
    return nullptr;
  }
  LoopMember* const m = create(LoopKind::client, *server.handler, server.home);
  users.add(client.cred.uid);
  ++counters.connections;
  m->record = comm_socket_v4_client_ptr2index(&client);
  m->user = client.cred.uid;
  m->since = client.accept_time_us;
  server.warned_of_shortage = false;
  return m;
}

void comm_v4_loop::announce(LoopMember& m) {
  const CommLoopId id = m.id;
  m.announced = true;
  bool welcome = false;
  const AtScopeEnd let_in_or_not([&] {
    if (!is_there(id)) return;
    if (welcome) {
      update_due(m);
      update_events(m);
      return;
    }
    ++m.home->counters.turned_away_handler;
    destroy(m);
  });
  welcome = m.handler->on_connect(loop, id, loop_connection::peer(m));
}

void comm_v4_loop::try_to_connect(LoopMember& m) {
  comm_socket_v4* const endpoint = m.home->endpoint.get();
  const int done = comm_socket_v4_connect_check_pending(endpoint);
  if (done == 0) return;
  m.connecting = false;
  if (done < 0) return leave(m, comm_loop_failed, errno);
  unwatch(m);
  announce(m);
}

// --- Reading ------------------------------------------------------------------------------------

void comm_v4_loop::on_connection_events(LoopMember& m, std::uint32_t events) {
  if (m.connecting) return try_to_connect(m);
  if (!m.announced) return;  // on_connect comes first, at the end of the turn.
  const CommLoopId id = m.id;
  if ((events & EPOLLRDHUP) != 0) m.sends_end = true;
  if ((events & (EPOLLHUP | EPOLLERR)) != 0 && !m.queue.empty()) {
    m.deaf = true;
    events |= EPOLLOUT;
  }
  // Whatever else changes what is wanted says so itself.
  const bool may_change = (events & EPOLLOUT) != 0 || m.sends_end;
  const AtScopeEnd watch_on([&] {
    if (may_change) update_if_there(id);
  });
  if ((events & EPOLLOUT) != 0) {
    flush(m);
    if (!is_there(id)) return;
  }
  if ((events & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0) read(m);
}

// What is left in the socket is reported again in the next turn.
void comm_v4_loop::read(LoopMember& m) {
  const CommLoopId id = m.id;
  bool looks_on = true;
  for (std::uint32_t found = 0; looks_on; ++found) {
    m.end_is_next = m.sends_end && !loop_connection::has_bytes(m);
    const bool has_its_share = found > 0 && found >= m.home->limits.packets_per_turn;
    if (has_its_share || !m.reads()) return;
    m.holds_packet = false;
    const loop_connection::Retrieved got = loop_connection::retrieve(m);
    if (found == 1) m.sends_bursts = !got.nothing();
    if (got.nothing()) return on_nothing_read(m, got.error);
    if (got.packet == nullptr) {
      ++m.home->counters.packets_dropped;
      continue;
    }
    if (!m.finishing) hand_over(m, got.packet.get());
    if (!is_there(id)) return;
    looks_on = m.looks_for_more();
  }
}

void comm_v4_loop::on_nothing_read(LoopMember& m, int error) {
  if (!loop_connection::is_open(m)) {
    if (error != 0 && !says_that_peer_has_gone(error)) return leave(m, comm_loop_failed, error);
    leave(m, m.sending_ended && !m.deaf ? comm_loop_finished : comm_loop_peer_ended, 0);
  } else if (error == ENOMEM) {
    put_off(m, m.read_put_off);
  } else if (error != 0 && error != EAGAIN && error != EINTR) {
    leave(m, comm_loop_failed, error);
  }
}

void comm_v4_loop::hand_over(LoopMember& m, comm_socket_v4_packet* p) {
  CommLoopCounters& counters = m.home->counters;
  ++counters.packets_received;
  counters.bytes_received += p->buffer_length;
  m.has_sent_a_packet = true;
  m.since = now;
  m.handler->on_packet(loop, m.id, p);
}

// --- Sending ------------------------------------------------------------------------------------

int comm_v4_loop::send(LoopMember& m, comm_socket_v4_packet* p) {
  if (!m.is_connection() || p == nullptr || !is_complete(*p)) {
    errno = EINVAL;
    return -1;
  }
  if (m.going || m.finishing) {
    errno = ENOENT;
    return -1;
  }
  if (p->buffer_length > COMM_V4_MAX_RECEIVED_PACKET) {
    errno = EMSGSIZE;
    return -1;
  }
  if (m.queue.empty() && !m.connecting && !m.send_put_off) {
    const int sent = transmit(m, *p);
    if (sent != 0) return sent;
  }
  return enqueue(m, p);
}

// 1 when it has gone out, or its peer never reads it; 0 when it may later; -1, and the connection
// goes, when it never will.
int comm_v4_loop::transmit(LoopMember& m, comm_socket_v4_packet& p) {
  CommLoopCounters& counters = m.home->counters;
  const std::size_t length = p.buffer_length;
  const int sent = m.deaf ? 0 : loop_connection::transmit(m, p);
  if (sent > 0) {
    ++counters.packets_sent;
    counters.bytes_sent += length;
    return 1;
  }
  if (sent < 0 && says_that_peer_has_gone(errno)) m.deaf = true;
  if (m.deaf) {
    ++counters.packets_unsent;
    return 1;
  }
  if (sent == 0) return 0;
  if (is_shortage(errno)) {
    put_off(m, m.send_put_off);
    return 0;
  }
  const int error = errno;
  leave(m, comm_loop_unsendable, error);
  errno = error;
  return -1;
}

int comm_v4_loop::enqueue(LoopMember& m, comm_socket_v4_packet* p) {
  CommLoopCounters& counters = m.home->counters;
  if (m.full) {
    ++counters.sends_refused;
    errno = EAGAIN;
    return -1;
  }
  const bool queued = or_no_memory(false, [&] {
    m.queue.push_back(comm_share_packet(p));
    return true;
  });
  if (!queued) return -1;
  m.queued_bytes += p->buffer_length;
  ++counters.queued_packets;
  counters.queued_bytes += p->buffer_length;
  m.full = m.queue.size() >= m.home->limits.queued_packets ||
           m.queued_bytes >= m.home->limits.queued_bytes;
  update_events(m);
  return 0;
}

void comm_v4_loop::flush(LoopMember& m) {
  while (!m.queue.empty()) {
    if (transmit(m, *m.queue.front()) <= 0) return;
    forget_oldest(m);
  }
  m.full = false;
  if (m.finishing)
    end_sending(m);
  else
    m.handler->on_room(loop, m.id);
}

void comm_v4_loop::forget_oldest(LoopMember& m) noexcept {
  const std::uint64_t length = m.queue.front()->buffer_length;
  m.queued_bytes -= length;
  m.home->counters.queued_bytes -= length;
  --m.home->counters.queued_packets;
  m.queue.pop_front();
}

void comm_v4_loop::drop_queue(LoopMember& m) noexcept {
  m.home->counters.packets_unsent += m.queue.size();
  while (!m.queue.empty()) forget_oldest(m);
  m.full = false;
}

// --- Leaving ------------------------------------------------------------------------------------

LoopMember* comm_v4_loop::find_open_connection(CommLoopId id) const noexcept {
  LoopMember* const m = find(id);
  if (m == nullptr) return nullptr;
  if (m->is_connection() && !m->going) return m;
  errno = m->going ? ENOENT : EINVAL;
  return nullptr;
}

void comm_v4_loop::leave(LoopMember& m, CommLoopReason why, int error) noexcept {
  if (m.going) return;
  m.going = true;
  m.why = why;
  m.error = error;
  ++m.home->counters.gone[why];
  drop_queue(m);
  unwatch(m);
  set_due(m, LoopMember::never);
  settle_later(m);
}

void comm_v4_loop::finish(LoopMember& m) {
  m.finishing = true;
  m.since = monotonic_clock_us();
  update_due(m);
  if (m.queue.empty()) end_sending(m);
  update_events(m);
}

// The peer reads the end, and this side goes on reading until the peer has ended as well: a close
// with packets unread would take the last words back.
void comm_v4_loop::end_sending(LoopMember& m) {
  m.sending_ended = true;
  if (m.connecting || loop_connection::end_sending(m) != 0)
    leave(m, m.deaf ? comm_loop_peer_ended : comm_loop_finished, 0);
}

void comm_v4_loop::settle(LoopMember& m) {
  const CommLoopId id = m.id;
  if (m.going) {
    const AtScopeEnd end([&] {
      if (is_there(id)) destroy(m);
    });
    if (m.announced || m.kind == LoopKind::connection) m.handler->on_gone(loop, id, m.why, m.error);
  } else if (m.kind == LoopKind::server) {
    m.handler->on_accept_failed(loop, id, m.error);
  } else if (!m.announced) {
    announce(m);
  } else {
    const AtScopeEnd watch_on([&] { update_if_there(id); });
    read(m);
  }
}

// --- Pauses, and what is due --------------------------------------------------------------------

int comm_v4_loop::set_paused(CommLoopId id, bool paused) {
  LoopMember* const m = find(id);
  if (m == nullptr) return -1;
  if (m->kind == LoopKind::timer) {
    errno = EINVAL;
    return -1;
  }
  if (m->paused == paused) return 0;
  m->paused = paused;
  if (!m->finishing && !m->connecting) m->since = monotonic_clock_us();
  update_due(*m);
  update_events(*m);
  return 0;
}

std::uint32_t comm_v4_loop::wanted_events(const LoopMember& m) noexcept {
  if (m.kind == LoopKind::server) return m.accepts() ? EPOLLIN : 0u;
  if (m.is_connection())
    return (m.reads() ? EPOLLIN | EPOLLRDHUP : 0u) |
           (!m.queue.empty() && !m.send_put_off ? EPOLLOUT : 0u);
  return m.paused ? 0u : m.wanted_events;
}

void comm_v4_loop::update_if_there(CommLoopId id) {
  if (LoopMember* const m = find(id)) update_events(*m);
}

// Where nothing is wanted the descriptor is not watched at all: a peer that has gone would be
// reported without end.
void comm_v4_loop::update_events(LoopMember& m) {
  if (m.going || m.connecting) return;
  // Read before the endpoint came into the loop: no event will tell.
  if (m.holds_packet && m.reads()) settle_later(m);
  const std::uint32_t events = wanted_events(m);
  if (events == m.watched_for()) return;
  if (events == 0) return unwatch(m);
  const int fd = m.kind == LoopKind::server ? m.home->endpoint->socket_fd
                 : m.is_connection()        ? loop_connection::fd(m)
                                            : m.descriptor;
  if (watch(m, fd, events)) return;
  // ENOSPC: so many may be watched, max_user_watches of epoll(7).
  if (m.is_connection() && !is_shortage(errno) && errno != ENOSPC)
    leave(m, comm_loop_failed, errno);
  else
    retry_later(m, m.watch_put_off);
}

void comm_v4_loop::put_off(LoopMember& m, bool& what) {
  retry_later(m, what);
  update_events(m);
}

void comm_v4_loop::retry_later(LoopMember& m, bool& what) noexcept {
  what = true;
  m.put_off_until = LoopMember::later(monotonic_clock_us(), retry_us);
  update_due(m);
}

std::uint64_t comm_v4_loop::patience_until(const LoopMember& m) const noexcept {
  const auto within = [&m](std::uint64_t limit_us) {
    return limit_us != 0 ? LoopMember::later(m.since, limit_us) : LoopMember::never;
  };
  if (m.going || !m.is_connection()) return LoopMember::never;
  const CommLoopLimits& limits = m.home->limits;
  if (m.finishing) return LoopMember::later(m.since, limits.finish_us);
  if (m.connecting) return within(limits.connect_us);
  if (m.kind != LoopKind::client || m.paused) return LoopMember::never;
  const std::uint64_t first =
      m.has_sent_a_packet ? LoopMember::never : within(limits.first_packet_us);
  return std::min(first, within(limits.idle_us));
}

void comm_v4_loop::update_due(LoopMember& m) noexcept {
  if (m.kind == LoopKind::timer) return;
  set_due(m, std::min(patience_until(m), m.put_off_until));
}

void comm_v4_loop::on_due(LoopMember& m) {
  if (m.put_off_until <= now) {
    m.put_off_until = LoopMember::never;
    m.accepts_put_off = m.read_put_off = m.send_put_off = m.watch_put_off = false;
    update_events(m);
  }
  if (patience_until(m) > now) return update_due(m);
  if (m.connecting && !m.finishing) return leave(m, comm_loop_failed, ETIMEDOUT);
  if (!m.finishing) {
    // In time, and not read since others took long.
    const CommLoopId id = m.id;
    {
      const AtScopeEnd watch_on([&] { update_if_there(id); });
      read(m);
    }
    if (!is_there(id)) return;
    if (patience_until(m) > now) return update_due(m);
  }
  const CommLoopLimits& limits = m.home->limits;
  const bool first_is_late = !m.has_sent_a_packet && limits.first_packet_us != 0 &&
                             (limits.idle_us == 0 || limits.first_packet_us <= limits.idle_us);
  leave(m,
        m.finishing     ? comm_loop_not_finished
        : first_is_late ? comm_loop_no_first
                        : comm_loop_idle,
        0);
}

int comm_v4_loop::stop_listening(LoopMember& server) {
  unwatch(server);
  const int result = comm_socket_v4_stop_listening(server.home->endpoint.get());
  const int error = errno;
  if (result == 0) server.accepts_nobody = true;
  update_events(server);
  errno = error;
  return result;
}
