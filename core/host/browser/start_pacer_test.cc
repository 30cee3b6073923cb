#include "core/host/browser/start_pacer.h"

#include <vector>

#include "core/net/testing/fake_clock.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::ElementsAre;

constexpr absl::Duration kZero = absl::ZeroDuration();

class StartPacerTest : public ::testing::Test {
 protected:
  // A browser that comes up at once, and ends after `life`.
  absl::Duration DelayAfterLife(absl::Duration life) {
    pacer_.OnStart();
    pacer_.OnUp();
    clock_.Advance(life);
    pacer_.OnFailure();
    return pacer_.UntilNext();
  }

  net::testing::FakeClock clock_;
  StartPacer pacer_{{absl::Seconds(1), absl::Seconds(10), absl::Minutes(1)}};
};

TEST_F(StartPacerTest, FirstStartIsAtOnce) {
  EXPECT_EQ(pacer_.UntilNext(), kZero);
}

TEST_F(StartPacerTest, DelaysDoubleUpToTheLongest) {
  std::vector<absl::Duration> delays;
  for (int i = 0; i < 6; ++i) {
    pacer_.OnStart();
    pacer_.OnFailure();
    delays.push_back(pacer_.UntilNext());
  }

  EXPECT_THAT(delays, ElementsAre(absl::Seconds(1), absl::Seconds(2), absl::Seconds(4),
                                  absl::Seconds(8), absl::Seconds(10), absl::Seconds(10)));
}

TEST_F(StartPacerTest, NoDelayStaysNone) {
  StartPacer pacer({kZero, absl::Seconds(10), absl::Minutes(1)});
  for (int i = 0; i < 2; ++i) {
    pacer.OnStart();
    pacer.OnFailure();

    EXPECT_EQ(pacer.UntilNext(), kZero);
  }
}

TEST_F(StartPacerTest, DelayCountsFromTheStart) {
  EXPECT_EQ(DelayAfterLife(absl::Milliseconds(300)), absl::Milliseconds(700));

  clock_.Advance(absl::Milliseconds(700));

  EXPECT_EQ(pacer_.UntilNext(), kZero);
}

TEST_F(StartPacerTest, BrowserThatLivedLongerThanTheDelayIsStartedAtOnce) {
  EXPECT_EQ(DelayAfterLife(absl::Seconds(2)), kZero);
}

TEST_F(StartPacerTest, BrowserThatKeepsCrashingWaitsLongerThoughItComesUp) {
  EXPECT_EQ(DelayAfterLife(kZero), absl::Seconds(1));
  EXPECT_EQ(DelayAfterLife(kZero), absl::Seconds(2));
  EXPECT_EQ(DelayAfterLife(kZero), absl::Seconds(4));
}

TEST_F(StartPacerTest, SteadyBrowserBeginsTheDelaysAnew) {
  for (int i = 0; i < 5; ++i) DelayAfterLife(kZero);

  EXPECT_EQ(DelayAfterLife(absl::Minutes(1)), kZero);

  EXPECT_EQ(DelayAfterLife(kZero), absl::Seconds(2));
}

TEST_F(StartPacerTest, NextAfterOneThatWasEndedIsAtOnce) {
  DelayAfterLife(kZero);

  pacer_.OnStart();
  pacer_.OnUp();
  pacer_.OnEnd();

  EXPECT_EQ(pacer_.UntilNext(), kZero);
}

TEST_F(StartPacerTest, ManyFailuresDoNotOverflow) {
  for (int i = 0; i < 10'000; ++i) {
    pacer_.OnStart();
    pacer_.OnFailure();
  }

  EXPECT_EQ(pacer_.UntilNext(), absl::Seconds(10));
}

}  // namespace
}  // namespace varnic::host
