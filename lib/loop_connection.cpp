#include "lib/loop_connection.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>

#include "lib/endpoint_internal.h"

namespace loop_connection {

int fd(const LoopMember& m) {
  return m.kind == LoopKind::client ? record(m)->client_fd : m.home->endpoint->socket_fd;
}

bool is_open(const LoopMember& m) {
  return m.kind == LoopKind::client ? record(m)->client_is_open() : m.home->endpoint->socket_open();
}

bool has_bytes(const LoopMember& m) {
  int waiting = 0;
  return ::ioctl(fd(m), FIONREAD, &waiting) != 0 || waiting != 0;
}

struct ucred peer(const LoopMember& m) {
  struct ucred who = {0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
  if (m.kind == LoopKind::client) return record(m)->cred;
  comm_socket_v4_get_server_cred(m.home->endpoint.get(), &who);
  return who;
}

int end_sending(const LoopMember& m) {
  return m.kind == LoopKind::client ? comm_socket_v4_client_end_sending(record(m))
                                    : comm_socket_v4_end_sending(m.home->endpoint.get());
}

void close(LoopMember& m) {
  if (m.kind == LoopKind::connection) {
    comm_socket_v4_close(m.home->endpoint.get());
    return;
  }
  release(*record(m));
}

void release(comm_socket_v4_client& client) {
  // The loop knows by itself who is to be released.
  comm_socket_v4_client_disconnect_list_clear(client.server);
  comm_socket_v4_free_client(&client);
}

}  // namespace loop_connection
