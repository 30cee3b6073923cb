#include "core/net/edge/idle_watch.h"

#include <gtest/gtest.h>

namespace varnic::net {
namespace {

constexpr LoopClock::time_point At(int seconds) {
  return LoopClock::time_point(std::chrono::seconds(seconds));
}

TEST(IdleWatchTest, ConnectionThatNeverHadAStreamIsDueAfterTheTime) {
  IdleWatch watch(absl::Seconds(40));

  EXPECT_FALSE(watch.IsDue(At(0), 0, 0));
  EXPECT_FALSE(watch.IsDue(At(39), 0, 0));
  EXPECT_TRUE(watch.IsDue(At(40), 0, 0));
}

TEST(IdleWatchTest, ConnectionWithAnOpenStreamIsNeverDue) {
  IdleWatch watch(absl::Seconds(40));

  for (int look = 0; look < 100; ++look) EXPECT_FALSE(watch.IsDue(At(look * 10), 1, 1));
}

TEST(IdleWatchTest, TheTimeBeginsAnewWithTheEndOfTheLastStream) {
  IdleWatch watch(absl::Seconds(40));
  EXPECT_FALSE(watch.IsDue(At(0), 0, 0));
  EXPECT_FALSE(watch.IsDue(At(30), 1, 1));

  EXPECT_FALSE(watch.IsDue(At(60), 0, 1));
  EXPECT_FALSE(watch.IsDue(At(99), 0, 1));
  EXPECT_TRUE(watch.IsDue(At(100), 0, 1));
}

TEST(IdleWatchTest, StreamThatCameAndWentBetweenTwoLooksCounts) {
  IdleWatch watch(absl::Seconds(40));
  EXPECT_FALSE(watch.IsDue(At(0), 0, 7));

  EXPECT_FALSE(watch.IsDue(At(40), 0, 8));
  EXPECT_TRUE(watch.IsDue(At(80), 0, 8));
}

}  // namespace
}  // namespace varnic::net
