#include "bench/conversations.h"

#include <sys/socket.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bench/check.h"
#include "bench/packets.h"
#include "bench/processes.h"

namespace {

// --- What the library does on either side --------------------------------------------------------

void look_at(const CommPacket& packet) {
  volatile std::uint64_t seen = read_packet(packet.get());
  static_cast<void>(seen);
}

// Opens an endpoint on a connected socket.
CommEndpoint endpoint_on(CommDescriptor socket) {
  CommEndpoint endpoint(comm_socket_v4_create());
  check(comm_socket_v4_connect_use_socketpair(endpoint.get(), socket.get()),
        "connect_use_socketpair");
  socket.release();
  return endpoint;
}

// --- Round trips: the servers of the library -----------------------------------------------------

constexpr std::size_t most_active = 16;

CommEndpoint library_server(const std::string& path) {
  CommEndpoint server(comm_socket_v4_create());
  check(comm_socket_v4_create_server(server.get(), path.c_str()), "create_server");
  return server;
}

void answer(comm_socket_v4_client* client, const CommPacket& request) {
  look_at(request);
  const CommPacket response = build_packet(request->buffer_length);
  check(comm_socket_v4_packet_send_to_client(client, response.get()), "send_to_client");
}

[[noreturn]] void serve_waits(const std::string& path) {
  const CommEndpoint server = library_server(path);
  for (;;) {
    comm_socket_v4_server_from_client_readable(server.get(), ULONG_MAX);
    // As many as may have come since; another round tells whether there are more.
    comm_socket_v4_client* client;
    std::size_t answered = 0;
    while (answered < most_active) {
      const CommPacket request(comm_socket_v4_server_get_packet(server.get(), &client));
      if (request == nullptr) break;
      answer(client, request);
      ++answered;
    }
    if (answered == 0) comm_socket_v4_accept_connection(server.get());
  }
}

[[noreturn]] void serve_epoll(const std::string& path) {
  const CommEndpoint server = library_server(path);
  raw::Epoll epoll;
  epoll.watch(server->get_socket_fd(), COMM_V4_NO_INDEX);
  for (;;) {
    for (const epoll_event& event : epoll.wait()) {
      if (event.data.u64 == COMM_V4_NO_INDEX) {
        if (comm_socket_v4_client* const client = comm_socket_v4_accept_connection(server.get()))
          epoll.watch(client->get_client_fd(), comm_socket_v4_client_ptr2index(client));
        continue;
      }
      comm_socket_v4_client* const client = server->index2client(event.data.u64);
      if (const CommPacket request{comm_socket_v4_client_get_packet(client)})
        answer(client, request);
    }
  }
}

// --- Round trips: the clients --------------------------------------------------------------------

class Client {
 public:
  virtual ~Client() = default;
  virtual void ask(std::size_t size) = 0;
  virtual void await_answer() = 0;
};

// None, when the client waits by select.
std::optional<raw::Epoll> epoll_of(int fd, WaitBy wait_by) {
  std::optional<raw::Epoll> epoll;
  if (wait_by == WaitBy::epoll) epoll.emplace().watch(fd, 0);
  return epoll;
}

class RawClient : public Client {
 public:
  RawClient(CommDescriptor connection, raw::Calls calls, WaitBy wait_by)
      : connection_(std::move(connection)),
        calls_(calls),
        epoll_(epoll_of(connection_.get(), wait_by)) {}

  void ask(std::size_t size) override { check(raw::send(connection_.get(), size, calls_), "send"); }
  void await_answer() override {
    if (epoll_)
      epoll_->wait();
    else
      raw::wait_readable(connection_.get());
    if (check(raw::receive(connection_.get(), calls_), "receive") == 0) fail("the server ended");
  }

 private:
  CommDescriptor connection_;
  raw::Calls calls_;
  std::optional<raw::Epoll> epoll_;
};

class LibraryClient : public Client {
 public:
  LibraryClient(CommDescriptor connection, WaitBy wait_by)
      : endpoint_(endpoint_on(std::move(connection))),
        epoll_(epoll_of(endpoint_->get_socket_fd(), wait_by)) {}

  void ask(std::size_t size) override {
    const CommPacket request = build_packet(size);
    if (comm_socket_v4_packet_send_to_server(endpoint_.get(), request.get()) <= 0)
      fail("a request was not sent");
  }
  void await_answer() override {
    CommPacket response;
    while (response == nullptr) {
      if (!endpoint_->socket_open()) fail("the server ended");
      if (epoll_)
        epoll_->wait();
      else
        comm_socket_v4_client_from_server_readable(endpoint_.get(), ULONG_MAX);
      response.reset(comm_socket_v4_client_get_packet_from_server(endpoint_.get()));
    }
    look_at(response);
  }

 private:
  CommEndpoint endpoint_;
  std::optional<raw::Epoll> epoll_;
};

// --- Round trips: both together ------------------------------------------------------------------

using Serve = std::function<void(const std::string& path)>;
using MakeClient = std::function<std::unique_ptr<Client>(CommDescriptor connection)>;

class Conversation {
 public:
  Conversation(const RoundTrips& what, const Serve& serve, const MakeClient& make_client)
      : path_("@channel_bench." + std::to_string(::getpid())),
        server_(what.server_core, [&] { serve(path_); }) {
    const std::size_t step = std::max<std::size_t>(1, what.connections / most_active);
    for (std::size_t i = 0; i < what.connections; ++i) {
      CommDescriptor connection = raw::connect(path_);
      if (i % step == 0 && active_.size() < most_active)
        active_.push_back(make_client(std::move(connection)));
      else
        idle_.push_back(std::move(connection));
    }
  }

  void run(std::size_t count, std::size_t size) {
    for (std::size_t done = 0; done < count; done += active_.size()) {
      for (const auto& client : active_) client->ask(size);
      for (const auto& client : active_) client->await_answer();
    }
  }

 private:
  const std::string path_;
  std::vector<std::unique_ptr<Client>> active_;
  std::vector<CommDescriptor> idle_;
  Child server_;
};

// The clients are in a process of their own, too: one could not have the descriptors of all
// conversations that take turns.
Runner round_trips(const RoundTrips& what, const Serve& serve, const MakeClient& make_client) {
  const auto clients = std::make_shared<Worker>(0, [&]() -> Runner {
    const auto conversation = std::make_shared<Conversation>(what, serve, make_client);
    return [conversation, size = what.size](std::size_t count) { conversation->run(count, size); };
  });
  return [clients](std::size_t count) {
    clients->start(count);
    clients->finish();
  };
}

// --- Streams -------------------------------------------------------------------------------------

// Each does `count` records at one end of a socket pair.
using MakeEnd = std::function<Runner(CommDescriptor socket)>;

Runner stream(int receiver_core, const MakeEnd& make_sender, const MakeEnd& make_receiver) {
  int pair[2];
  check(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, pair), "socketpair");
  CommDescriptor here(pair[0]);
  CommDescriptor there(pair[1]);
  const auto receiver =
      std::make_shared<Worker>(receiver_core, [&] { return make_receiver(std::move(there)); });
  return [receiver, send = make_sender(std::move(here))](std::size_t count) {
    receiver->start(count);
    send(count);
    receiver->finish();
  };
}

Runner raw_sender(CommDescriptor socket, const Stream& what, raw::Calls calls) {
  const auto owner = std::make_shared<CommDescriptor>(std::move(socket));
  const int passed = what.with_descriptor ? STDIN_FILENO : -1;
  return [=, size = what.size](std::size_t count) {
    for (std::size_t sent = 0; sent < count; ++sent) {
      while (raw::send(owner->get(), size, calls, passed) < 0) {
        if (errno != EAGAIN) fail_call("send");
        raw::wait_writeable(owner->get());
      }
    }
  };
}

Runner raw_receiver(CommDescriptor socket, raw::Calls calls) {
  const auto owner = std::make_shared<CommDescriptor>(std::move(socket));
  return [=](std::size_t count) {
    for (std::size_t taken = 0; taken < count;) {
      raw::wait_readable(owner->get());
      while (raw::receive(owner->get(), calls) > 0) ++taken;
    }
  };
}

void send_packet(comm_socket_v4* endpoint, const Stream& what) {
  const CommPacket packet = build_packet(what.size);
  if (what.with_descriptor && !packet->attach_fd_to_send(STDIN_FILENO))
    fail("standard input cannot be attached");
  while (check(comm_socket_v4_packet_send_to_server(endpoint, packet.get()), "send_to_server") == 0)
    comm_socket_v4_wait_for_client_to_server_writeable(endpoint, ULONG_MAX);
}

Runner library_sender(CommDescriptor socket, const Stream& what) {
  const std::shared_ptr<comm_socket_v4> endpoint = endpoint_on(std::move(socket));
  return [=](std::size_t count) {
    for (std::size_t sent = 0; sent < count; ++sent) send_packet(endpoint.get(), what);
  };
}

Runner library_receiver(CommDescriptor socket) {
  const std::shared_ptr<comm_socket_v4> endpoint = endpoint_on(std::move(socket));
  return [=](std::size_t count) {
    for (std::size_t taken = 0; taken < count;) {
      comm_socket_v4_client_from_server_readable(endpoint.get(), ULONG_MAX);
      while (
          const CommPacket packet{comm_socket_v4_client_get_packet_from_server(endpoint.get())}) {
        look_at(packet);
        ++taken;
      }
    }
  };
}

}  // namespace

Runner raw_round_trips(const RoundTrips& what, raw::Calls calls, WaitBy wait_by) {
  const auto serve = wait_by == WaitBy::select ? raw::serve_select : raw::serve_epoll;
  return round_trips(
      what, [&](const std::string& path) { serve(path, calls); },
      [&](CommDescriptor connection) {
        return std::make_unique<RawClient>(std::move(connection), calls, wait_by);
      });
}

Runner library_round_trips(const RoundTrips& what, WaitBy wait_by) {
  return round_trips(what, wait_by == WaitBy::select ? serve_waits : serve_epoll,
                     [&](CommDescriptor connection) {
                       return std::make_unique<LibraryClient>(std::move(connection), wait_by);
                     });
}

Runner raw_stream(const Stream& what, raw::Calls calls) {
  return stream(
      what.receiver_core,
      [&](CommDescriptor socket) { return raw_sender(std::move(socket), what, calls); },
      [&](CommDescriptor socket) { return raw_receiver(std::move(socket), calls); });
}

Runner library_stream(const Stream& what) {
  return stream(
      what.receiver_core,
      [&](CommDescriptor socket) { return library_sender(std::move(socket), what); },
      library_receiver);
}
