#include "core/net/edge/continuation_rule.h"

#include <gtest/gtest.h>

namespace varnic::net {
namespace {

TEST(ContinuationRuleTest, EachHeaderBlockMayHaveSoMany) {
  FloodLimits limits;
  limits.continuations = 3;
  ContinuationRule rule(limits);

  for (int block = 0; block < 100; ++block) {
    rule.OnHeaders();
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(rule.OnContinuation());
  }

  EXPECT_FALSE(rule.OnContinuation());
  EXPECT_FALSE(rule.OnContinuation());
}

TEST(ContinuationRuleTest, NoneMayBeAllowed) {
  FloodLimits limits;
  limits.continuations = 0;
  ContinuationRule rule(limits);

  rule.OnHeaders();

  EXPECT_FALSE(rule.OnContinuation());
}

}  // namespace
}  // namespace varnic::net
