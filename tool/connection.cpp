#include "tool/connection.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "tool/arguments.h"

std::uint64_t now_us() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

CommEndpoint connect_to_server(const std::string& path, std::uint64_t timeout_us, bool verbose) {
  CommEndpoint endpoint = new_endpoint(verbose);
  comm_socket_v4_set_connect_timeout(endpoint.get(), std::max<std::uint64_t>(timeout_us, 1));
  const bool failed = comm_socket_v4_connect_to(endpoint.get(), path.c_str()) != 0;
  if (failed) throw system_failure("cannot connect to " + in_quotes(path));
  if (!endpoint->socket_open()) throw Failure("the server at " + in_quotes(path) + " went away");
  return endpoint;
}

void send_in_time(comm_socket_v4& endpoint, comm_socket_v4_packet& packet,
                  std::uint64_t deadline_us) {
  for (;;) {
    const int sent = comm_socket_v4_packet_send_to_server(&endpoint, &packet);
    if (sent > 0) return;
    if (sent < 0 && errno != EMSGSIZE) throw Failure("the server closed the connection");
    if (sent < 0) throw system_failure("cannot send");
    if (now_us() >= deadline_us) throw Failure("the server takes no packet in time");
    comm_socket_v4_wait_for_client_to_server_writeable(&endpoint, deadline_us);
  }
}
