#include "bench/raw_sockets.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

struct Message {
  Message(void* place, std::size_t size) : bytes{place, size}, header() {
    header.msg_iov = &bytes;
    header.msg_iovlen = 1;
  }
  iovec bytes;
  msghdr header;
  alignas(cmsghdr) char control[256];
};

// The kernel only reads the record.
ssize_t send_message(int fd, std::string_view record, int passed) {
  Message message(const_cast<char*>(record.data()), record.size());
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
  Message message(buffer, largest);
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

}  // namespace

CommDescriptor listen(const std::string& path) {
  const Address address(path);
  CommDescriptor listener = new_socket(SOCK_NONBLOCK);
  check(::bind(listener.get(), address.get(), address.length), "bind");
  check(::listen(listener.get(), backlog), "listen");
  return listener;
}

CommDescriptor accept(const CommDescriptor& listener) {
  return CommDescriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
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

ssize_t send(int fd, std::string_view record, Calls calls, int passed) {
  return calls == Calls::send_recv
             ? ::send(fd, record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
             : send_message(fd, record, passed);
}

ssize_t receive(int fd, Calls calls) {
  if (calls == Calls::send_recv) return ::recv(fd, buffer, largest, MSG_DONTWAIT);
  if (calls == Calls::same_as_library) ask_size(fd);
  return receive_message(fd);
}

void echo(int fd, Calls calls) {
  const ssize_t length = receive(fd, calls);
  if (length > 0) check(send(fd, {buffer, static_cast<std::size_t>(length)}, calls), "send");
}

}  // namespace raw
