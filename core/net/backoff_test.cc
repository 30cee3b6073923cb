#include "core/net/backoff.h"

#include <gtest/gtest.h>

#include <vector>

namespace varnic::net {
namespace {

std::vector<absl::Duration> Delays(Backoff& backoff, int count) {
  std::vector<absl::Duration> delays;
  for (int i = 0; i < count; ++i) delays.push_back(backoff.Next());
  return delays;
}

BackoffOptions WithoutJitter() {
  BackoffOptions options;
  options.jitter = 0;
  return options;
}

TEST(BackoffTest, FiguresAreThoseOfGrpc) {
  const BackoffOptions options;

  EXPECT_EQ(options.initial, absl::Seconds(1));
  EXPECT_EQ(options.multiplier, 1.6);
  EXPECT_EQ(options.jitter, 0.2);
  EXPECT_EQ(options.max, absl::Seconds(120));
}

TEST(BackoffTest, DelaysGrowUpToTheLongest) {
  Backoff backoff(WithoutJitter());

  double expected = 1;
  for (int i = 0; i < 11; ++i) {
    EXPECT_NEAR(absl::ToDoubleSeconds(backoff.Next()), expected, 1e-6) << i;
    expected *= 1.6;
  }
  EXPECT_EQ(Delays(backoff, 3), std::vector<absl::Duration>(3, absl::Seconds(120)));
}

TEST(BackoffTest, ResetBeginsAnew) {
  Backoff backoff(WithoutJitter());
  Delays(backoff, 5);

  backoff.Reset();

  EXPECT_EQ(backoff.Next(), absl::Seconds(1));
  EXPECT_EQ(backoff.Next(), absl::Seconds(1.6));
}

TEST(BackoffTest, JitterGoesAFifthBothWays) {
  Backoff backoff{BackoffOptions()};
  bool shorter = false;
  bool longer = false;
  for (int i = 0; i < 1000; ++i) {
    const absl::Duration delay = backoff.Next();
    backoff.Reset();

    EXPECT_GE(delay, absl::Seconds(0.8));
    EXPECT_LE(delay, absl::Seconds(1.2));
    shorter = shorter || delay < absl::Seconds(0.85);
    longer = longer || delay > absl::Seconds(1.15);
  }
  EXPECT_TRUE(shorter);
  EXPECT_TRUE(longer);
}

TEST(BackoffTest, TwoOfThemDoNotGoInStep) {
  Backoff one{BackoffOptions()};
  Backoff other{BackoffOptions()};

  EXPECT_NE(Delays(one, 5), Delays(other, 5));
}

TEST(BackoffTest, OptionsThatMakeNoSenseDoNotSpin) {
  BackoffOptions options;
  options.initial = absl::Seconds(-1);
  options.multiplier = 0;
  options.jitter = 7;
  options.max = absl::ZeroDuration();
  Backoff backoff(options);

  for (const absl::Duration delay : Delays(backoff, 100)) {
    EXPECT_GE(delay, absl::Milliseconds(1));
    EXPECT_LE(delay, absl::Milliseconds(2));
  }
}

}  // namespace
}  // namespace varnic::net
