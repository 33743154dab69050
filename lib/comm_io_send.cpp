// Sending a packet in one system call, and handing out the packets that were received.
#include <sys/socket.h>
#include <tarn_utils_v4/comm.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

#include "lib/client_slot.h"
#include "lib/endpoint_internal.h"
#include "lib/fatal_assert.h"
#include "lib/quiet_clients.h"

namespace {

// --- Sending ------------------------------------------------------------------------------------

// What differs between sending to one of a server's clients and on an endpoint's own socket.
struct SendSide {
  comm_socket_v4* endpoint;       // logs
  comm_socket_v4_client* client;  // null when sending on the endpoint's own socket
  int closed_errno;               // the errno when the connection is not open, 0 when it is

  bool to_client() const { return client != nullptr; }
  int fd() const { return to_client() ? client->client_fd : endpoint->socket_fd; }
  // The descriptor after write_end: the completion callback may have closed or released anything.
  int fd_after_completing(comm_socket_v4_packet& p) const {
    std::optional<ClientSlot> slot;
    if (to_client()) slot.emplace(client);
    comm_socket_v4_packet_write_end(&p);
    if (!slot) return endpoint->socket_fd;
    const comm_socket_v4_client* const record = slot->record();
    return record != nullptr ? record->client_fd : -1;
  }
};

// Fills the control area with the packet's descriptors. Without any, or with more than it holds,
// the message keeps no control data.
void attach_descriptors(const SendSide& side, const comm_socket_v4_packet& p, char* ctrl,
                        std::size_t ctrl_size, struct msghdr& message) {
  const std::size_t size = p.attached_fd.size() * sizeof(int);
  if (size == 0) return;
  if (p.attached_fd.size() > COMM_V4_MAX_SEND_FDS) {
    comm_socket_v4_warning(side.endpoint,
                           side.to_client()
                               ? "send_to_client(): too many file descriptors, not sending"
                               : "send_to_server(): too many file descriptors, not sending");
    return;
  }
  message.msg_control = ctrl;
  message.msg_controllen = CMSG_SPACE(size);
  struct cmsghdr* const control = CMSG_FIRSTHDR(&message);
  control->cmsg_level = SOL_SOCKET;
  control->cmsg_type = SCM_RIGHTS;
  control->cmsg_len = CMSG_LEN(size);
  unsigned char* const fds = CMSG_DATA(control);
  if (reinterpret_cast<std::uintptr_t>(fds) + size >
      reinterpret_cast<std::uintptr_t>(ctrl) + ctrl_size)
    fatal_assertion_failed("lib/comm_io_send", __func__,
                           "(uintptr_t)(&fds[p->attached_fd.size()]) <= "
                           "((uintptr_t)ctrl+(uintptr_t)sizeof(ctrl))");
  std::memcpy(fds, p.attached_fd.data(), size);
}

bool is_in_loop(const SendSide& side) {
  return side.endpoint != nullptr && comm_v4_internals::of(side.endpoint).in_loop();
}

ssize_t send_message(const SendSide& side, int fd, const comm_socket_v4_packet& p) {
  alignas(struct cmsghdr) char ctrl[COMM_V4_CONTROL_BUFFER_SIZE] = {};
  struct iovec bytes = {p.buffer, p.buffer_length};
  struct msghdr message = {};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  attach_descriptors(side, p, ctrl, sizeof(ctrl), message);

  return ::sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

int send_bytes(const SendSide& side, int fd, comm_socket_v4_packet& p) {
  // A message header costs time, and only descriptors need one.
  const ssize_t sent = is_in_loop(side) && p.attached_fd.empty()
                           ? ::send(fd, p.buffer, p.buffer_length, MSG_DONTWAIT | MSG_NOSIGNAL)
                           : send_message(side, fd, p);
  if (sent < 0) return errno == EINTR || errno == EAGAIN ? 0 : -1;
  // The message holds duplicates now.
  p.close_attached_fd();
  if (sent == 0 || static_cast<std::size_t>(sent) == p.buffer_length) return static_cast<int>(sent);
  comm_socket_v4_warning(side.endpoint,
                         side.to_client()
                             ? "send_to_client(): packet was not fully written (%d out of %zu)"
                             : "send_to_server(): packet was not fully written (%d out of %zu)",
                         static_cast<int>(sent), p.buffer_length);
  return -1;
}

int end_sending_on(int fd) {
  if (has_peer(fd)) return ::shutdown(fd, SHUT_WR);
  errno = ENOTCONN;
  return -1;
}

int send_packet(const SendSide& side, comm_socket_v4_packet& p) {
  if (p.write_state == comm_socket_v4_packet::write_state_none) {
    comm_socket_v4_debug(
        side.endpoint, side.to_client()
                           ? "send_to_client(): attempt to send packet without writing data to it"
                           : "send_to_server(): attempt to send packet without writing data to it");
    return -1;
  }
  if (p.buffer == nullptr || p.buffer_length == 0) {
    comm_socket_v4_debug(
        side.endpoint, side.to_client()
                           ? "send_to_client(): attempt to send packet with no data or no buffer"
                           : "send_to_server(): attempt to send packet with no data or no buffer");
    errno = EINVAL;
    return -1;
  }
  if (side.closed_errno != 0) {
    if (!side.to_client())
      comm_socket_v4_debug(side.endpoint,
                           "send_to_server(): attempt to send packet when socket is not open");
    errno = side.closed_errno;
    return -1;
  }
  // A CommLoop passes received packets on as they are.
  const bool is_passed_on =
      p.write_state == comm_socket_v4_packet::write_state_received && is_in_loop(side);
  if (p.write_state == comm_socket_v4_packet::write_state_end || is_passed_on)
    return send_bytes(side, side.fd(), p);
  comm_socket_v4_warning(
      side.endpoint,
      side.to_client() ? "send_to_client(): attempt to send packet that has been incompletely "
                         "written. auto-terminating packet (state=%d)."
                       : "send_to_server(): attempt to send packet that has been incompletely "
                         "written. auto-terminating packet (state=%d).",
      p.write_state);
  return send_bytes(side, side.fd_after_completing(p), p);
}

// --- Retrieval ----------------------------------------------------------------------------------

comm_socket_v4_packet* take(comm_socket_v4_packet*& slot) { return std::exchange(slot, nullptr); }

// A server that is emptied after every wait mostly finds as many packets as the time before. Where
// few of many clients talk those next in turn are quiet.
Expected expected_by_retrieval(const comm_socket_v4* s) {
  const comm_v4_internals& own = comm_v4_internals::of(s);
  const bool has_all = own.retrieved_in_a_row == own.retrieved_last_time;
  return has_all || !own.retrieved_early ? Expected::quiet : Expected::packets;
}

// Visits the clients in rotation, each once at most.
comm_socket_v4_packet* next_packet_of_a_client(comm_socket_v4* s, comm_socket_v4_client** from) {
  const std::size_t slots = s->client.size();
  QuietClients quiet(s, expected_by_retrieval(s));
  std::size_t visited = 0;
  for (std::size_t tries = 0; tries < slots; ++tries) {
    if (s->client_getpktscan >= s->client.size()) s->client_getpktscan = 0;
    // A receive callback may have closed the server.
    if (s->client.empty()) return nullptr;
    const std::uint64_t index = s->client_getpktscan;
    comm_socket_v4_client* const client = &s->client[index];
    comm_socket_v4_packet* packet = nullptr;
    if (client->client_is_open()) {
      ++visited;
      if (!quiet.is_quiet(index, slots - tries)) packet = comm_socket_v4_client_get_packet(client);
    }
    if (++s->client_getpktscan >= s->client.size()) s->client_getpktscan = 0;
    if (packet == nullptr) continue;
    if (from != nullptr) *from = &s->client[index];
    comm_v4_internals::of(s).retrieved_early = visited <= QuietClients::read_without_asking;
    return packet;
  }
  return nullptr;
}

}  // namespace

// --- Sending ------------------------------------------------------------------------------------

int comm_socket_v4_packet_send_to_client(comm_socket_v4_client* c, comm_socket_v4_packet* p) {
  if (c == nullptr || p == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const int closed_errno = c->client_is_open() ? 0 : c->status.disconnected ? ECONNRESET : ENOTCONN;
  return send_packet({c->server, c, closed_errno}, *p);
}

int comm_socket_v4_packet_send_to_server(comm_socket_v4* s, comm_socket_v4_packet* p) {
  if (s == nullptr || p == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const int closed_errno = comm_socket_v4_is_open(s) ? 0 : ENOTCONN;
  return send_packet({s, nullptr, closed_errno}, *p);
}

int comm_socket_v4_client_end_sending(comm_socket_v4_client* c) {
  return end_sending_on(c->client_is_open() ? c->client_fd : -1);
}

int comm_socket_v4_end_sending(comm_socket_v4* c) {
  if (!c->flags.server) return end_sending_on(c->socket_fd);
  errno = EINVAL;
  return -1;
}

// --- Retrieval ----------------------------------------------------------------------------------

comm_socket_v4_packet* comm_socket_v4_client_get_packet(comm_socket_v4_client* c) {
  if (c->halt != 0) return nullptr;
  if (c->pending_response_packet != nullptr) {
    comm_socket_v4_client_idle(c);
    return nullptr;
  }
  if (c->next_packet != nullptr) return take(c->next_packet);
  const ClientSlot slot(c);
  if (comm_socket_v4_client_idle(c) < 0) return nullptr;
  comm_socket_v4_client* const client = slot.record();
  return client != nullptr ? take(client->next_packet) : nullptr;
}

comm_socket_v4_packet* comm_socket_v4_server_get_packet(comm_socket_v4* s,
                                                        comm_socket_v4_client** from) {
  if (from != nullptr) *from = nullptr;
  comm_socket_v4_packet* const packet = next_packet_of_a_client(s, from);
  comm_v4_internals& own = comm_v4_internals::of(s);
  if (packet != nullptr)
    ++own.retrieved_in_a_row;
  else
    own.retrieved_last_time = std::exchange(own.retrieved_in_a_row, 0);
  return packet;
}

comm_socket_v4_packet* comm_socket_v4_client_get_packet_from_server(comm_socket_v4* s) {
  if (s == nullptr) return nullptr;
  if (s->next_packet == nullptr) comm_socket_v4_idle(s);
  return take(s->next_packet);
}
