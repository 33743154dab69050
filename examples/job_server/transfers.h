// Files on their way through descriptors and packets. No more of one is in memory than a part.
#ifndef EXAMPLES_JOB_SERVER_TRANSFERS_H
#define EXAMPLES_JOB_SERVER_TRANSFERS_H

#include <sys/types.h>
#include <tarn_utils_v4/comm_cpp.h>

#include <functional>

// Fits into a packet beside everything else that we put there.
constexpr std::size_t part_size = COMM_V4_MAX_RECEIVED_PACKET - 4096;

// As read(2) and write(2), but as often as it takes, and waiting where the descriptor, which may be
// a peer's, does not block. read_all returns less than `count` at the end only, and -1 with errno;
// write_all returns false with errno.
ssize_t read_all(int fd, unsigned char* bytes, std::size_t count);
bool write_all(int fd, CommBytes bytes);

// Returns a file that has no name and goes with its last descriptor; none, with errno.
CommDescriptor make_temporary_file();

// A series of packets with the bytes of a file, or one packet without a file.
class Outgoing {
 public:
  // `begin` begins each packet: everything but the data.
  explicit Outgoing(std::function<CommPacketBuilder()> begin,
                    CommDescriptor file = CommDescriptor())
      : begin_(std::move(begin)), file_(std::move(file)) {}
  // Returns the next packet; null with errno.
  CommPacket next();
  bool has_next() const { return !has_ended_; }

 private:
  std::function<CommPacketBuilder()> begin_;
  CommDescriptor file_;
  bool has_begun_ = false;
  bool has_ended_ = false;
};

#endif
