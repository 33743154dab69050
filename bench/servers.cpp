#include "bench/servers.h"

#include <tarn_utils_v4/comm_loop.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "bench/check.h"
#include "bench/packets.h"
#include "bench/raw_waits.h"

namespace {

// --- Raw -----------------------------------------------------------------------------------------

template <class Waits>
[[noreturn]] void serve_raw(const std::string& path, raw::Calls calls) {
  const CommDescriptor listener = raw::listen(path);
  const auto is_listener = static_cast<std::uint64_t>(listener.get());
  std::vector<CommDescriptor> clients;
  Waits waits;
  waits.watch(listener.get(), is_listener);
  for (;;) {
    bool somebody_waits = false;
    for (const std::uint64_t ready : waits.wait()) {
      if (ready == is_listener)
        somebody_waits = true;
      else
        raw::echo(static_cast<int>(ready), calls);
    }
    while (somebody_waits) {
      CommDescriptor client = raw::accept(listener);
      somebody_waits = client.is_open();
      if (!somebody_waits) break;
      waits.watch(client.get(), static_cast<std::uint64_t>(client.get()));
      clients.push_back(std::move(client));
    }
  }
}

// --- The library ---------------------------------------------------------------------------------

CommEndpoint open_server(const std::string& path) {
  CommEndpoint server(comm_socket_v4_create());
  comm_socket_v4_set_listen_backlog(server.get(), raw::backlog);
  check(comm_socket_v4_create_server(server.get(), path.c_str()), "create_server");
  return server;
}

CommPacket answer_to(const comm_socket_v4_packet& request) {
  look_at(request);
  return build_packet(request.buffer_length);
}

void answer(comm_socket_v4_client* client, const CommPacket& request) {
  check(comm_socket_v4_packet_send_to_client(client, answer_to(*request).get()), "send_to_client");
}

[[noreturn]] void serve_by_waits(const std::string& path) {
  const CommEndpoint server = open_server(path);
  for (;;) {
    comm_socket_v4_server_from_client_readable(server.get(), ULONG_MAX);
    comm_socket_v4_client* client;
    std::size_t answered = 0;
    while (const CommPacket request{comm_socket_v4_server_get_packet(server.get(), &client)}) {
      answer(client, request);
      ++answered;
    }
    if (answered > 0) continue;
    while (comm_socket_v4_accept_connection(server.get()) != nullptr) continue;
  }
}

[[noreturn]] void serve_by_epoll(const std::string& path) {
  const CommEndpoint server = open_server(path);
  raw::Epoll epoll;
  epoll.watch(server->get_socket_fd(), COMM_V4_NO_INDEX);
  for (;;) {
    for (const std::uint64_t ready : epoll.wait()) {
      if (ready != COMM_V4_NO_INDEX) {
        comm_socket_v4_client* const client = server->index2client(ready);
        if (const CommPacket request{comm_socket_v4_client_get_packet(client)})
          answer(client, request);
        continue;
      }
      while (comm_socket_v4_client* const client = comm_socket_v4_accept_connection(server.get()))
        epoll.watch(client->get_client_fd(), comm_socket_v4_client_ptr2index(client));
    }
  }
}

class Answering : public CommLoopHandler {
 public:
  void on_packet(CommLoop& loop, CommLoopId from, comm_socket_v4_packet* request) override {
    check(loop.send(from, answer_to(*request).get()), "CommLoop::send");
  }
};

[[noreturn]] void serve_by_comm_loop(const std::string& path) {
  CommLoopLimits limits;
  limits.clients = limits.clients_per_user = COMM_V4_MAX_CLIENTS;
  Answering answering;
  CommLoop loop;
  if (loop.add(open_server(path).release(), answering, limits).generation == 0)
    fail_call("CommLoop::add");
  loop.run();
  fail_call("CommLoop::run");
}

}  // namespace

Serve raw_by_select(raw::Calls calls) {
  return [calls](const std::string& path) { serve_raw<raw::Select>(path, calls); };
}
Serve raw_by_poll(raw::Calls calls) {
  return [calls](const std::string& path) { serve_raw<raw::Poll>(path, calls); };
}
Serve raw_by_epoll(raw::Calls calls) {
  return [calls](const std::string& path) { serve_raw<raw::Epoll>(path, calls); };
}

Serve library_by_waits() { return serve_by_waits; }
Serve library_by_epoll() { return serve_by_epoll; }
Serve library_comm_loop() { return serve_by_comm_loop; }
