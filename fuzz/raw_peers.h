// What the targets that run connections share: raw peers, which send any bytes and descriptors, and
// what was sent, so that what arrives can be compared.
#ifndef COMM_FUZZ_RAW_PEERS_H
#define COMM_FUZZ_RAW_PEERS_H

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <filesystem>
#include <iterator>
#include <string>

#include "fuzz/harness.h"
#include "suite/time.h"

inline const int some_file = open("/dev/null", O_RDWR);
// Every slot and every kept packet may hold 60.
inline const int raised_limit = [] {
  const struct rlimit limit = {4096, 4096};
  return setrlimit(RLIMIT_NOFILE, &limit);
}();
// Every server has a new name: somebody who looks at /proc/PID/fd may hold the old one for a moment
// behind its close.
inline std::string server_path() {
  static unsigned number = 0;
  return "@comm_fuzz_" + std::to_string(getpid()) + "_" + std::to_string(++number);
}

inline std::ptrdiff_t count_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// A complete packet with this argument and so many descriptors.
inline CommPacket make_packet(const std::string& argument, std::size_t descriptors) {
  CommPacket p(comm_socket_v4_packet_create());
  p->write_begin("ping", nullptr, 0);
  p->write_argv(argument.c_str());
  for (std::size_t i = 0; i < descriptors; ++i) p->attach_fd_to_send(some_file);
  p->write_end();
  return p;
}

// Sends bytes and descriptors past the library.
inline bool send_record(int fd, std::string bytes, std::size_t descriptors) {
  const std::size_t size = descriptors * sizeof(int);
  alignas(struct cmsghdr) unsigned char control[CMSG_SPACE(61 * sizeof(int))];
  auto* const rights = reinterpret_cast<struct cmsghdr*>(control);
  *rights = {CMSG_LEN(size), SOL_SOCKET, SCM_RIGHTS};
  for (std::size_t at = 0; at < size; at += sizeof(int))
    std::memcpy(CMSG_DATA(rights) + at, &some_file, sizeof(int));
  struct iovec part = {bytes.data(), bytes.size()};
  const struct msghdr message = {nullptr, 0, &part, 1, control, size > 0 ? CMSG_SPACE(size) : 0, 0};
  return sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

// What was sent. A sound record may not get lost: it is valid, and not too long.
struct Record {
  std::string bytes;
  std::size_t descriptors;
  bool sound;
};

// A packet that arrives is the next that was sent, but for those that may get lost.
inline void expect_next(std::deque<Record>& sent, const comm_socket_v4_packet& p) {
  for (bool found = false; !found; sent.pop_front()) {
    REQUIRE(!sent.empty());
    const Record& next = sent.front();
    found = next.bytes == bytes_of(&p) && next.descriptors == p.attached_fd_count();
    REQUIRE(found || !next.sound);
  }
}

// A packet with this number, as it is or damaged, too long, or no packet at all.
inline Record any_record(Input& in, std::uint64_t serial) {
  constexpr std::size_t counts[] = {0, 1, 60, 61};
  const std::size_t form = in.below(5), count = counts[in.below(std::size(counts))];
  std::string bytes = bytes_of(make_packet(std::to_string(serial), 0).get());
  if (form == 1) bytes[in.below(bytes.size())] = static_cast<char>(in.below(0x100));
  if (form == 2) bytes = in.text();
  if (form >= 3) bytes.resize(65548 + form);  // the longest that is received, and one more
  return {bytes, count, (form == 0 || form == 3) && count <= 60};
}

// The library's clock: what an input does is the same on every machine.
extern "C" std::uint64_t monotonic_clock_us() {
  static std::uint64_t calls = 0;
  return ++calls;
}

// All steps of an input. Nothing may be left over.
template <class World>
int run(const Input& in) {
  const std::ptrdiff_t before = count_descriptors();
  {
    World world(in);
    while (world.goes_on()) world.step();
    world.come_to_rest();
  }
  REQUIRE(count_descriptors() == before);
  return 0;
}

#endif
