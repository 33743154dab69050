// That the frame of the tests catches what it is there to catch.
#include "support.h"

#include <gtest/gtest-spi.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "faults.h"

namespace {

using SupportTest = CommTest;

struct OtherTest : CommTest {
  void TestBody() override {}
};

TEST_F(SupportTest, SeesADescriptorThatATestLeaves) {
  static int fd;
  EXPECT_NONFATAL_FAILURE(
      {
        OtherTest test;
        fd = dup(0);
      },
      "changed the open descriptors");
  close(fd);
}

TEST_F(SupportTest, EndsAndReportsWhatFailsOrHangs) {
  Peer failing([] {
    close(1);  // hides the report
    EXPECT_TRUE(false);
  });
  EXPECT_EQ(1, failing.wait());
  Peer hanging([] { pause(); }, 1);
  EXPECT_EQ(124, hanging.wait());
  EXPECT_GT(alarm(20), 10u) << "no alarm was set for the test itself";
  EXPECT_NONFATAL_FAILURE(Peer([] { _exit(3); }), "the peer failed");
}

TEST_F(SupportTest, ReadsLogLines) {
  StderrCapture captured;
  Endpoint a = make_endpoint(), b = make_endpoint();
  comm_socket_v4_error(a.get(), "one\n");
  comm_socket_v4_bug(b.get(), "two");
  fprintf(stderr, "three\n");
  EXPECT_EQ((Lines{"ERROR: one\n", "BUG: two", "three"}), captured.lines());
  EXPECT_EQ(Lines{"BUG: two"}, captured.lines(b.get()));
}

TEST_F(SupportTest, FaultsFireWherePlannedAndNowhereElse) {
  Faults faults;
  faults.fail(Call::dup, EMFILE, 2).replace(Call::close, [](auto& real, void*) {
    return real() + 100;
  });
  int fds[3];
  faults.during([&] {
    for (int& fd : fds) fd = dup(0);
  });
  EXPECT_TRUE(fds[0] >= 0 && fds[1] == -1 && fds[2] >= 0);
  EXPECT_EQ(100, faults.during([&] { return close(fds[0]); }));
  faults.fail_any(1);
  EXPECT_EQ(0, close(dup(0))) << "a fault acts outside during()";
  EXPECT_EQ(-1, faults.during([&] { return close(fds[2]); }));
  EXPECT_EQ(EIO, errno);
  EXPECT_TRUE(faults.fired() == 2 && faults.count(Call::dup) == 3);
  EXPECT_THROW(Faults().fail_any(1).during([] { ::operator delete(::operator new(1)); }),
               std::bad_alloc);
  EXPECT_NONFATAL_FAILURE(Faults().fail(Call::malloc, ENOMEM), "malloc and never came");
}

}  // namespace
