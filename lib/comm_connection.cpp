// The three ways to open an endpoint: a socket pair, a server socket, a connection to a server.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <tarn_utils_v4/comm_cpp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "lib/descriptor_wait.h"
#include "lib/endpoint_internal.h"
#include "lib/errno_guard.h"
#include "lib/fatal_assert.h"
#include "lib/pause.h"
#include "lib/start_lock.h"
#include "suite/io.h"
#include "suite/process.h"
#include "suite/time.h"

namespace {

constexpr char source[] = "lib/comm_connection";

constexpr int socket_type = SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC;
// With the NUL that other programs expect behind a path, one byte of sun_path stays unused.
static_assert(COMM_V4_MAX_SERVER_PATH == sizeof(sockaddr_un::sun_path) - 2);
static_assert(COMM_V4_MAX_ABSTRACT_NAME == sizeof(sockaddr_un::sun_path));
constexpr mode_t default_file_mode = 0666;
// Has no meaning for a socket, and so marks the file that a bind has just made.
constexpr mode_t socket_file_mark = S_ISVTX;
constexpr std::uint64_t default_wait_us = 10000000;
constexpr std::uint64_t retry_pause_us = 10000;

bool starts_with_at(const std::string& path) { return !path.empty() && path[0] == '@'; }
bool is_abstract(const std::string& path) { return starts_with_at(path) && path.length() > 1; }

const struct sockaddr* as_sockaddr(const struct sockaddr_un& sun) {
  return reinterpret_cast<const struct sockaddr*>(&sun);
}

// --- Socket pair --------------------------------------------------------------------------------

// Neither call touches an endpoint that is in use. The messages carry the caller's name.
bool may_become_socketpair(comm_socket_v4* c, bool makes_new) {
  if (c->flags.server) {
    comm_socket_v4_bug(c, makes_new ? "connect_new_socketpair() with flags.server==1"
                                    : "connect_use_socketpair() with flags.server==1");
    return false;
  }
  if (comm_socket_v4_is_open(c)) {
    comm_socket_v4_bug(c, makes_new ? "connect_new_socketpair() when already open"
                                    : "connect_use_socketpair() when already open");
    return false;
  }
  return true;
}

void become_socketpair(comm_socket_v4* c, int fd) {
  c->socket_fd = fd;
  comm_v4_internals::of(c).pair_has_peer = has_peer(fd);
  apply_max_descriptors(c);
  c->flags.server = 0;
  c->flags.bound = 0;
  c->flags.idle_enabled = 1;
  c->flags.socketpair = 1;
  clear_word(c->status);
}

// --- Server -------------------------------------------------------------------------------------

const char* kind_of(const struct stat& file) {
  if (S_ISREG(file.st_mode)) return "file";
  return S_ISDIR(file.st_mode) ? "directory" : "non-socket";
}

// Why it cannot be asked whether a path is served.
bool is_shortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

// The path is in use: removes the socket file of a dead server, refuses everything else with a log
// line. What the caller finds in errno for a path that is held is what bind said of it.
int clear_occupied_path(comm_socket_v4* c) {
  const char* const path = c->socket_path.c_str();
  struct stat file;
  if (::lstat(path, &file) != 0) {
    comm_socket_v4_error(c, "create_server_socket() cannot bind, and cannot stat path '%s' (%s)",
                         path, std::strerror(errno));
    return -1;
  }
  errno = EADDRINUSE;
  if (!S_ISSOCK(file.st_mode)) {
    comm_socket_v4_error(c, "create_server_socket() cannot bind, path '%s' already occupied by %s",
                         path, kind_of(file));
    return -1;
  }
  errno = 0;
  const int server_pid = get_socket_server_pid(path, 1);
  if (server_pid == 0 && !c->flags.debug && is_shortage(errno)) {
    comm_socket_v4_error(c, "create_server_socket() cannot bind, %s\n", std::strerror(errno));
    return -1;
  }
  errno = EADDRINUSE;
  if (server_pid >= 0 && !c->flags.debug) {
    comm_socket_v4_error(c, "create_server_socket() another process is listening on '%s'", path);
    return -1;
  }
  if (server_pid >= 0)
    comm_socket_v4_warning(c,
                           "create_server_socket() another process is listening on '%s' but DEBUG "
                           "flag is set to ignore the condition and proceed anyway",
                           path);
  if (::unlink(path) != 0) {
    comm_socket_v4_error(
        c, "create_server_socket() cannot bind, and cannot remove existing socket '%s' (%s)", path,
        std::strerror(errno));
    return -1;
  }
  return 0;
}

int bind_to_path(comm_socket_v4* c) {
  struct sockaddr_un sun;
  std::size_t length;
  comm_socket_path_to_sockaddr_un(sun, length, c->socket_path);
  std::optional<StartLock> lock;
  if (!is_abstract(c->socket_path)) lock.emplace(c->socket_path);
  const auto bind_once = [&] {
    return ::bind(c->socket_fd, as_sockaddr(sun), static_cast<socklen_t>(length));
  };
  int result = bind_once();
  if (result != 0 && errno == EADDRINUSE && !is_abstract(c->socket_path)) {
    if (clear_occupied_path(c) != 0) return -1;
    result = bind_once();
  }
  if (result != 0)
    comm_socket_v4_error(c, "create_server_socket() cannot bind, %s\n", std::strerror(errno));
  return result;
}

// chmod(2) of an open file. Linux 6.6 needs no /proc for it.
bool set_mode(int fd, mode_t mode) {
  constexpr long fchmodat2 = 452;
  char name[32];
  std::snprintf(name, sizeof(name), "/proc/self/fd/%d", fd);
  if (::chmod(name, mode) == 0) return true;
  const int error = errno;
  if (::syscall(fchmodat2, fd, "", mode, AT_EMPTY_PATH) == 0) return true;
  if (errno == ENOSYS) errno = error;
  return false;
}

// Gives the file its group and, independent of the umask, its mode. In a directory that others may
// write the path may name something else by now, which is left alone: only the marked file is
// touched. Nobody can connect before the socket listens.
bool set_access_of_file(comm_socket_v4* c) {
  const comm_v4_internals& own = comm_v4_internals::of(c);
  const CommDescriptor file(::open(c->socket_path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat found;
  if (!file.is_open() || ::fstat(file.get(), &found) != 0) return false;
  if (!S_ISSOCK(found.st_mode) || (found.st_mode & socket_file_mark) == 0) {
    c->flags.bound = 0;
    errno = ESTALE;
    return false;
  }
  if (own.socket_group != comm_v4_internals::no_group &&
      ::fchownat(file.get(), "", static_cast<uid_t>(-1), own.socket_group, AT_EMPTY_PATH) != 0)
    return false;
  return set_mode(file.get(), own.socket_mode);
}

// Makes the file of a server, with the access that it shall have.
int bind_to_file(comm_socket_v4* c) {
  const comm_v4_internals& own = comm_v4_internals::of(c);
  const bool chosen =
      own.socket_mode != default_file_mode || own.socket_group != comm_v4_internals::no_group;
  // The file gets the mode of the socket, less the umask (unix_bind_bsd() in Linux).
  bool given = ::fchmod(c->socket_fd, own.socket_mode | socket_file_mark) == 0;
  if (given || !chosen) {
    if (bind_to_path(c) != 0) return -1;
    c->flags.bound = 1;
    given = set_access_of_file(c);
  }
  // By default it may fail, but not for want of a descriptor to do it with.
  if (given || (!chosen && !is_shortage(errno))) return 0;
  comm_socket_v4_error(c, "create_server_socket() cannot set mode or group of '%s', %s",
                       c->socket_path.c_str(), std::strerror(errno));
  return -1;
}

// Makes the socket listen; on a failure, which is reported, the caller closes the endpoint.
int open_server_socket(comm_socket_v4* c) {
  c->socket_fd = ::socket(AF_UNIX, socket_type, 0);
  if (c->socket_fd < 0) {
    comm_socket_v4_error(c, "create_server_socket() cannot create AF_UNIX packet: %s\n",
                         std::strerror(errno));
    return -1;
  }
  apply_max_descriptors_to_new(c);
  if ((is_abstract(c->socket_path) ? bind_to_path(c) : bind_to_file(c)) != 0) return -1;
  c->flags.bound = 1;
  // The kernel takes one connection more than the backlog; a client that meets a full queue
  // retries.
  if (::listen(c->socket_fd, comm_v4_internals::of(c).listen_backlog) != 0) {
    comm_socket_v4_error(c, "create_server_socket(): cannot listen, %s\n", std::strerror(errno));
    return -1;
  }
  return 0;
}

int create_server_socket(comm_socket_v4* c) {
  if (c->socket_path.empty()) {
    errno = EINVAL;
    comm_socket_v4_bug(c, "create_server_socket() with no socket path");
    return -1;
  }
  if (c->socket_path.length() > COMM_V4_MAX_SERVER_PATH) {
    errno = ENAMETOOLONG;
    comm_socket_v4_error(c,
                         "create_server_socket() socket path too long for AF_UNIX domain (I warned "
                         "you I'd remove that hack!)");
    return -1;
  }
  if (open_server_socket(c) != 0) return -1;
  comm_socket_v4_client_disconnect_list_clear(c);
  return 0;
}

// Leaves errno alone where it can be asked for.
bool has_option(int fd, int option, int wanted) {
  int value;
  socklen_t length = sizeof(value);
  return ::getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 && value == wanted;
}

bool is_server_socket(int fd) {
  return has_option(fd, SO_DOMAIN, AF_UNIX) && has_option(fd, SO_TYPE, SOCK_SEQPACKET) &&
         has_option(fd, SO_ACCEPTCONN, 1);
}

// As it would be written to open the server; a socket that listens has one (listen(2) wants it).
bool path_of_socket(int fd, std::string& path) {
  struct sockaddr_un sun = {};
  socklen_t length = sizeof(sun);
  if (::getsockname(fd, reinterpret_cast<struct sockaddr*>(&sun), &length) != 0) return false;
  // The kernel counts a NUL for which a full path has no room.
  const std::size_t size =
      std::min<std::size_t>(length, sizeof(sun)) - offsetof(struct sockaddr_un, sun_path);
  if (sun.sun_path[0] == '\0') {
    path.assign("@").append(sun.sun_path + 1, size - 1);
  } else {
    // A file whose name begins with "@" is not to be taken for an abstract name.
    path.assign(sun.sun_path[0] == '@' ? "./" : "")
        .append(sun.sun_path, strnlen(sun.sun_path, size));
  }
  return true;
}

bool adapt_server_socket(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0 &&
         ::fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

// --- Address of a client's server ---------------------------------------------------------------

// The address behind a path that is too long for one, if it is a link to a socket. The text of the
// link is used as it is, so a relative one starts at the working directory.
int resolve_long_path(comm_socket_v4* c, struct sockaddr_un& sun) {
  const char* const path = c->socket_path.c_str();
  struct stat file;
  if (::lstat(path, &file) != 0) {
    comm_socket_v4_error(
        c, "create_server_socket() socket path too long for AF_UNIX domain and lstat() failed, %s",
        std::strerror(errno));
    comm_socket_v4_debug(c, "failure to connect to server %s", path);
    return -1;
  }
  if (!S_ISLNK(file.st_mode)) {
    errno = ENAMETOOLONG;
    comm_socket_v4_error(c,
                         "create_server_socket() socket path too long for AF_UNIX domain and path "
                         "is not a symlink");
    return -1;
  }
  char link[4097 + 1];
  const ssize_t link_length = ::readlink(path, link, sizeof(link) - 1);
  if (link_length <= 0) {
    errno = ENAMETOOLONG;
    comm_socket_v4_error(c,
                         "create_server_socket() socket path too long for AF_UNIX domain and "
                         "unable to read symlink");
    return -1;
  }
  link[link_length] = '\0';
  if (::lstat(link, &file) != 0) {
    comm_socket_v4_error(
        c, "create_server_socket() socket path too long for AF_UNIX domain and lstat('%s') failed",
        link);
    return -1;
  }
  if (!S_ISSOCK(file.st_mode)) {
    errno = ENOENT;
    comm_socket_v4_error(c,
                         "create_server_socket() socket path too long for AF_UNIX domain and "
                         "symlink points to non-socket");
    return -1;
  }
  const std::size_t target_length = std::strlen(link);
  if (target_length > COMM_V4_MAX_SERVER_PATH) {
    errno = ENAMETOOLONG;
    comm_socket_v4_error(c,
                         "create_server_socket() socket path too long for AF_UNIX domain and "
                         "symlink is too long as well");
    return -1;
  }
  // A target that begins with "@" is a file all the same.
  sun = {};
  sun.sun_family = AF_UNIX;
  std::memcpy(sun.sun_path, link, target_length);
  return 0;
}

int build_server_address(comm_socket_v4* c, struct sockaddr_un& sun, std::size_t& length) {
  const std::string& path = c->socket_path;
  if (starts_with_at(path)) {
    if (path.length() > COMM_V4_MAX_ABSTRACT_NAME) {
      errno = ENAMETOOLONG;
      comm_socket_v4_error(c, "connect_to_server() abstract socket name too long");
      return -1;
    }
  } else if (path.length() > COMM_V4_MAX_SERVER_PATH) {
    if (resolve_long_path(c, sun) != 0) return -1;
    length = sizeof(sun);
    return 0;
  }
  comm_socket_path_to_sockaddr_un(sun, length, path);
  return 0;
}

// The length that goes with the stored address, so that a retry reaches the same name. For an
// abstract one it covers the text of the path, the "@" of which is the NUL.
socklen_t stored_address_length(const comm_socket_v4* c) {
  const bool abstract = c->sun.sun_path[0] == '\0';
  return static_cast<socklen_t>(
      abstract ? offsetof(struct sockaddr_un, sun_path) + c->socket_path.length() : sizeof(c->sun));
}

// --- Connecting ---------------------------------------------------------------------------------

bool expired(std::uint64_t elapsed_us, std::uint64_t timeout_us) {
  return timeout_us != 0 && elapsed_us >= timeout_us;
}

std::uint64_t saturating_add(std::uint64_t a, std::uint64_t b) {
  return a <= UINT64_MAX - b ? a + b : UINT64_MAX;
}

// The moment until which the loop waits for the socket; afterwards it only tries again.
std::uint64_t wait_deadline(const comm_socket_v4* c) {
  const std::uint64_t hard = c->connect_timeout;
  const std::uint64_t soft = c->connect_timeout_routine;
  std::uint64_t bound = default_wait_us;
  if (hard != 0 && soft != 0)
    bound = std::min(hard, soft);
  else if (hard != 0 || soft != 0)
    bound = std::max(hard, soft);
  return saturating_add(c->connect_start, bound);
}

enum class Pending { wait_on, gave_up, left_to_idle };

Pending check_timeouts(comm_socket_v4* c) {
  const char* const path = c->socket_path.c_str();
  const std::uint64_t elapsed_us = monotonic_clock_us() - c->connect_start;
  if (expired(elapsed_us, c->connect_timeout)) {
    comm_socket_v4_error(c, "connect_timeout_check() soft timeout connecting to '%s'\n", path);
    comm_socket_v4_close(c);
    errno = ETIMEDOUT;
    return Pending::gave_up;
  }
  if (expired(elapsed_us, c->connect_timeout_routine)) {
    comm_socket_v4_debug(c, "connect_timeout_routine_check() soft timeout connecting to '%s'\n",
                         path);
    comm_socket_v4_debug(c,
                         "connect_to_server() connect_timeout_routine triggered. signalling "
                         "connection success but library will check up on status later");
    return Pending::left_to_idle;
  }
  return Pending::wait_on;
}

int finish_pending_connect(comm_socket_v4* c) {
  const std::uint64_t deadline = wait_deadline(c);
  for (;;) {
    const Pending pending = check_timeouts(c);
    if (pending != Pending::wait_on) return pending == Pending::gave_up ? -1 : 0;
    // Past the deadline the wait returns at once, and only a pause keeps the loop from spinning.
    if (monotonic_clock_us() >= deadline) pause_for(retry_pause_us);

    if (comm_socket_v4_connect_check_pending(c) != 0) {
      comm_socket_v4_debug(
          c, "connect_to_server() connect_check_pending() indicates connect completion. errno=%s",
          std::strerror(errno));
      if (c->status.connect_pending)
        comm_socket_v4_bug(
            c, "connect_to_server() connect_check_pending() should have cleared pending flag");
    }
    if (comm_socket_v4_connect_wait_for_completion(c, deadline) < 0) {
      comm_socket_v4_debug(
          c, "connect_to_server() connect_wait_for_completion() indicates completion. errno=%s",
          std::strerror(errno));
      if (c->status.connect_pending)
        comm_socket_v4_bug(
            c,
            "connect_to_server() connect_wait_for_completion() should have cleared pending flag");
    }
    if (!c->status.connect_pending) return 0;
  }
}

int connect_to_server(comm_socket_v4* c) {
  if (c->socket_path.empty()) {
    comm_socket_v4_bug(c, "connect_to_server() with no socket path");
    return -1;
  }
  struct sockaddr_un sun;
  std::size_t length;
  if (build_server_address(c, sun, length) != 0) return -1;
  c->socket_fd = ::socket(AF_UNIX, socket_type, 0);
  if (c->socket_fd < 0) {
    comm_socket_v4_error(c, "connect_to_server() cannot create AF_UNIX packet: %s",
                         std::strerror(errno));
    comm_socket_v4_close(c);
    return -1;
  }
  apply_max_descriptors_to_new(c);
  if (::connect(c->socket_fd, as_sockaddr(sun), static_cast<socklen_t>(length)) == 0) {
    c->sun = sun;
    return 0;
  }
  if (errno != EINPROGRESS && errno != EAGAIN) {
    comm_socket_v4_debug(c, "connect_to_server() non-blocking connect() failed, %s",
                         std::strerror(errno));
    comm_socket_v4_close(c);
    return -1;
  }
  c->sun = sun;
  c->status.connect_pending = 1;
  return comm_v4_internals::of(c).in_loop() ? 0 : finish_pending_connect(c);
}

// Periodic, or not at all for 0. What has expired is forgotten.
bool set_timer(int timer, std::uint64_t period_us) {
  struct itimerspec times = {};
  times.it_interval.tv_nsec = static_cast<long>(period_us) * 1000;
  times.it_value = times.it_interval;
  return ::timerfd_settime(timer, 0, &times, nullptr) == 0;
}

// The connect is over, made or failed. errno stays.
void end_pending(comm_socket_v4* c) {
  c->status.connect_pending = 0;
  stop_connect_timer(c);
}

// The socket is writeable; asks it whether that means connected.
int judge_writeable_socket(comm_socket_v4* c) {
  int error = 0;
  socklen_t error_size = sizeof(error);
  if (::getsockopt(c->socket_fd, SOL_SOCKET, SO_ERROR, &error, &error_size) != 0) {
    comm_socket_v4_error(c, "connect_wait_for_completion() getsockopt(SO_ERROR) returned errno %s",
                         std::strerror(errno));
    comm_socket_v4_close(c);
    return -1;
  }
  if (error != 0) {
    errno = error;
    comm_socket_v4_error(c,
                         "connect_wait_for_completion() select() indicates non-blocking connect "
                         "completed, error %s",
                         std::strerror(errno));
    end_pending(c);
    return -1;
  }
  char byte;
  if (::recv(c->socket_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno == EAGAIN ||
      errno == EINPROGRESS) {
    comm_socket_v4_debug(c,
                         "connect_wait_for_completion() select() indicates non-blocking connect "
                         "succeeded");
    end_pending(c);
    errno = 0;
    return 1;
  }
  // A local socket that the full queue of the server refused is writeable and not connected.
  if (errno == ENOTCONN) {
    pause_for(retry_pause_us);
    errno = 0;
    return 0;
  }
  comm_socket_v4_error(c, "connect_wait_for_completion() recv() returned errno %s",
                       std::strerror(errno));
  comm_socket_v4_close(c);
  return -1;
}

}  // namespace

void comm_socket_path_to_sockaddr_un(struct sockaddr_un& sun, std::size_t& len,
                                     const std::string& path) {
  FATAL_ASSERT(path.length() <= sizeof(sun.sun_path));
  sun = {};
  sun.sun_family = AF_UNIX;
  std::memcpy(sun.sun_path, path.data(), path.length());
  if (is_abstract(path)) {
    sun.sun_path[0] = '\0';
    len = offsetof(struct sockaddr_un, sun_path) + path.length();
  } else {
    len = path.empty() ? 0 : sizeof(sun);
  }
}

// --- Socket pair --------------------------------------------------------------------------------

int comm_socket_v4_make_socketpair(int* sv) { return ::socketpair(AF_UNIX, socket_type, 0, sv); }

int comm_socket_v4_connect_new_socketpair(comm_socket_v4* c) {
  if (!may_become_socketpair(c, true)) return -1;
  comm_socket_v4_close(c);
  c->socket_path.clear();
  int sv[2] = {-1, -1};
  if (comm_socket_v4_make_socketpair(sv) != 0) {
    comm_socket_v4_error(c, "connect_new_socketpair() unable to make socket pair");
    comm_socket_v4_close(c);
    return -1;
  }
  become_socketpair(c, sv[0]);
  c->socketpair_remote_fd = sv[1];
  return 0;
}

int comm_socket_v4_connect_use_socketpair(comm_socket_v4* c, int fd) {
  if (!may_become_socketpair(c, false)) return -1;
  if (fd < 0) {
    comm_socket_v4_bug(c, "connect_use_socketpair() invalid socket descriptor");
    return -1;
  }
  struct stat file;
  if (::fstat(fd, &file) != 0 || !S_ISSOCK(file.st_mode)) {
    comm_socket_v4_bug(c, "connect_use_socketpair() file descriptor not a socket");
    return -1;
  }
  comm_socket_v4_close(c);
  c->socket_path.clear();
  become_socketpair(c, fd);
  return 0;
}

int comm_socket_v4_socketpair_get_remote_end(comm_socket_v4* c) {
  const int fd = c->socketpair_remote_fd;
  if (fd < 0) return -1;
  fd_dont_close_on_exec(fd);
  c->socketpair_remote_fd = -1;
  return fd;
}

// --- Server -------------------------------------------------------------------------------------

int comm_socket_v4_create_server(comm_socket_v4* c, const char* path) {
  comm_socket_v4_close(c);
  comm_socket_v4_set_socket_path(c, path);
  c->flags.server = 1;
  c->flags.bound = 0;
  if (create_server_socket(c) != 0) {
    comm_socket_v4_error(c, "create_server(): failed to create server socket");
    comm_socket_v4_close(c);
    return -1;
  }
  if (comm_socket_v4_alloc_client_list(c) != 0) {
    comm_socket_v4_error(c, "create_server(): failed to allocate memory for client list");
    comm_socket_v4_close(c);
    return -1;
  }
  return 0;
}

int comm_socket_v4_use_server_socket(comm_socket_v4* c, int fd) {
  std::string path;
  errno = EINVAL;
  const bool own = fd >= 0 && fd == c->socket_fd;
  if (own || !is_server_socket(fd) || !path_of_socket(fd, path) || !adapt_server_socket(fd)) {
    comm_socket_v4_error(c, "use_server_socket() cannot use descriptor %d, %s", fd,
                         std::strerror(errno));
    return -1;
  }
  comm_socket_v4_close(c);
  if (comm_socket_v4_alloc_client_list(c) != 0) {
    comm_socket_v4_error(c, "use_server_socket(): failed to allocate memory for client list");
    return -1;
  }
  c->socket_path.swap(path);
  c->socket_fd = fd;
  c->flags.server = 1;
  apply_max_descriptors(c);
  return 0;
}

int comm_socket_v4_stop_listening(comm_socket_v4* c) {
  if (!comm_socket_v4_is_open(c) || !c->flags.server) {
    errno = EINVAL;
    return -1;
  }
  comm_v4_internals& own = comm_v4_internals::of(c);
  if (own.stopped_listening) return 0;
  // The endpoint stays open, and the number of its descriptor watched: by a socket without address,
  // that nothing can reach.
  CommDescriptor quiet(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!quiet.is_open()) {
    comm_socket_v4_error(c, "stop_listening() cannot create a socket, %s", std::strerror(errno));
    return -1;
  }
  remove_server_file(c);
  c->flags.bound = 0;
  own.stopped_listening = true;
  stop_watching(own, c->socket_fd);
  if (::dup3(quiet.get(), c->socket_fd, O_CLOEXEC) >= 0) return 0;
  // The number lies above a limit that was lowered.
  ::close(c->socket_fd);
  c->socket_fd = quiet.release();
  return 0;
}

int comm_socket_v4_reopen_server(comm_socket_v4* c) {
  errno = 0;
  if (!comm_socket_v4_is_open(c) || !c->flags.server || c->socket_path.empty()) return -1;
  if (comm_v4_internals::of(c).stopped_listening) return -1;
  struct sockaddr_un sun;
  std::size_t length;
  comm_socket_path_to_sockaddr_un(sun, length, c->socket_path);
  if (::bind(c->socket_fd, as_sockaddr(sun), static_cast<socklen_t>(length)) == 0) return 0;
  // The normal case: the socket is still bound.
  if (errno == EINVAL) return 0;
  comm_socket_v4_debug(c, "reopen_server() rebind failed, %s, falling back to rebind socket rename",
                       std::strerror(errno));
  return 0;
}

// --- Connecting ---------------------------------------------------------------------------------

int comm_socket_v4_connect_to(comm_socket_v4* c, const char* path) {
  comm_socket_v4_close(c);
  comm_socket_v4_set_socket_path(c, path);
  c->flags.server = 0;
  c->flags.bound = 0;
  c->connect_start = monotonic_clock_us();
  return connect_to_server(c);
}

void comm_socket_v4_set_connect_timeout(comm_socket_v4* c, std::uint64_t usec) {
  c->connect_timeout = usec;
}
void comm_socket_v4_set_connect_timeout_routine(comm_socket_v4* c, std::uint64_t usec) {
  c->connect_timeout_routine = usec;
}

// --- Completing a pending connect ---------------------------------------------------------------

int comm_socket_v4_connect_check_pending(comm_socket_v4* c) {
  const bool open = comm_socket_v4_is_open(c) != 0;
  if (!open || c->sun.sun_family != AF_UNIX) {
    comm_socket_v4_bug(c, open ? "connect_check_pending() apparently called when struck "
                                 "sockaddr_un is uninitialized"
                               : "connect_check_pending() called with closed socket");
    comm_socket_v4_close(c);
    errno = EINVAL;
    return -1;
  }
  if (!c->status.connect_pending) return 1;
  // This is the try that the timer was for.
  if (const CommDescriptor& timer = comm_v4_internals::of(c).connect_timer; timer.is_open())
    set_timer(timer.get(), retry_pause_us);
  if (::connect(c->socket_fd, as_sockaddr(c->sun), stored_address_length(c)) == 0) {
    comm_socket_v4_debug(c,
                         "connect_check_pending() non-blocking connect() completed successfully");
    end_pending(c);
    errno = 0;
    return 1;
  }
  if (errno == EALREADY || errno == EINPROGRESS || errno == EAGAIN) return 0;
  comm_socket_v4_error(c, "connect_check_pending() non-blocking connect() completed, error %s",
                       std::strerror(errno));
  comm_socket_v4_close(c);
  return -1;
}

void stop_connect_timer(const comm_socket_v4* c) {
  ErrnoGuard keep_errno;
  const CommDescriptor& timer = comm_v4_internals::of(c).connect_timer;
  if (timer.is_open()) set_timer(timer.get(), 0);
}

int comm_socket_v4_get_connect_fd(comm_socket_v4* c) {
  if (!comm_socket_v4_connection_pending(c)) {
    errno = EINVAL;
    return -1;
  }
  CommDescriptor& timer = comm_v4_internals::of(c).connect_timer;
  if (timer.is_open()) return timer.get();
  CommDescriptor made(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
  if (!made.is_open() || !set_timer(made.get(), retry_pause_us)) return -1;
  timer = std::move(made);
  return timer.get();
}

int comm_socket_v4_connect_wait_for_completion(comm_socket_v4* c, std::uint64_t deadline_us) {
  if (!comm_socket_v4_is_open(c)) {
    comm_socket_v4_debug(c, "connect_wait_for_completion() on closed handle");
    errno = ETIMEDOUT;
    return -1;
  }
  errno = 0;
  if (!c->status.connect_pending) return 1;
  const int ready = wait_for_descriptor(c->socket_fd, Direction::write, deadline_us);
  if (ready == 0) {
    if (errno != EINTR) errno = 0;
    return 0;
  }
  if (ready < 0) {
    comm_socket_v4_error(c, "connect_wait_for_completion() select returned error %s",
                         std::strerror(errno));
    comm_socket_v4_close(c);
    return -1;
  }
  return judge_writeable_socket(c);
}
