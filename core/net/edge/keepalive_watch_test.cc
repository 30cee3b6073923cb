#include "core/net/edge/keepalive_watch.h"

#include <gtest/gtest.h>

namespace varnic::net {
namespace {

using Step = KeepaliveWatch::Step;

constexpr LoopClock::time_point At(int seconds) {
  return LoopClock::time_point(std::chrono::seconds(seconds));
}

class KeepaliveWatchTest : public ::testing::Test {
 protected:
  Step Look(int seconds, std::uint64_t bytes_received, bool wanted = true) {
    return watch_.Look(At(seconds), bytes_received, wanted);
  }

  KeepaliveWatch watch_{absl::Seconds(100), absl::Seconds(20)};
};

TEST_F(KeepaliveWatchTest, SilentPeerIsPingedOnceAndThenGivenUp) {
  EXPECT_EQ(Look(0, 50), Step::kNone);
  EXPECT_EQ(Look(99, 50), Step::kNone);

  EXPECT_EQ(Look(100, 50), Step::kPing);
  EXPECT_EQ(Look(119, 50), Step::kNone);
  EXPECT_EQ(Look(120, 50), Step::kGiveUp);
}

TEST_F(KeepaliveWatchTest, AnyByteAnswersThePing) {
  EXPECT_EQ(Look(0, 50), Step::kNone);
  EXPECT_EQ(Look(100, 50), Step::kPing);

  EXPECT_EQ(Look(120, 51), Step::kNone);
  EXPECT_EQ(Look(219, 51), Step::kNone);
  EXPECT_EQ(Look(220, 51), Step::kPing);
}

TEST_F(KeepaliveWatchTest, PeerThatSaysSomethingIsNeverPinged) {
  for (int look = 0; look < 100; ++look) {
    EXPECT_EQ(Look(look * 99, static_cast<std::uint64_t>(look)), Step::kNone);
  }
}

TEST_F(KeepaliveWatchTest, NobodyIsPingedOrGivenUpWhileThatIsNotWanted) {
  EXPECT_EQ(Look(0, 50), Step::kNone);
  EXPECT_EQ(Look(500, 50, /*wanted=*/false), Step::kNone);
  EXPECT_EQ(Look(599, 50), Step::kNone);
  EXPECT_EQ(Look(600, 50), Step::kPing);

  EXPECT_EQ(Look(700, 50, /*wanted=*/false), Step::kNone);
}

TEST_F(KeepaliveWatchTest, LooksOftenInTheTimeThatItWaitsFor) {
  EXPECT_EQ(watch_.next_look(), absl::Milliseconds(12'500));

  Look(0, 0);
  Look(100, 0);

  EXPECT_EQ(watch_.next_look(), absl::Milliseconds(2500));
}

TEST(KeepaliveWatchOfPatientServerTest, LooksOftenEnoughForTheNextPing) {
  KeepaliveWatch watch(absl::Seconds(8), absl::Seconds(100));

  (void)watch.Look(At(0), 0, /*wanted=*/true);
  EXPECT_EQ(watch.Look(At(8), 0, /*wanted=*/true), Step::kPing);

  EXPECT_EQ(watch.next_look(), absl::Seconds(1));
}

}  // namespace
}  // namespace varnic::net
