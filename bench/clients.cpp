#include "bench/clients.h"

#include <climits>
#include <optional>
#include <string>
#include <utility>

#include "bench/check.h"
#include "bench/packets.h"
#include "bench/raw_waits.h"

namespace {

// None, when the client waits by select.
std::optional<raw::Epoll> epoll_of(int fd, WaitBy wait_by) {
  std::optional<raw::Epoll> epoll;
  if (wait_by == WaitBy::epoll) epoll.emplace().watch(fd, 0);
  return epoll;
}

class RawClient : public Client {
 public:
  RawClient(CommDescriptor connection, std::size_t packet_size, raw::Calls calls, WaitBy wait_by)
      : connection_(std::move(connection)),
        request_(bytes_of(*build_packet(packet_size))),
        calls_(calls),
        epoll_(epoll_of(connection_.get(), wait_by)) {}

  void ask() override { check(raw::send(connection_.get(), request_, calls_), "send"); }
  void await_answer() override {
    if (epoll_)
      epoll_->wait();
    else
      raw::wait_readable(connection_.get());
    if (check(raw::receive(connection_.get(), calls_), "receive") == 0) fail("the server ended");
  }

 private:
  CommDescriptor connection_;
  std::string request_;
  raw::Calls calls_;
  std::optional<raw::Epoll> epoll_;
};

class LibraryClient : public Client {
 public:
  LibraryClient(CommDescriptor connection, std::size_t packet_size, WaitBy wait_by)
      : endpoint_(endpoint_on(std::move(connection))),
        packet_size_(packet_size),
        epoll_(epoll_of(endpoint_->get_socket_fd(), wait_by)) {}

  void ask() override {
    const CommPacket request = build_packet(packet_size_);
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
    look_at(*response);
  }

 private:
  CommEndpoint endpoint_;
  std::size_t packet_size_;
  std::optional<raw::Epoll> epoll_;
};

}  // namespace

MakeClient raw_client(raw::Calls calls, WaitBy wait_by) {
  return [=](CommDescriptor connection, std::size_t packet_size) {
    return std::make_unique<RawClient>(std::move(connection), packet_size, calls, wait_by);
  };
}

MakeClient library_client(WaitBy wait_by) {
  return [=](CommDescriptor connection, std::size_t packet_size) {
    return std::make_unique<LibraryClient>(std::move(connection), packet_size, wait_by);
  };
}
