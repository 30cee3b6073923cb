#include "core/net/edge/unread_answers_rule.h"

#include <gtest/gtest.h>

namespace varnic::net {
namespace {

TEST(UnreadAnswersRuleTest, SoManyFramesMayWaitBesidesAnAnswerForEachStream) {
  FloodLimits limits;
  limits.unread_answers = 10;
  const UnreadAnswersRule rule(limits, /*max_streams=*/5);

  EXPECT_TRUE(rule.OnWaiting(0));
  EXPECT_TRUE(rule.OnWaiting(15));
  EXPECT_FALSE(rule.OnWaiting(16));
}

}  // namespace
}  // namespace varnic::net
