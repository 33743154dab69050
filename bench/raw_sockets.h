// The baseline: the plainest correct code on raw SOCK_SEQPACKET sockets.
#ifndef COMM_BENCH_RAW_SOCKETS_H
#define COMM_BENCH_RAW_SOCKETS_H

#include <sys/types.h>
#include <tarn_utils_v4/comm_cpp.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace raw {

// What moves the bytes: send and recv; sendmsg and recvmsg; or what the library needs for its
// packets, which is sendmsg, FIONREAD and recvmsg.
enum class Calls { send_recv, sendmsg_recvmsg, same_as_library };

// How many may wait to be accepted, by every server that is measured: many connect at once.
constexpr int backlog = 128;

CommDescriptor listen(const std::string& path);
// None, when nobody waits any more.
CommDescriptor accept(const CommDescriptor& listener);
// Waits for a server that does not listen yet.
CommDescriptor connect(const std::string& path);

// As the calls themselves, none of which blocks. `passed` goes along, not with Calls::send_recv.
// Descriptors that are received are closed.
ssize_t send(int fd, std::string_view record, Calls calls, int passed = -1);
ssize_t receive(int fd, Calls calls);
// Receives a record and sends it back; nothing, when there is none.
void echo(int fd, Calls calls);

}  // namespace raw

#endif
