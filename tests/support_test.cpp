// That the frame of the tests catches what it is there to catch.
#include "support.h"

#include <gtest/gtest-spi.h>
#include <signal.h>

namespace {

using SupportTest = CommTest;

struct OtherTest : CommTest {
  explicit OtherTest(const std::function<void()>& body) { body(); }
  void TestBody() override {}
};

TEST_F(SupportTest, NamesTheDescriptorsThatATestLeavesOpenOrCloses) {
  int fd = -1;
  EXPECT_NONFATAL_FAILURE(OtherTest([&fd] { fd = dup(0); }), "{ \"+ ");
  EXPECT_NONFATAL_FAILURE(OtherTest([&fd] { close(fd); }), "{ \"- " + std::to_string(fd) + " -> ");
}

TEST_F(SupportTest, EndsAndReportsWhatFailsOrHangs) {
  Peer failing([] {
    close(1);  // hides the report
    EXPECT_TRUE(false);
  });
  EXPECT_EQ(1, failing.wait());
  Peer hanging([] { pause(); }, 1);
  EXPECT_EQ(128 + SIGALRM, hanging.wait());
  EXPECT_LT(0u, alarm(300)) << "no alarm was set for the test itself";
  EXPECT_NONFATAL_FAILURE(Peer([] { _exit(3); }), "the peer failed");
  EXPECT_NONFATAL_FAILURE(Faults().fail(Call::malloc, ENOMEM), "malloc and never came");
}

}  // namespace
