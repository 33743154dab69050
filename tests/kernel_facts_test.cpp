// What the library takes for granted about the kernel, without the library.
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "connections.h"

namespace {

class KernelFacts : public CommTest {
 protected:
  KernelFacts() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair)); }
  ~KernelFacts() override { close(pair[0]), close(pair[1]); }
  int pair[2];
  char buffer[64] = {};

  ssize_t put(std::size_t length) { return send(pair[0], buffer, length, 0); }
  ssize_t get() { return recv(pair[1], buffer, sizeof buffer, MSG_DONTWAIT); }
};

TEST_F(KernelFacts, FionreadAnswersTheSumOfAllRecordsAndAnEmptyOneReadsAsTheEnd) {
  int sum = -1;
  EXPECT_EQ(30, put(10) + put(0) + put(20));
  EXPECT_TRUE(ioctl(pair[1], FIONREAD, &sum) == 0 && sum == 30);
  EXPECT_EQ(10, get());
  EXPECT_TRUE(ioctl(pair[1], FIONREAD, &sum) == 0 && sum == 20);
  EXPECT_EQ(0, get());
  EXPECT_EQ(20, get());
}

TEST_F(KernelFacts, ABacklogOf0TakesOneConnectionAndADatagramSocketLearnsWhoListens) {
  sockaddr_un address = {AF_UNIX, {}};
  path().copy(address.sun_path, sizeof address.sun_path);
  const auto* const name = reinterpret_cast<const sockaddr*>(&address);
  int fds[4];
  for (int& fd : fds) fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0);
  close(fds[3]);
  const int datagram = socket(AF_UNIX, SOCK_DGRAM, 0);
  const auto try_connect = [&](int fd) { return answered(connect(fd, name, sizeof address)); };
  EXPECT_EQ(0, bind(fds[0], name, sizeof address) + listen(fds[0], 0));
  EXPECT_EQ("-1 EPROTOTYPE", try_connect(datagram));
  EXPECT_EQ("0", try_connect(fds[1]));
  EXPECT_EQ("-1 EAGAIN", try_connect(fds[2]));
  EXPECT_EQ("-1 ENOTCONN", answered(recv(fds[2], buffer, 1, 0)));
  fds[3] = accept(fds[0], nullptr, nullptr);
  EXPECT_EQ("0", try_connect(fds[2]));
  for (const int fd : fds) close(fd);
  EXPECT_EQ("-1 ECONNREFUSED", try_connect(datagram));
  close(datagram);
}

}  // namespace
