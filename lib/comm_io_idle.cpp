// The work of an endpoint that does not block: the idle functions, and the read of a client
// endpoint or an end of a socket pair.
#include <tarn_utils_v4/comm.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "lib/endpoint_internal.h"
#include "lib/packet_receive.h"
#include "lib/quiet_clients.h"

namespace {

class ClientSide final : public ReceiveSide {
 public:
  explicit ClientSide(comm_socket_v4* s)
      : ReceiveSide(s, s->socket_fd, "lib/comm_io_idle", "comm_socket_v4_idle_clientside_read") {}

  comm_socket_v4_packet** slot() override { return &endpoint->next_packet; }
  int offer(comm_socket_v4_packet* p) override {
    return endpoint->recv_cb != nullptr ? endpoint->recv_cb(endpoint, p) : 0;
  }
  int on_error(int error) override {
    comm_socket_v4_error(endpoint, "client_idle() fd=%d recv error %s", fd, std::strerror(error));
    comm_socket_v4_close(endpoint);
    errno = error;
    return -1;
  }
  int on_end_of_stream(int bytes_announced) override {
    comm_socket_v4_debug(endpoint, "client_idle() fd=%d disconnected [client-side]", fd);
    if (bytes_announced != 0)
      comm_socket_v4_bug(endpoint,
                         "client_idle() fd=%d disconnect [client-side] but FIONREAD last returned "
                         "%d, something strange?",
                         fd, bytes_announced);
    comm_socket_v4_close(endpoint);
    errno = ENOTCONN;
    return -1;
  }
  void warn_of_truncation() override {
    comm_socket_v4_warning(
        endpoint, "client_idle() fd=%d returned packet is larger than buffer (client-side)\n", fd);
  }
};

// Half of the table, so that the cost of a call is bounded by it and two calls reach every client.
void idle_clients(comm_socket_v4* s, Expected expected) {
  const std::size_t visits = (s->client.size() + 1) / 2;
  QuietClients quiet(s, expected);
  for (std::size_t i = 0; i < visits; ++i) {
    if (s->client_idlescan >= s->client.size()) s->client_idlescan = 0;
    // A receive callback may have closed the server.
    if (s->client.empty()) return;
    comm_socket_v4_client* const client = &s->client[s->client_idlescan];
    if (client->client_is_open() && !quiet.is_quiet(s->client_idlescan, visits - i))
      comm_socket_v4_client_idle(client);
    if (++s->client_idlescan >= s->client.size()) s->client_idlescan = 0;
  }
}

// Of a socket without a peer poll(2) may say nothing although a read fails.
bool is_known_to_be_connected(const comm_socket_v4* s) {
  return s->flags.socketpair ? comm_v4_internals::of(s).pair_has_peer
                             : !comm_socket_v4_connection_pending(s);
}

bool has_nothing_to_do(const comm_socket_v4* s) {
  return s->next_packet == nullptr && is_known_to_be_connected(s) && is_quiet(s->socket_fd);
}

int idle(comm_socket_v4* s, Expected expected) {
  if (!comm_socket_v4_is_open(s)) {
    errno = ENOTCONN;
    return -1;
  }
  if (!s->flags.idle_enabled) return 0;
  if (s->flags.server) {
    idle_clients(s, expected);
    return 0;
  }
  if (expected == Expected::quiet && has_nothing_to_do(s)) return 0;
  return comm_socket_v4_idle_clientside(s) != 0 ? -1 : 0;
}

}  // namespace

int comm_socket_v4_idle_clientside_read(comm_socket_v4* s) {
  ClientSide side(s);
  return receive_packet(side);
}

int comm_socket_v4_idle_clientside(comm_socket_v4* s) {
  if (s->next_packet != nullptr) return 0;
  if (s->socket_fd < 0) {
    comm_socket_v4_bug(s, "idle_clientside() while closed");
    errno = EBADF;
    return -1;
  }
  if (comm_socket_v4_connection_pending(s)) {
    if (comm_socket_v4_connect_check_pending(s) == 0) return 0;
    if (!comm_socket_v4_is_open(s)) return -1;
  }
  return comm_socket_v4_idle_clientside_read(s) != 0 ? -1 : 0;
}

int comm_socket_v4_idle(comm_socket_v4* s) { return idle(s, Expected::packets); }
int comm_socket_v4_idle_before_wait(comm_socket_v4* s) { return idle(s, Expected::quiet); }
