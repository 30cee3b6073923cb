#include "core/client/attempt_pacer.h"

#include <gtest/gtest.h>

#include "core/net/testing/fake_clock.h"

namespace varnic {
namespace {

class AttemptPacerTest : public ::testing::Test {
 protected:
  static net::BackoffOptions Options() {
    net::BackoffOptions options;
    options.jitter = 0;
    options.multiplier = 2;
    return options;
  }

  net::testing::FakeClock clock_;
  AttemptPacer pacer_{Options()};
};

TEST_F(AttemptPacerTest, FirstAttemptMayBeginAtOnce) {
  EXPECT_EQ(pacer_.UntilNext(), absl::ZeroDuration());
}

TEST_F(AttemptPacerTest, DelayCountsFromTheBeginningOfTheAttempt) {
  pacer_.OnAttempt();
  clock_.Advance(absl::Seconds(0.75));
  EXPECT_EQ(pacer_.UntilNext(), absl::Seconds(0.25));

  clock_.Advance(absl::Seconds(5));
  EXPECT_EQ(pacer_.UntilNext(), absl::ZeroDuration());
}

TEST_F(AttemptPacerTest, DelaysGrowFromAttemptToAttempt) {
  for (const int seconds : {1, 2, 4, 8}) {
    pacer_.OnAttempt();
    EXPECT_EQ(pacer_.UntilNext(), absl::Seconds(seconds));
  }
}

TEST_F(AttemptPacerTest, SuccessAfterManyFailuresLeavesTheFirstDelay) {
  for (int i = 0; i < 5; ++i) pacer_.OnAttempt();

  pacer_.OnSuccess();
  EXPECT_EQ(pacer_.UntilNext(), absl::Seconds(1));

  pacer_.OnAttempt();
  EXPECT_EQ(pacer_.UntilNext(), absl::Seconds(1));
  pacer_.OnAttempt();
  EXPECT_EQ(pacer_.UntilNext(), absl::Seconds(2));
}

TEST_F(AttemptPacerTest, WhatHasLivedLongerThanTheFirstDelayMayComeBackAtOnce) {
  pacer_.OnAttempt();
  pacer_.OnSuccess();

  clock_.Advance(absl::Seconds(1));

  EXPECT_EQ(pacer_.UntilNext(), absl::ZeroDuration());
}

TEST_F(AttemptPacerTest, ResetForgetsEveryAttempt) {
  for (int i = 0; i < 5; ++i) pacer_.OnAttempt();

  pacer_.Reset();
  EXPECT_EQ(pacer_.UntilNext(), absl::ZeroDuration());

  pacer_.OnAttempt();
  EXPECT_EQ(pacer_.UntilNext(), absl::Seconds(1));
}

}  // namespace
}  // namespace varnic
