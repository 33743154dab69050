// That the frame of the tests catches what it is there to catch.
#include "support.h"

#include <gtest/gtest-spi.h>

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
  EXPECT_LT(0u, alarm(300)) << "no alarm was set for the test itself";
  EXPECT_NONFATAL_FAILURE(Peer([] { _exit(3); }), "the peer failed");
  EXPECT_NONFATAL_FAILURE(Faults().fail(Call::malloc, ENOMEM), "malloc and never came");
}

}  // namespace
