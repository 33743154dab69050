// Who is at the other end, as the kernel knows it.
#include <sys/socket.h>
#include <tarn_utils_v4/comm.h>

#include <cerrno>

#include "lib/endpoint_internal.h"

namespace {

#ifndef SO_PEERPIDFD
constexpr int SO_PEERPIDFD = 77;  // Linux 6.5
#endif

// getsockopt(2) of a socket that has to be there. *length becomes that of the value.
int ask(int fd, int option, void* value, socklen_t* length) {
  if (fd < 0) {
    errno = ENOTCONN;
    return -1;
  }
  return ::getsockopt(fd, SOL_SOCKET, option, value, length);
}

}  // namespace

bool has_peer(int fd) {
  struct sockaddr_un peer;
  socklen_t length = sizeof(peer);
  return ::getpeername(fd, reinterpret_cast<struct sockaddr*>(&peer), &length) == 0;
}

int comm_socket_v4_client_get_pidfd(const comm_socket_v4_client* c) {
  int pidfd = -1;
  socklen_t length = sizeof(pidfd);
  return ask(c->client_fd, SO_PEERPIDFD, &pidfd, &length) == 0 ? pidfd : -1;
}

int comm_socket_v4_client_get_groups(const comm_socket_v4_client* c, gid_t* groups, int size) {
  socklen_t length = size > 0 ? static_cast<socklen_t>(size) * sizeof(gid_t) : 0;
  const int result = ask(c->client_fd, SO_PEERGROUPS, size > 0 ? groups : nullptr, &length);
  // What does not fit is refused, with the length that it has.
  if (result != 0 && !(size == 0 && errno == ERANGE)) return -1;
  return static_cast<int>(length / sizeof(gid_t));
}

int comm_socket_v4_get_server_cred(const comm_socket_v4* c, struct ucred* cred) {
  if (c->flags.server) {
    errno = EINVAL;
    return -1;
  }
  struct ucred found;
  socklen_t length = sizeof(found);
  // The kernel also answers for a socket without peer.
  if (ask(has_peer(c->socket_fd) ? c->socket_fd : -1, SO_PEERCRED, &found, &length) != 0) return -1;
  *cred = found;
  return 0;
}
