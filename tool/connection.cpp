#include "tool/connection.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <string_view>

#include "tool/arguments.h"

std::uint64_t now_us() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

std::optional<int> inherited_descriptor(const std::string& path) {
  constexpr std::string_view prefix = "fd:";
  if (!path.starts_with(prefix)) return std::nullopt;
  return static_cast<int>(
      parse_uint64(std::string_view(path).substr(prefix.size()), in_quotes(path), 0, INT_MAX));
}

namespace {

CommEndpoint use_connection(int fd, bool verbose) {
  CommEndpoint endpoint = new_endpoint(verbose);
  int type = 0;
  socklen_t size = sizeof(type);
  if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0)
    throw system_failure("cannot use descriptor " + std::to_string(fd));
  struct sockaddr_un peer;
  size = sizeof(peer);
  if (type != SOCK_SEQPACKET || ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0 ||
      peer.sun_family != AF_UNIX)
    throw Failure("descriptor " + std::to_string(fd) + " is no connection to a server");
  comm_socket_v4_connect_use_socketpair(endpoint.get(), fd);
  return endpoint;
}

}  // namespace

CommEndpoint connect_to_server(const std::string& path, std::uint64_t timeout_us, bool verbose) {
  if (const std::optional<int> fd = inherited_descriptor(path); fd.has_value())
    return use_connection(*fd, verbose);
  CommEndpoint endpoint = new_endpoint(verbose);
  comm_socket_v4_set_connect_timeout(endpoint.get(), std::max<std::uint64_t>(timeout_us, 1));
  const bool failed = comm_socket_v4_connect_to(endpoint.get(), path.c_str()) != 0;
  if (failed) throw system_failure("cannot connect to " + in_quotes(path));
  if (!endpoint->socket_open()) throw Failure("the server at " + in_quotes(path) + " went away");
  return endpoint;
}
