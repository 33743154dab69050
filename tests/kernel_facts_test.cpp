// What the library takes for granted about the kernel, without the library.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
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

TEST_F(KernelFacts, DescriptorsWithoutRoomAreClosedAndFlagged) {
  const int fds[] = {0, 1, 2};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof fds)] = {};
  iovec bytes = {buffer, 8};
  msghdr message = {nullptr, 0, &bytes, 1, control, sizeof control, 0};
  cmsghdr* const rights = CMSG_FIRSTHDR(&message);
  *rights = {CMSG_LEN(sizeof fds), SOL_SOCKET, SCM_RIGHTS};
  memcpy(CMSG_DATA(rights), fds, sizeof fds);
  EXPECT_EQ(8, sendmsg(pair[0], &message, 0));
  bytes.iov_len = 7;
  const rlim_t next = lowest_free_descriptor();
  EXPECT_EQ(7, with_descriptor_limit(next + 1, [&] { return recvmsg(pair[1], &message, 0); }));
  EXPECT_EQ(MSG_TRUNC | MSG_CTRUNC, message.msg_flags & (MSG_TRUNC | MSG_CTRUNC));
  EXPECT_EQ(CMSG_LEN(sizeof(int)), rights->cmsg_len);
  EXPECT_EQ(0, close(static_cast<int>(next)));
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

TEST_F(KernelFacts, SelectTakesMoreThan1024Descriptors) {
  const int high = with_descriptor_limit(2000, [&] { return fcntl(pair[1], F_DUPFD, 1500); });
  ASSERT_EQ(1500, high);
  unsigned long set[1536 / 64] = {};
  set[1500 / 64] = 1ul << 1500 % 64;
  put(1);
  EXPECT_EQ(1, select(high + 1, reinterpret_cast<fd_set*>(set), nullptr, nullptr, nullptr));
  close(high);
}

}  // namespace
