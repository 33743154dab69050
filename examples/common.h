// What the examples share beside the owners in owners.h: packets begun, waits within a time,
// checksums of files.
#ifndef EXAMPLES_COMMON_H
#define EXAMPLES_COMMON_H

#include <fcntl.h>
#include <sys/stat.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "../lib/owners.h"

[[noreturn]] inline void fail(const char* what, const char* why) {
  std::fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, what, why);
  std::exit(1);
}
[[noreturn]] inline void fail(const char* what) { fail(what, std::strerror(errno)); }

// Before anything is opened: where descriptors 0 to 2 are closed sockets would get these numbers,
// and what the program prints would go to a client.
inline void open_standard_descriptors() {
  int fd = ::open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = ::dup(fd);
  if (fd > STDERR_FILENO) ::close(fd);
}

// Header values come before write_begin, which copies them. Null without memory.
inline Packet begin_request(const char* command, std::uint64_t id) {
  Packet request{comm_socket_v4_packet_create()};
  if (!request) return nullptr;
  request->make_request();
  request->message_id = id;
  return request->write_begin(command, nullptr, 0) == 0 ? std::move(request) : nullptr;
}
inline Packet begin_answer(const comm_socket_v4_packet& request, int error) {
  Packet answer{comm_socket_v4_packet_create()};
  if (!answer) return nullptr;
  answer->make_response();
  answer->message_id = request.message_id;
  answer->error_code = static_cast<std::uint64_t>(error);
  const char* const text = error != 0 ? std::strerror(error) : nullptr;
  return answer->write_begin(request.command(), text, 0) == 0 ? std::move(answer) : nullptr;
}

// As the waits take it: they count on the steady clock.
inline unsigned long in_seconds(int seconds) {
  const auto moment = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  return static_cast<unsigned long>(
      std::chrono::duration_cast<std::chrono::microseconds>(moment.time_since_epoch()).count());
}
inline bool has_passed(unsigned long deadline) { return in_seconds(0) >= deadline; }

// False when the connection has ended, or takes no packet in time.
inline bool send(comm_socket_v4* endpoint, comm_socket_v4_packet* packet, unsigned long deadline) {
  for (;;) {
    const int sent = comm_socket_v4_packet_send_to_server(endpoint, packet);
    if (sent != 0) return sent > 0;
    if (comm_socket_v4_wait_for_client_to_server_writeable(endpoint, deadline) <= 0) return false;
  }
}

// Null when the connection has ended, which closes the endpoint, or nothing comes in time. A peer
// whose packets are all dropped keeps the wait ready, past its deadline too.
inline Packet receive(comm_socket_v4* endpoint, unsigned long deadline) {
  for (;;) {
    Packet packet{comm_socket_v4_client_get_packet_from_server(endpoint)};
    if (packet) return packet;
    if (has_passed(deadline)) return nullptr;
    if (comm_socket_v4_client_from_server_readable(endpoint, deadline) <= 0) return nullptr;
  }
}

// A peer's text for a terminal, which obeys control characters.
inline std::string printable(std::string text) {
  for (char& c : text)
    if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) c = '?';
  return text;
}

// The packet in its readable listing.
inline void show(const comm_socket_v4_packet& packet, const char* way, unsigned long whom) {
  std::fprintf(stderr, "--- %s %lu\n", way, whom);
  packet.dump_header_user_friendly(stderr);
}

// Appends what the file holds behind the bytes that are there already; false with errno. Only of a
// regular file, as what a peer sends may never end. pread(2), since the offset of a descriptor that
// was passed on is shared with the process that sent it.
inline bool read_rest(int fd, std::string& bytes) {
  struct stat about;
  if (::fstat(fd, &about) != 0) return false;
  if (!S_ISREG(about.st_mode)) {
    errno = EINVAL;
    return false;
  }
  char block[16384];
  for (;;) {
    const ssize_t count = ::pread(fd, block, sizeof(block), static_cast<off_t>(bytes.size()));
    if (count <= 0) return count == 0;
    bytes.append(block, static_cast<std::size_t>(count));
  }
}

// As cksum(1) prints it, so that anybody can compare: a CRC of the bytes and then of their number.
inline std::uint32_t cksum(std::string bytes) {
  for (std::size_t length = bytes.size(); length != 0; length >>= 8)
    bytes.push_back(static_cast<char>(length & 0xff));
  std::uint32_t crc = 0;
  for (const char byte : bytes) {
    crc ^= static_cast<std::uint32_t>(static_cast<unsigned char>(byte)) << 24;
    for (int bit = 0; bit < 8; ++bit) crc = crc << 1 ^ (crc >> 31 ? 0x04c11db7u : 0u);
  }
  return ~crc;
}

#endif
