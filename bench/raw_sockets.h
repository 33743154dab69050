// The baseline: the plainest correct code on raw SOCK_SEQPACKET sockets, blocking where nothing
// else is to be done. Its records have a size and no meaning.
#ifndef COMM_BENCH_RAW_SOCKETS_H
#define COMM_BENCH_RAW_SOCKETS_H

#include <sys/epoll.h>
#include <sys/types.h>
#include <tarn_utils_v4/comm_cpp.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace raw {

// What moves the bytes: send and recv; sendmsg and recvmsg; or what the library needs for its
// packets, which is sendmsg, FIONREAD and recvmsg.
enum class Calls { send_recv, sendmsg_recvmsg, same_as_library };

CommDescriptor listen(const std::string& path);
// Waits for a server that does not listen yet.
CommDescriptor connect(const std::string& path);

void wait_readable(int fd);
void wait_writeable(int fd);

class Epoll {
 public:
  Epoll();
  void watch(int fd, std::uint64_t data);
  // Waits; what is readable, until the next call.
  std::span<const epoll_event> wait();

 private:
  CommDescriptor epoll_;
  epoll_event events_[64];
};

// As the calls themselves, none of which blocks. `passed` goes along, not with Calls::send_recv.
// Descriptors that are received are closed.
ssize_t send(int fd, std::size_t size, Calls calls, int passed = -1);
ssize_t receive(int fd, Calls calls);

// Servers that send every record back.
[[noreturn]] void serve_select(const std::string& path, Calls calls);
[[noreturn]] void serve_epoll(const std::string& path, Calls calls);

}  // namespace raw

#endif
