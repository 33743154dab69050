// The endpoint object: construction, small accessors, and the one operation that returns it to the
// closed state from any other.
#include <sys/stat.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "lib/endpoint_internal.h"
#include "lib/errno_guard.h"
#include "lib/fatal_assert.h"

namespace {

constexpr char source[] = "lib/comm_socket";

// Only a socket is removed: whatever took its place in the meantime belongs to somebody else.
void remove_socket_file(comm_socket_v4* c) {
  const char* const path = c->socket_path.c_str();
  struct stat file;
  const bool found = ::lstat(path, &file) == 0;
  if (found && !S_ISSOCK(file.st_mode)) errno = ENOTSOCK;
  if (!found || !S_ISSOCK(file.st_mode)) {
    comm_socket_v4_warning(c, "cannot lstat(%s), not removing server socket (%s)\n", path,
                           std::strerror(errno));
    return;
  }
  if (::unlink(path) != 0)
    comm_socket_v4_warning(c, "unlink(%s) failed, %s\n", path, std::strerror(errno));
}

void close_socket(comm_socket_v4* c) {
  if (c->socket_fd < 0) return;
  if (c->flags.server) FATAL_ASSERT(!c->socket_path.empty());
  // The file goes before the socket: in between nobody finds a path on which nobody answers.
  remove_server_file(c);
  const comm_v4_internals& own = comm_v4_internals::of(c);
  c->flags.server ? stop_watching(own, c->socket_fd) : leave_loop(own, c->socket_fd);
  ::close(c->socket_fd);
  c->socket_fd = -1;
}

}  // namespace

void remove_server_file(comm_socket_v4* c) {
  if (c->flags.server && c->flags.bound && c->socket_path[0] != '@') remove_socket_file(c);
}

comm_socket_v4::comm_socket_v4()
    : log_mask(3),
      tag(0),
      recv_cb(nullptr),
      socket_fd(-1),
      sun(),
      connect_start(0),
      connect_timeout(0),
      connect_timeout_routine(0),
      client_max(0),
      client_next(0),
      client_idlescan(0),
      client_getpktscan(0),
      next_packet(nullptr),
      socketpair_remote_fd(-1),
      internals_(new comm_v4_internals) {
  clear_word(flags);
  clear_word(status);
}

comm_socket_v4::~comm_socket_v4() {
  next_packet = comm_socket_v4_packet_release(next_packet);
  comm_socket_v4_close(this);
  comm_socket_v4_set_socket_path(this, nullptr);
  delete internals_;
}

comm_socket_v4* comm_socket_v4_create() { return new (std::nothrow) comm_socket_v4; }

int comm_socket_v4_destroy(comm_socket_v4* c) {
  delete c;
  return 0;
}

int comm_socket_v4_close(comm_socket_v4* c) {
  ErrnoGuard keep_errno;
  comm_socket_v4_socketpair_close_remote_end(c);
  close_socket(c);
  comm_socket_v4_free_clients(c);
  comm_socket_v4_client_disconnect_list_clear(c);
  c->sun = {};
  c->flags.server = 0;
  c->flags.bound = 0;
  c->flags.socketpair = 0;
  c->flags.idle_enabled = 1;
  clear_word(c->status);
  comm_v4_internals& own = comm_v4_internals::of(c);
  own.stopped_listening = false;
  own.descriptors_were_refused = false;
  own.descriptors_cannot_come = false;
  own.warned_of_shortage = false;
  // Stopped by itself: a forked child may hold a copy.
  if (own.connect_timer.is_open()) stop_watching(own, own.connect_timer.get());
  stop_connect_timer(c);
  own.connect_timer = CommDescriptor();
  return 0;
}

void comm_socket_v4_socketpair_close_remote_end(comm_socket_v4* c) {
  if (c->socketpair_remote_fd < 0) return;
  ErrnoGuard keep_errno;
  ::close(c->socketpair_remote_fd);
  c->socketpair_remote_fd = -1;
}

int comm_socket_v4_set_socket_path(comm_socket_v4* c, const char* path) {
  if (comm_socket_v4_is_open(c)) {
    comm_socket_v4_bug(c, "Caller sets socket path while connection open");
    comm_socket_v4_close(c);
  }
  if (path == nullptr)
    c->socket_path.clear();
  else
    c->socket_path = path;
  return 0;
}

int comm_socket_v4_is_open(const comm_socket_v4* c) { return c != nullptr && c->socket_open(); }

int comm_socket_v4_connection_pending(const comm_socket_v4* c) {
  return comm_socket_v4_is_open(c) && !c->flags.server && c->status.connect_pending;
}

int comm_socket_v4::get_socket_fd() const { return socket_fd; }
bool comm_socket_v4::socket_open() const { return socket_fd >= 0; }
std::uint64_t comm_socket_v4::get_tag() const { return tag; }
void comm_socket_v4::set_tag(std::uint64_t value) { tag = value; }
void comm_socket_v4::set_recv_cb(int (*cb)(comm_socket_v4*, comm_socket_v4_packet*)) {
  recv_cb = cb;
}
