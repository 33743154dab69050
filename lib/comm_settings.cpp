// What the application sets on an endpoint, to hold from then on. Close keeps it.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <tarn_utils_v4/comm.h>

#include <algorithm>
#include <cerrno>

#include "lib/endpoint_internal.h"
#include "lib/errno_guard.h"
#include "lib/received_descriptors.h"

namespace {

#ifndef SO_PASSRIGHTS
constexpr int SO_PASSRIGHTS = 83;  // Linux 6.16
#endif
constexpr mode_t permission_bits = 0777;

// Without the option descriptors come, and are dropped with their packet.
void let_descriptors_pass(int fd, bool pass) {
  ErrnoGuard keep_errno;
  const int value = pass;
  ::setsockopt(fd, SOL_SOCKET, SO_PASSRIGHTS, &value, sizeof(value));
}

bool descriptors_pass(int fd) {
  ErrnoGuard keep_errno;
  int value = 1;
  socklen_t length = sizeof(value);
  return ::getsockopt(fd, SOL_SOCKET, SO_PASSRIGHTS, &value, &length) != 0 || value != 0;
}

bool is_server_without_clients(const comm_socket_v4* c) {
  return c->flags.server &&
         std::all_of(c->client.begin(), c->client.end(),
                     [](const comm_socket_v4_client& client) { return client.client_fd < 0; });
}

}  // namespace

void comm_socket_v4_set_socket_mode(comm_socket_v4* c, mode_t mode) {
  comm_v4_internals::of(c).socket_mode = mode & permission_bits;
}
void comm_socket_v4_set_socket_group(comm_socket_v4* c, gid_t group) {
  comm_v4_internals::of(c).socket_group = group;
}
void comm_socket_v4_set_listen_backlog(comm_socket_v4* c, int backlog) {
  comm_v4_internals::of(c).listen_backlog = backlog;
}
void comm_socket_v4_set_descriptors_cloexec(comm_socket_v4* c, int on) {
  comm_v4_internals::of(c).descriptors_cloexec = on > 0;
}

int comm_socket_v4_set_max_descriptors(comm_socket_v4* c, unsigned most) {
  if (most > COMM_V4_MAX_SEND_FDS) {
    errno = EINVAL;
    return -1;
  }
  comm_v4_internals::of(c).max_descriptors = most;
  if (c->socket_fd >= 0) apply_max_descriptors(c);
  for (const comm_socket_v4_client& client : c->client)
    if (client.client_fd >= 0) apply_max_descriptors(c, client.client_fd);
  return 0;
}

void apply_max_descriptors(const comm_socket_v4* c) {
  comm_v4_internals& own = comm_v4_internals::of(c);
  const bool pass = own.max_descriptors > 0;
  if (pass) own.descriptors_cannot_come = false;
  if (pass && descriptors_pass(c->socket_fd)) return;
  own.descriptors_were_refused = true;
  let_descriptors_pass(c->socket_fd, pass);
  // Of a client that waits to be accepted the accept tells whether it could.
  if (!pass && !descriptors_pass(c->socket_fd) && is_server_without_clients(c))
    own.descriptors_cannot_come = true;
}

void apply_max_descriptors_to_new(const comm_socket_v4* c) {
  comm_v4_internals& own = comm_v4_internals::of(c);
  if (own.max_descriptors > 0) return apply_max_descriptors(c);
  own.descriptors_were_refused = true;
  let_descriptors_pass(c->socket_fd, false);
  own.descriptors_cannot_come = !descriptors_pass(c->socket_fd);
}

// A connection has the option that its server had when the client connected.
void apply_max_descriptors(const comm_socket_v4* c, int client_fd) {
  comm_v4_internals& own = comm_v4_internals::of(c);
  const bool pass = own.max_descriptors > 0;
  if (!own.descriptors_were_refused || descriptors_pass(client_fd) == pass) return;
  own.descriptors_cannot_come = false;  // It may have sent some by now.
  let_descriptors_pass(client_fd, pass);
}

int comm_socket_v4_set_descriptor_reserve(comm_socket_v4* c, int on) {
  comm_v4_internals& own = comm_v4_internals::of(c);
  if (on <= 0) {
    own.keeps_reserve = false;
    own.reserve = CommDescriptor();
    return 0;
  }
  if (!renew_reserve(own)) return -1;
  own.keeps_reserve = true;
  return 0;
}

void stop_watching(const comm_v4_internals& own, int fd) {
  if (!own.in_loop()) return;
  ErrnoGuard keep_errno;
  ::epoll_ctl(own.loop_epoll, EPOLL_CTL_DEL, fd, nullptr);
}

void leave_loop(const comm_v4_internals& own, int connection) {
  if (!own.in_loop()) return;
  discard_unread(connection);
  stop_watching(own, connection);
}

bool renew_reserve(comm_v4_internals& own) {
  // The one file that is there in any chroot(2).
  if (!own.reserve.is_open()) own.reserve = CommDescriptor(::open("/", O_PATH | O_CLOEXEC));
  return own.reserve.is_open();
}
