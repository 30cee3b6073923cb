#include "core/net/edge/ping_policy.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>

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

TEST(PingPolicyTest, PingsThreeQuartersOfTheIntervalApartAreFine) {
  PingPolicy policy(absl::Seconds(20));

  for (int ping = 0; ping < 1000; ++ping) EXPECT_TRUE(policy.Admit(At(ping * 15), 0));
}

TEST(PingPolicyTest, PingsTwiceAsOftenAsAllowedAreTooManyInTheLongRun) {
  PingPolicy policy(absl::Seconds(10));

  int admitted = 0;
  while (admitted < 100 && policy.Admit(At(admitted * 5), 0)) ++admitted;

  EXPECT_EQ(admitted, 7);
}

TEST(PingPolicyTest, PingsOfAScheduleMayBeDelayedAtWill) {
  PingPolicy policy(absl::Seconds(10));
  std::mt19937 random(1);
  std::uniform_int_distribution<int> delay(0, 10'000);

  for (int ping = 0; ping < 100'000; ++ping) {
    const auto sent = At(ping * 10);
    EXPECT_TRUE(policy.Admit(sent + std::chrono::milliseconds(delay(random)), 0)) << ping;
  }
}

TEST(PingPolicyTest, ThreePingsThatWereHeldUpTogetherAreFine) {
  PingPolicy policy(absl::Seconds(10));
  EXPECT_TRUE(policy.Admit(At(0), 0));

  for (int ping = 0; ping < 3; ++ping) EXPECT_TRUE(policy.Admit(At(30), 0));
  for (int ping = 4; ping < 100; ++ping) EXPECT_TRUE(policy.Admit(At(ping * 10), 0)) << ping;
}

TEST(PingPolicyTest, StrikesAreForgivenWithTime) {
  PingPolicy policy(absl::Seconds(10));
  for (int second : {0, 1, 2}) EXPECT_TRUE(policy.Admit(At(second), 0));

  for (int second : {100, 101, 102}) EXPECT_TRUE(policy.Admit(At(second), 0));
  EXPECT_FALSE(policy.Admit(At(103), 0));
}

TEST(PingPolicyTest, PingThatKeepsTheIntervalForgivesNoMoreThanItsTime) {
  PingPolicy policy(absl::Seconds(10));
  for (int second : {0, 1, 2}) EXPECT_TRUE(policy.Admit(At(second), 0));

  EXPECT_TRUE(policy.Admit(At(12), 0));
  EXPECT_FALSE(policy.Admit(At(13), 0));
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
