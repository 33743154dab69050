// CommClient as functions that throw nothing.
#include <tarn_utils_v4/comm_client.h>
#include <tarn_utils_v4/comm_cpp.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <new>

#include "lib/or_no_memory.h"

namespace {

std::chrono::microseconds duration(std::uint64_t timeout_us) {
  constexpr auto longest = static_cast<std::uint64_t>(CommClient::endless.count());
  return std::chrono::microseconds(std::min(timeout_us, longest));
}

// The caller has its own reference.
CommPacket shared(comm_socket_v4_packet* p) {
  if (p == nullptr) errno = EINVAL;
  return comm_share_packet(p);
}

template <class Call>
comm_socket_v4_packet* packet_or_null(Call call) {
  return or_no_memory<comm_socket_v4_packet*>(nullptr, [&] { return call().release(); });
}

comm_socket_v4* create_endpoint() {
  return or_no_memory<comm_socket_v4*>(nullptr, [] { return comm_socket_v4_create(); });
}

}  // namespace

CommClient* comm_socket_v4_blocking_create(comm_socket_v4* endpoint) {
  comm_socket_v4* const used = endpoint != nullptr ? endpoint : create_endpoint();
  // Without memory for the client nothing takes the endpoint over.
  auto* const client =
      used != nullptr ? new (std::nothrow) CommClient(CommEndpoint(used)) : nullptr;
  if (client != nullptr) return client;
  if (endpoint == nullptr) comm_socket_v4_destroy(used);
  errno = ENOMEM;
  return nullptr;
}
void comm_socket_v4_blocking_destroy(CommClient* client) { delete client; }

int comm_socket_v4_blocking_connect(CommClient* client, const char* path, std::uint64_t timeout_us,
                                    int await_missing) {
  const auto missing = await_missing > 0 ? CommMissingServer::is_awaited : CommMissingServer::fails;
  return or_no_memory(
      -1, [&] { return client->connect(path, duration(timeout_us), missing) ? 0 : -1; });
}
int comm_socket_v4_blocking_is_connected(const CommClient* client) {
  return client->is_connected();
}
void comm_socket_v4_blocking_close(CommClient* client) { client->close(); }
comm_socket_v4* comm_socket_v4_blocking_get_endpoint(const CommClient* client) {
  return client->endpoint();
}

int comm_socket_v4_blocking_send(CommClient* client, comm_socket_v4_packet* packet,
                                 std::uint64_t timeout_us) {
  return or_no_memory(-1,
                      [&] { return client->send(shared(packet), duration(timeout_us)) ? 0 : -1; });
}
comm_socket_v4_packet* comm_socket_v4_blocking_call(CommClient* client,
                                                    comm_socket_v4_packet* request,
                                                    std::uint64_t timeout_us) {
  return packet_or_null([&] { return client->call(shared(request), duration(timeout_us)); });
}
comm_socket_v4_packet* comm_socket_v4_blocking_answer_to(CommClient* client, std::uint64_t id,
                                                         std::uint64_t timeout_us) {
  return packet_or_null([&] { return client->answer_to(id, duration(timeout_us)); });
}
comm_socket_v4_packet* comm_socket_v4_blocking_next(CommClient* client, std::uint64_t timeout_us) {
  return packet_or_null([&] { return client->next(duration(timeout_us)); });
}
void comm_socket_v4_blocking_give_up(CommClient* client, std::uint64_t id) { client->give_up(id); }
std::uint64_t comm_socket_v4_blocking_next_id(CommClient* client) { return client->next_id(); }
void comm_socket_v4_blocking_keep_at_most(CommClient* client, std::size_t packets) {
  client->keep_at_most(packets);
}
