#include "lib/packet_receive.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <tarn_utils_v4/comm_cpp.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "lib/endpoint_internal.h"
#include "lib/fatal_assert.h"
#include "lib/or_no_memory.h"
#include "lib/packet_layout.h"

unsigned int comm_socket_v4_recv_corrupt_debug = 0;

namespace {

// Asked for beyond the size that the kernel announces.
constexpr std::size_t size_margin = 16;
// One byte of the buffer stays free for the NUL.
static_assert(COMM_V4_RECV_SIZE_CAP + size_margin - 1 == COMM_V4_MAX_RECEIVED_PACKET);

// FIONREAD gives the sum of all records that wait on a local socket, 0 for an empty queue and for
// a peer that has gone.
bool ask_announced_bytes(const ReceiveSide& side, int* avail) {
  *avail = 0;
  if (::ioctl(side.fd, FIONREAD, avail) == 0) return true;
  if (errno == EAGAIN)
    comm_socket_v4_warning(side.endpoint, "ioctl(FIONREAD) returns EWOULDBLOCK?");
  else
    comm_socket_v4_error(side.endpoint, "ioctl(FIONREAD) returned error %s", std::strerror(errno));
  return false;
}

std::size_t read_size(int avail) {
  const bool known = avail >= 1 && static_cast<std::size_t>(avail) <= COMM_V4_RECV_SIZE_CAP;
  return known ? static_cast<std::size_t>(avail) : COMM_V4_RECV_SIZE_CAP;
}

bool reserve_descriptors(std::vector<int>& room) noexcept {
  return or_no_memory(false, [&room] {
    room.reserve(COMM_V4_MAX_SEND_FDS);
    return true;
  });
}

// A packet with room for a record of `size` bytes and the NUL behind it, beside room for every
// descriptor that may come along: nothing that has arrived can be lost to a lack of memory. Null
// with ENOMEM.
CommPacket create_packet(const ReceiveSide& side, std::size_t size) {
  CommPacket packet(comm_socket_v4_packet_create());
  if (packet == nullptr ||
      !reserve_descriptors(comm_v4_internals::of(side.endpoint).descriptor_room)) {
    packet.reset();
    comm_socket_v4_debug(side.endpoint, "client_idle() fd=%d cannot create packet", side.fd);
  } else if (packet->resize_buffer(size + size_margin) != 0) {
    packet.reset();
    comm_socket_v4_debug(side.endpoint, "client_idle() fd=%d cannot resize packet buffer", side.fd);
  }
  if (packet == nullptr) errno = ENOMEM;
  return packet;
}

void take_descriptors(const ReceiveSide& side, struct msghdr& message,
                      comm_socket_v4_packet& packet) {
  std::vector<int>& room = comm_v4_internals::of(side.endpoint).descriptor_room;
  const char* const end = static_cast<const char*>(message.msg_control) + message.msg_controllen;
  for (struct cmsghdr* control = CMSG_FIRSTHDR(&message); control != nullptr;
       control = CMSG_NXTHDR(&message, control)) {
    const unsigned char* const first = CMSG_DATA(control);
    // The kernel writes these lengths, no peer does. A wrong one would be its fault, and is not
    // followed.
    if (control->cmsg_len < CMSG_LEN(0)) break;
    if (control->cmsg_len - CMSG_LEN(0) >
        static_cast<std::size_t>(end - reinterpret_cast<const char*>(first)))
      break;
    if (control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t count = (control->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    comm_socket_v4_debug(side.endpoint,
                         "client_idle() received %u file descriptors over SCM_RIGHTS",
                         static_cast<unsigned>(count));
    for (std::size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, first + i * sizeof(fd), sizeof(fd));
      room.push_back(fd);
    }
  }
  if (!room.empty()) packet.attached_fd.swap(room);
}

// As receive_record, where no descriptor can come: without a message header, which costs time.
ssize_t receive_bytes(const ReceiveSide& side, comm_socket_v4_packet& packet, int* flags) {
  const std::size_t room = packet.buffer_alloc - 1;
  const ssize_t rd = ::recv(side.fd, packet.buffer, room, MSG_DONTWAIT | MSG_TRUNC);
  if (rd < 0 || static_cast<std::size_t>(rd) <= room) return rd;
  *flags = MSG_TRUNC;
  return static_cast<ssize_t>(room);
}

// Reads into the packet's buffer, one byte of which stays free. The descriptors that came are the
// packet's whatever happens next. *flags is what the kernel said of truncation.
ssize_t receive_record(const ReceiveSide& side, comm_socket_v4_packet& packet, int* flags) {
  const comm_v4_internals& own = comm_v4_internals::of(side.endpoint);
  if (own.in_loop() && own.descriptors_cannot_come) return receive_bytes(side, packet, flags);
  alignas(struct cmsghdr) char control[COMM_V4_CONTROL_BUFFER_SIZE] = {};
  struct iovec bytes = {packet.buffer, packet.buffer_alloc - 1};
  struct msghdr message = {};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const int cloexec = own.descriptors_cloexec ? MSG_CMSG_CLOEXEC : 0;
  const ssize_t rd = ::recvmsg(side.fd, &message, MSG_DONTWAIT | cloexec);
  if (rd < 0) return rd;
  take_descriptors(side, message, packet);
  *flags = message.msg_flags;
  return rd;
}

// A packet in the slot that leaves it again unless it is kept.
class OfferedPacket {
 public:
  OfferedPacket(ReceiveSide& side, CommPacket packet) : side_(side), packet_(packet.release()) {
    *side_.slot() = packet_;
  }
  ~OfferedPacket() {
    if (kept_ || !in_slot()) return;
    *side_.slot() = nullptr;
    comm_socket_v4_packet_release(packet_);
  }
  OfferedPacket(const OfferedPacket&) = delete;
  OfferedPacket& operator=(const OfferedPacket&) = delete;

  comm_socket_v4_packet* get() const { return packet_; }
  // False when the callback released the client, and the packet with it.
  bool in_slot() const {
    comm_socket_v4_packet** const slot = side_.slot();
    return slot != nullptr && *slot == packet_;
  }
  void keep() { kept_ = true; }

 private:
  ReceiveSide& side_;
  comm_socket_v4_packet* const packet_;
  bool kept_ = false;
};

// One was received and goes no further.
int dropped(const ReceiveSide& side) {
  ++comm_v4_internals::of(side.endpoint).packets_dropped;
  return 0;
}

// Callback, checks and validation; what passes stays in the slot.
int deliver(ReceiveSide& side, CommPacket received) {
  OfferedPacket packet(side, std::move(received));
  const int answer = side.offer(packet.get());
  if (!packet.in_slot()) return 0;
  if (answer < 0) {
    comm_socket_v4_debug(side.endpoint, "client_idle() fd=%d dropping packet, callback refused it",
                         side.fd);
    return dropped(side);
  }
  packet.get()->shrinkfit_buffer();
  if (comm_socket_v4_client_on_recv_packet(side.endpoint, packet.get()) != 0) {
    comm_socket_v4_warning(side.endpoint, "client_idle() fd=%d dropping packet, failed to decode",
                           side.fd);
    return dropped(side);
  }
  packet.keep();
  return 0;
}

void flip_random_bits(comm_socket_v4_packet* p, unsigned int count) {
  std::uint64_t pos = static_cast<std::uint64_t>(std::rand()) % p->buffer_length;
  for (unsigned int i = 0; i < count; ++i) {
    const int bit = std::rand() & 7;
    p->buffer[pos] = static_cast<unsigned char>(p->buffer[pos] ^ (1u << bit));
    pos = (pos + static_cast<std::uint64_t>(std::rand())) % p->buffer_length;
  }
}

}  // namespace

int receive_packet(ReceiveSide& side) {
  if (*side.slot() != nullptr) return 0;
  // A CommLoop takes what epoll has told of into room for the longest: to ask costs a system call.
  int avail = 0;
  if (!comm_v4_internals::of(side.endpoint).in_loop() && !ask_announced_bytes(side, &avail))
    return -1;
  CommPacket packet = create_packet(side, read_size(avail));
  if (packet == nullptr) return -1;
  if (packet->buffer_alloc < 1)
    fatal_assertion_failed(side.source, side.function, "c->next_packet->buffer_alloc >= 1");

  int flags = 0;
  const ssize_t rd = receive_record(side, *packet, &flags);
  if (rd < 0) {
    const int error = errno;
    packet.reset();
    return error == EAGAIN || error == EINTR ? 0 : side.on_error(error);
  }
  if (static_cast<std::size_t>(rd) > packet->buffer_alloc - 1)
    fatal_assertion_failed(side.source, side.function, "rd <= (c->next_packet->buffer_alloc-1)");
  if (rd == 0) {
    packet.reset();
    return side.on_end_of_stream(avail);
  }
  if ((flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
    side.warn_of_truncation();
    return dropped(side);
  }
  if (packet->attached_fd.size() > comm_v4_internals::of(side.endpoint).max_descriptors) {
    comm_socket_v4_warning(side.endpoint,
                           "client_idle() fd=%d dropping packet, more descriptors than allowed",
                           side.fd);
    return dropped(side);
  }
  packet->buffer_length = static_cast<std::size_t>(rd);
  packet->buffer[packet->buffer_length] = 0;
  return deliver(side, std::move(packet));
}

int comm_socket_v4_client_on_recv_packet(comm_socket_v4* s, comm_socket_v4_packet* p) {
  if (p == nullptr || p->buffer == nullptr || p->buffer_length < COMM_V4_MIN_RECEIVED_PACKET ||
      p->buffer_length >= p->buffer_alloc || p->buffer[p->buffer_length] != 0)
    return -1;
  if (comm_socket_v4_recv_corrupt_debug > 0) flip_random_bits(p, comm_socket_v4_recv_corrupt_debug);
  comm_socket_v4_packet_header* const header = packet_layout::header(p->buffer);
  if (comm_socket_v4_validate_packet_contents(s, p, header) != 0) return -1;
  p->message_id = header->message_id;
  p->error_code = header->error_code;
  p->flags = header->flags;
  p->stream_id = header->stream_id;
  p->write_state = comm_socket_v4_packet::write_state_received;
  return 0;
}
