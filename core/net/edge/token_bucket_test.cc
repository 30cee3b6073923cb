#include "core/net/edge/token_bucket.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>

namespace varnic::net {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr TokenBucket::Time kStart{hours(1000)};

// How many single tokens there are at once.
int Drain(TokenBucket& bucket, TokenBucket::Time now) {
  int count = 0;
  while (bucket.Take(1, now)) ++count;
  return count;
}

TEST(TokenBucketTest, IsFullAtFirstAndHoldsTheBurst) {
  TokenBucket bucket({20, 5});

  EXPECT_EQ(Drain(bucket, kStart), 20);
}

TEST(TokenBucketTest, FillsAtItsRate) {
  TokenBucket bucket({20, 5});
  Drain(bucket, kStart);

  EXPECT_FALSE(bucket.Take(1, kStart + milliseconds(200) - nanoseconds(1)));
  EXPECT_TRUE(bucket.Take(1, kStart + milliseconds(200)));
  EXPECT_EQ(Drain(bucket, kStart + milliseconds(1200)), 5);
}

TEST(TokenBucketTest, NeverHoldsMoreThanTheBurst) {
  TokenBucket bucket({20, 5});
  Drain(bucket, kStart);

  EXPECT_EQ(Drain(bucket, kStart + hours(1'000'000)), 20);
}

TEST(TokenBucketTest, FractionsOfATokenAreNotLost) {
  TokenBucket bucket({1, 3});
  ASSERT_TRUE(bucket.Take(1, kStart));

  int taken = 0;
  for (int i = 1; i <= 10'000; ++i) taken += bucket.Take(1, kStart + milliseconds(i));

  EXPECT_EQ(taken, 29);  // 30 would need the last third of a millisecond.
}

TEST(TokenBucketTest, WhatIsNotThereIsNotTaken) {
  TokenBucket bucket({20, 5});

  EXPECT_FALSE(bucket.Take(21, kStart));

  EXPECT_TRUE(bucket.Take(20, kStart));
}

TEST(TokenBucketTest, WithoutARateTheBurstIsAll) {
  TokenBucket bucket({3, 0});
  Drain(bucket, kStart);

  EXPECT_FALSE(bucket.Take(1, kStart + hours(1)));
}

TEST(TokenBucketTest, WithoutABurstNothingIsAllowed) {
  TokenBucket bucket({0, 1000});

  EXPECT_FALSE(bucket.Take(1, kStart));
  EXPECT_FALSE(bucket.Take(1, kStart + hours(1)));
}

TEST(TokenBucketTest, AnEarlierTimeBringsNothing) {
  TokenBucket bucket({20, 5});
  Drain(bucket, kStart);

  EXPECT_FALSE(bucket.Take(1, kStart - hours(1)));
  EXPECT_EQ(Drain(bucket, kStart + seconds(1)), 5);
}

TEST(TokenBucketTest, TheLargestRateOverTheLongestTimeOverflowsNothing) {
  constexpr uint32_t kMost = std::numeric_limits<uint32_t>::max();
  TokenBucket bucket({kMost, kMost});
  ASSERT_TRUE(bucket.Take(kMost, TokenBucket::Time::min()));

  EXPECT_TRUE(bucket.Take(kMost, TokenBucket::Time::max()));
  EXPECT_FALSE(bucket.Take(1, TokenBucket::Time::max()));
}

}  // namespace
}  // namespace varnic::net
