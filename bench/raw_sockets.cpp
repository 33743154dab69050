#include "bench/raw_sockets.h"

#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "bench/check.h"

namespace raw {

namespace {

constexpr std::size_t largest = 65536;
char buffer[largest];

struct Address {
  explicit Address(const std::string& path) {
    std::size_t size;
    comm_socket_path_to_sockaddr_un(bytes, size, path);
    length = static_cast<socklen_t>(size);
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&bytes); }

  sockaddr_un bytes;
  socklen_t length;
};

CommDescriptor new_socket(int flags) {
  return CommDescriptor(check(::socket(AF_UNIX, SOCK_SEQPACKET | flags, 0), "socket"));
}

// None, when the client has gone again.
CommDescriptor accept(const CommDescriptor& listener) {
  return CommDescriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

// select(2) over any number of descriptors.
class SelectSet {
 public:
  void reset(int highest) { words_.assign(static_cast<std::size_t>(highest) / 64 + 1, 0); }
  void add(int fd) { words_[static_cast<std::size_t>(fd) / 64] |= 1ul << (fd % 64); }
  bool has(int fd) const { return words_[static_cast<std::size_t>(fd) / 64] >> (fd % 64) & 1; }
  fd_set* get() { return reinterpret_cast<fd_set*>(words_.data()); }

 private:
  std::vector<unsigned long> words_;
};

SelectSet set_of(int fd) {
  SelectSet set;
  set.reset(fd);
  set.add(fd);
  return set;
}

struct Message {
  explicit Message(std::size_t size) : bytes{buffer, size}, header() {
    header.msg_iov = &bytes;
    header.msg_iovlen = 1;
  }
  iovec bytes;
  msghdr header;
  alignas(cmsghdr) char control[256];
};

ssize_t send_message(int fd, std::size_t size, int passed) {
  Message message(size);
  if (passed >= 0) {
    message.header.msg_control = message.control;
    message.header.msg_controllen = CMSG_SPACE(sizeof(passed));
    cmsghdr* const c = CMSG_FIRSTHDR(&message.header);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(passed));
    std::memcpy(CMSG_DATA(c), &passed, sizeof(passed));
  }
  return ::sendmsg(fd, &message.header, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void close_received(msghdr& header) {
  for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
    int received;
    std::memcpy(&received, CMSG_DATA(c), sizeof(received));
    ::close(received);
  }
}

ssize_t receive_message(int fd) {
  Message message(largest);
  message.header.msg_control = message.control;
  message.header.msg_controllen = sizeof(message.control);
  const ssize_t length = ::recvmsg(fd, &message.header, MSG_DONTWAIT);
  if (length > 0) close_received(message.header);
  return length;
}

void ask_size(int fd) {
  int size;
  check(::ioctl(fd, FIONREAD, &size), "ioctl");
}

void echo(int fd, Calls calls) {
  const ssize_t length = receive(fd, calls);
  if (length > 0) check(send(fd, static_cast<std::size_t>(length), calls), "send");
}

}  // namespace

CommDescriptor listen(const std::string& path) {
  const Address address(path);
  CommDescriptor listener = new_socket(SOCK_NONBLOCK);
  check(::bind(listener.get(), address.get(), address.length), "bind");
  check(::listen(listener.get(), 0), "listen");
  return listener;
}

CommDescriptor connect(const std::string& path) {
  const Address address(path);
  CommDescriptor connection = new_socket(SOCK_CLOEXEC);
  for (int tries = 1; ::connect(connection.get(), address.get(), address.length) != 0; ++tries) {
    if ((errno != ECONNREFUSED && errno != EINTR) || tries == 5000) fail_call("connect");
    ::usleep(1000);
  }
  return connection;
}

void wait_readable(int fd) {
  check(::select(fd + 1, set_of(fd).get(), nullptr, nullptr, nullptr), "select");
}

void wait_writeable(int fd) {
  check(::select(fd + 1, nullptr, set_of(fd).get(), nullptr, nullptr), "select");
}

Epoll::Epoll() : epoll_(check(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")) {}

void Epoll::watch(int fd, std::uint64_t data) {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.u64 = data;
  check(::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
}

std::span<const epoll_event> Epoll::wait() {
  int ready;
  do {
    ready = ::epoll_wait(epoll_.get(), events_, static_cast<int>(std::size(events_)), -1);
  } while (ready < 0 && errno == EINTR);
  return {events_, static_cast<std::size_t>(check(ready, "epoll_wait"))};
}

ssize_t send(int fd, std::size_t size, Calls calls, int passed) {
  return calls == Calls::send_recv ? ::send(fd, buffer, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                                   : send_message(fd, size, passed);
}

ssize_t receive(int fd, Calls calls) {
  if (calls == Calls::send_recv) return ::recv(fd, buffer, largest, MSG_DONTWAIT);
  if (calls == Calls::same_as_library) ask_size(fd);
  return receive_message(fd);
}

void serve_select(const std::string& path, Calls calls) {
  const CommDescriptor listener = listen(path);
  std::vector<CommDescriptor> clients;
  int highest = listener.get();
  SelectSet set;
  for (;;) {
    set.reset(highest);
    set.add(listener.get());
    for (const CommDescriptor& client : clients) set.add(client.get());
    check(::select(highest + 1, set.get(), nullptr, nullptr, nullptr), "select");
    for (const CommDescriptor& client : clients)
      if (set.has(client.get())) echo(client.get(), calls);
    if (!set.has(listener.get())) continue;
    CommDescriptor client = accept(listener);
    if (!client.is_open()) continue;
    highest = std::max(highest, client.get());
    clients.push_back(std::move(client));
  }
}

void serve_epoll(const std::string& path, Calls calls) {
  const CommDescriptor listener = listen(path);
  std::vector<CommDescriptor> clients;
  Epoll epoll;
  epoll.watch(listener.get(), static_cast<std::uint64_t>(listener.get()));
  for (;;) {
    for (const epoll_event& event : epoll.wait()) {
      const int fd = static_cast<int>(event.data.u64);
      if (fd != listener.get()) {
        echo(fd, calls);
        continue;
      }
      CommDescriptor client = accept(listener);
      if (!client.is_open()) continue;
      epoll.watch(client.get(), static_cast<std::uint64_t>(client.get()));
      clients.push_back(std::move(client));
    }
  }
}

}  // namespace raw
