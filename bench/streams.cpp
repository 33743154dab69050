#include "bench/streams.h"

#include <sys/socket.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <functional>
#include <memory>
#include <utility>

#include "bench/check.h"
#include "bench/packets.h"
#include "bench/raw_waits.h"

namespace {

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
  return [=, record = bytes_of(*build_packet(what.size))](std::size_t count) {
    for (std::size_t sent = 0; sent < count; ++sent) {
      while (raw::send(owner->get(), record, calls, passed) < 0) {
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
        look_at(*packet);
        ++taken;
      }
    }
  };
}

}  // namespace

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
