#include "core/server/subscription_bounds.h"

#include <gtest/gtest.h>

namespace varnic {
namespace {

SubscriptionLimits Limits() {
  SubscriptionLimits limits;
  limits.max_subscriptions = 2;
  limits.max_messages = 3;
  limits.max_bytes = 100;
  return limits;
}

TEST(SubscriptionBoundsTest, SubscriptionsArePossibleUpToTheLimit) {
  SubscriptionBounds bounds(Limits());

  EXPECT_TRUE(bounds.OnSubscribe("a").ok());
  EXPECT_TRUE(bounds.OnSubscribe("b").ok());
  EXPECT_EQ(bounds.OnSubscribe("c"),
            absl::ResourceExhaustedError("More than 2 subscriptions on one stream"));
}

TEST(SubscriptionBoundsTest, SubscribingAgainToAKeyCostsNothing) {
  SubscriptionBounds bounds(Limits());
  ASSERT_TRUE(bounds.OnSubscribe("a").ok());
  ASSERT_TRUE(bounds.OnSubscribe("b").ok());

  EXPECT_TRUE(bounds.OnSubscribe("a").ok());
  EXPECT_EQ(bounds.subscriptions(), 2U);
}

TEST(SubscriptionBoundsTest, UnsubscribingMakesRoom) {
  SubscriptionBounds bounds(Limits());
  ASSERT_TRUE(bounds.OnSubscribe("a").ok());
  ASSERT_TRUE(bounds.OnSubscribe("b").ok());
  bounds.OnUnsubscribe("a");
  bounds.OnUnsubscribe("never subscribed");

  EXPECT_TRUE(bounds.OnSubscribe("c").ok());
}

TEST(SubscriptionBoundsTest, MessagesAreCountedOverTheLifeOfTheStream) {
  SubscriptionBounds bounds(Limits());
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(bounds.OnMessage(1).ok());

  EXPECT_EQ(bounds.OnMessage(1),
            absl::ResourceExhaustedError("More than 3 subscription messages on one stream"));
}

TEST(SubscriptionBoundsTest, BytesAreCountedOverTheLifeOfTheStream) {
  SubscriptionBounds bounds(Limits());
  EXPECT_TRUE(bounds.OnMessage(60).ok());
  EXPECT_TRUE(bounds.OnMessage(40).ok());

  EXPECT_EQ(bounds.OnMessage(1), absl::ResourceExhaustedError(
                                     "More than 100 bytes of subscription messages on one stream"));
}

TEST(SubscriptionBoundsTest, OneMessageMayBeTooLarge) {
  SubscriptionBounds bounds(Limits());

  EXPECT_EQ(bounds.OnMessage(101).code(), absl::StatusCode::kResourceExhausted);
}

}  // namespace
}  // namespace varnic
