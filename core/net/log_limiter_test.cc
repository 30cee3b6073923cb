#include "core/net/log_limiter.h"

#include <gtest/gtest.h>

namespace varnic::net {
namespace {

const absl::Time kStart = absl::FromUnixSeconds(1'000'000);

TEST(LogLimiterTest, LetsOneThroughInEachPeriodAndCountsTheOthers) {
  LogLimiter limiter(absl::Seconds(1));

  EXPECT_EQ(limiter.Admit(kStart), 0u);
  EXPECT_EQ(limiter.Admit(kStart), std::nullopt);
  EXPECT_EQ(limiter.Admit(kStart + absl::Milliseconds(999)), std::nullopt);
  EXPECT_EQ(limiter.Admit(kStart + absl::Seconds(1)), 2u);
  EXPECT_EQ(limiter.Admit(kStart + absl::Seconds(10)), 0u);
}

TEST(LogLimiterTest, AClockThatIsSetBackDoesNotSilenceIt) {
  LogLimiter limiter(absl::Seconds(1));
  EXPECT_EQ(limiter.Admit(kStart), 0u);

  EXPECT_EQ(limiter.Admit(kStart - absl::Hours(1)), 0u);
}

TEST(LogLimiterTest, SaysHowManyWereLeftOut) {
  EXPECT_EQ(LogLimiter::More(0), "");
  EXPECT_EQ(LogLimiter::More(7), " left_out=7");
}

}  // namespace
}  // namespace varnic::net
