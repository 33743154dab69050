// What the examples share: how they fail, what they show, reading and writing files, checksums.
#ifndef EXAMPLES_COMMON_H
#define EXAMPLES_COMMON_H

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <tarn_utils_v4/comm_cpp.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

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

// A peer's text for a terminal, which obeys control characters.
inline std::string printable(std::string text) {
  for (char& c : text)
    if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) c = '?';
  return text;
}

// The packet in its readable listing.
inline void show(const comm_socket_v4_packet& packet, const char* way, std::uint64_t whom) {
  std::fprintf(stderr, "--- %s %" PRIu64 "\n", way, whom);
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

// Fits into a packet beside everything else that we put there.
constexpr std::size_t part_size = COMM_V4_MAX_RECEIVED_PACKET - 4096;

// Whether the call that just failed is worth another try: a descriptor that was handed over need
// not block.
inline bool may_try_again(int fd, short events) {
  if (errno == EINTR) return true;
  if (errno != EAGAIN) return false;
  struct pollfd ready = {fd, events, 0};
  return ::poll(&ready, 1, -1) > 0 || errno == EINTR;
}

// Reads the next bytes, at most a part, none at the end only; false with errno.
inline bool read_part(int fd, std::vector<unsigned char>& part) {
  ssize_t count = -1;
  part.resize(part_size);
  do count = ::read(fd, part.data(), part.size());
  while (count < 0 && may_try_again(fd, POLLIN));
  part.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return count >= 0;
}

// Writes all of them; false with errno.
inline bool write_all(int fd, CommBytes bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t put = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (put < 0 && !may_try_again(fd, POLLOUT)) return false;
    if (put > 0) done += static_cast<std::size_t>(put);
  }
  return true;
}

// As cksum(1) prints it, so that anybody can compare: a CRC of the bytes and then of their number.
class Cksum {
 public:
  void add(const void* bytes, std::size_t count) {
    const auto* const first = static_cast<const unsigned char*>(bytes);
    for (const auto* byte = first; byte < first + count; ++byte) crc_ = next(crc_, *byte);
    length_ += count;
  }
  std::uint32_t value() const {
    std::uint32_t crc = crc_;
    for (std::uint64_t length = length_; length != 0; length >>= 8)
      crc = next(crc, static_cast<unsigned char>(length));
    return ~crc;
  }
  std::uint64_t length() const { return length_; }

 private:
  static std::uint32_t next(std::uint32_t crc, unsigned char byte) {
    crc ^= static_cast<std::uint32_t>(byte) << 24;
    for (int bit = 0; bit < 8; ++bit) crc = crc << 1 ^ (crc >> 31 ? 0x04c11db7u : 0u);
    return crc;
  }

  std::uint32_t crc_ = 0;
  std::uint64_t length_ = 0;
};

inline std::uint32_t cksum(const std::string& bytes) {
  Cksum sum;
  sum.add(bytes.data(), bytes.size());
  return sum.value();
}

#endif
