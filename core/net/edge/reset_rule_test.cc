#include "core/net/edge/reset_rule.h"

#include <gtest/gtest.h>

#include <chrono>

namespace varnic::net {
namespace {

constexpr TokenBucket::Time kStart{std::chrono::hours(1)};

TEST(ResetRuleTest, AClientMayCancelAThousandCallsAtOnce) {
  ResetRule rule{FloodLimits()};

  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(rule.OnCallTakenBack(kStart)) << i;
}

TEST(ResetRuleTest, CallsMayBeTakenBackAtTheRateForEver) {
  const FloodLimits limits;
  ResetRule rule(limits);

  for (uint32_t i = 0; i < 100 * limits.resets.per_second; ++i) {
    const auto now = kStart + std::chrono::seconds(1) * i / limits.resets.per_second;
    ASSERT_TRUE(rule.OnCallTakenBack(now)) << i;
  }
}

TEST(ResetRuleTest, FaultsAndCallsTakenBackCountAlike) {
  FloodLimits limits;
  limits.resets = {4, 1};
  ResetRule rule(limits);

  EXPECT_TRUE(rule.OnCallTakenBack(kStart) && rule.OnFault(kStart));
  EXPECT_TRUE(rule.OnCallTakenBack(kStart) && rule.OnFault(kStart));

  EXPECT_FALSE(rule.OnCallTakenBack(kStart));
  EXPECT_FALSE(rule.OnFault(kStart));
}

}  // namespace
}  // namespace varnic::net
