#include "core/net/edge/ping_policy.h"

#include <gtest/gtest.h>

namespace varnic::net {
namespace {

constexpr LoopClock::time_point At(int seconds) {
  return LoopClock::time_point(std::chrono::seconds(seconds));
}

TEST(PingPolicyTest, PingsTenSecondsApartAreAlwaysFine) {
  PingPolicy policy(absl::Seconds(10));

  for (int ping = 0; ping < 1000; ++ping) EXPECT_TRUE(policy.Admit(At(ping * 10), 0));
}

TEST(PingPolicyTest, PingThatComesALittleEarlyIsFine) {
  PingPolicy policy(absl::Seconds(10));

  for (int ping = 0; ping < 1000; ++ping) EXPECT_TRUE(policy.Admit(At(ping * 9), 0));
}

TEST(PingPolicyTest, ThirdPingThatComesTooSoonIsOneTooMany) {
  PingPolicy policy(absl::Seconds(10));
  EXPECT_TRUE(policy.Admit(At(0), 0));

  EXPECT_TRUE(policy.Admit(At(1), 0));
  EXPECT_TRUE(policy.Admit(At(2), 0));
  EXPECT_FALSE(policy.Admit(At(3), 0));
}

TEST(PingPolicyTest, StrikesAreKeptWhileNothingIsSent) {
  PingPolicy policy(absl::Seconds(10));
  EXPECT_TRUE(policy.Admit(At(0), 0));
  EXPECT_TRUE(policy.Admit(At(1), 0));

  EXPECT_TRUE(policy.Admit(At(100), 0));
  EXPECT_TRUE(policy.Admit(At(101), 0));
  EXPECT_FALSE(policy.Admit(At(102), 0));
}

TEST(PingPolicyTest, PingsThatMeasureTheLinkAreFree) {
  PingPolicy policy(absl::Seconds(10));

  for (std::uint64_t frame = 0; frame < 1000; ++frame) EXPECT_TRUE(policy.Admit(At(0), frame));
}

TEST(PingPolicyTest, WhatIsSentTakesStrikesBack) {
  PingPolicy policy(absl::Seconds(10));
  EXPECT_TRUE(policy.Admit(At(0), 0));
  EXPECT_TRUE(policy.Admit(At(1), 0));
  EXPECT_TRUE(policy.Admit(At(2), 0));

  EXPECT_TRUE(policy.Admit(At(3), 1));
  EXPECT_TRUE(policy.Admit(At(4), 1));
  EXPECT_TRUE(policy.Admit(At(5), 1));
  EXPECT_FALSE(policy.Admit(At(6), 1));
}

}  // namespace
}  // namespace varnic::net
