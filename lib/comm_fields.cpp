// The fields of endpoints and client records, for programs that see the classes by name only.
#include <tarn_utils_v4/comm.h>

#include <cerrno>

// --- Endpoint -----------------------------------------------------------------------------------

int comm_socket_v4_get_socket_fd(const comm_socket_v4* c) { return c->socket_fd; }
const char* comm_socket_v4_get_socket_path(const comm_socket_v4* c) {
  return c->socket_path.c_str();
}
std::uint64_t comm_socket_v4_get_tag(const comm_socket_v4* c) { return c->tag; }
void comm_socket_v4_set_tag(comm_socket_v4* c, std::uint64_t value) { c->tag = value; }
int comm_socket_v4_is_server(const comm_socket_v4* c) { return c->flags.server; }
int comm_socket_v4_is_socketpair(const comm_socket_v4* c) { return c->flags.socketpair; }
int comm_socket_v4_is_bound(const comm_socket_v4* c) { return c->flags.bound; }
void comm_socket_v4_set_bound(comm_socket_v4* c, int on) { c->flags.bound = on > 0; }
int comm_socket_v4_is_debug(const comm_socket_v4* c) { return c->flags.debug; }
void comm_socket_v4_set_debug(comm_socket_v4* c, int on) { c->flags.debug = on > 0; }
int comm_socket_v4_is_idle_enabled(const comm_socket_v4* c) { return c->flags.idle_enabled; }
void comm_socket_v4_set_idle_enabled(comm_socket_v4* c, int on) { c->flags.idle_enabled = on > 0; }
comm_socket_v4_packet* comm_socket_v4_get_next_packet(const comm_socket_v4* c) {
  return c->next_packet;
}
void comm_socket_v4_set_recv_cb(comm_socket_v4* c,
                                int (*cb)(comm_socket_v4*, comm_socket_v4_packet*)) {
  c->recv_cb = cb;
}
unsigned comm_socket_v4_get_log_mask(const comm_socket_v4* c) { return c->log_mask; }
void comm_socket_v4_set_log_mask(comm_socket_v4* c, unsigned mask) { c->log_mask = mask & 15; }
std::uint64_t comm_socket_v4_get_connect_timeout(const comm_socket_v4* c) {
  return c->connect_timeout;
}
std::uint64_t comm_socket_v4_get_connect_timeout_routine(const comm_socket_v4* c) {
  return c->connect_timeout_routine;
}
std::size_t comm_socket_v4_client_disconnect_list_count(const comm_socket_v4* c) {
  return c->disconnect_list.size();
}
unsigned long comm_socket_v4_client_maximum_index(const comm_socket_v4* c) {
  return c->client_maximum_index();
}
unsigned long comm_socket_v4_client_allocation_count(const comm_socket_v4* c) {
  return c->client_allocation_count();
}

// --- Client record ------------------------------------------------------------------------------

comm_socket_v4* comm_socket_v4_client_get_server(const comm_socket_v4_client* c) {
  return c->server;
}
int comm_socket_v4_client_get_client_fd(const comm_socket_v4_client* c) { return c->client_fd; }
int comm_socket_v4_client_is_disconnected(const comm_socket_v4_client* c) {
  return c->status.disconnected;
}
int comm_socket_v4_client_has_failed(const comm_socket_v4_client* c) { return c->status.error; }
std::uint64_t comm_socket_v4_client_get_accept_time_us(const comm_socket_v4_client* c) {
  return c->accept_time_us;
}
std::uint64_t comm_socket_v4_client_get_tag(const comm_socket_v4_client* c) { return c->tag; }
void comm_socket_v4_client_set_tag(comm_socket_v4_client* c, std::uint64_t value) {
  c->tag = value;
}
int comm_socket_v4_client_get_halt(const comm_socket_v4_client* c) { return c->halt; }
void comm_socket_v4_client_set_halt(comm_socket_v4_client* c, int halt) { c->halt = halt; }
comm_socket_v4_packet* comm_socket_v4_client_get_pending_response_packet(
    const comm_socket_v4_client* c) {
  return c->pending_response_packet;
}
void comm_socket_v4_client_set_pending_response_packet(comm_socket_v4_client* c,
                                                       comm_socket_v4_packet* p) {
  c->pending_response_packet = p;
}
comm_socket_v4_packet* comm_socket_v4_client_get_next_packet(const comm_socket_v4_client* c) {
  return c->next_packet;
}
void comm_socket_v4_client_set_recv_cb(comm_socket_v4_client* c,
                                       int (*cb)(comm_socket_v4_client*, comm_socket_v4_packet*)) {
  c->recv_cb = cb;
}

int comm_socket_v4_client_get_cred(const comm_socket_v4_client* c, struct ucred* cred) {
  if (c->client_fd < 0) {
    errno = ENOTCONN;
    return -1;
  }
  *cred = c->cred;
  return 0;
}
