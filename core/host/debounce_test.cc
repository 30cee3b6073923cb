#include "core/host/debounce.h"

#include "core/common/rpc/testing/fake_scheduler.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

constexpr DebounceTimes kTimes{absl::Milliseconds(200), absl::Milliseconds(700)};

class DebounceTest : public ::testing::Test {
 protected:
  void Advance(int milliseconds) { scheduler_.Advance(absl::Milliseconds(milliseconds)); }

  ::varnic::testing::FakeScheduler scheduler_;
  int calls_ = 0;
  Debounce debounce_{scheduler_, kTimes, [this] { ++calls_; }};
};

TEST_F(DebounceTest, BurstBecomesOneCallWhenItIsOver) {
  debounce_.OnChange();
  Advance(199);
  debounce_.OnChange();
  Advance(199);
  EXPECT_EQ(calls_, 0);

  Advance(1);

  EXPECT_EQ(calls_, 1);
  EXPECT_EQ(scheduler_.timers(), 0u);
  Advance(10'000);
  EXPECT_EQ(calls_, 1);
}

TEST_F(DebounceTest, BurstWithoutAnEndIsCutAtItsLongest) {
  for (int i = 0; i < 7; ++i) {
    debounce_.OnChange();
    EXPECT_EQ(calls_, 0);
    Advance(100);
  }

  EXPECT_EQ(calls_, 1);
}

TEST_F(DebounceTest, NextBurstHasItsOwnTime) {
  debounce_.OnChange();
  Advance(200);
  Advance(600);
  debounce_.OnChange();
  Advance(199);
  EXPECT_EQ(calls_, 1);

  Advance(1);

  EXPECT_EQ(calls_, 2);
}

TEST_F(DebounceTest, CallMayBeginTheNextBurst) {
  int calls = 0;
  Debounce debounce(scheduler_, kTimes, [&] {
    if (++calls == 1) debounce.OnChange();
  });
  debounce.OnChange();

  Advance(400);

  EXPECT_EQ(calls, 2);
}

TEST_F(DebounceTest, CancelledBurstIsForgotten) {
  debounce_.OnChange();
  debounce_.Cancel();

  Advance(10'000);

  EXPECT_EQ(calls_, 0);
  EXPECT_EQ(scheduler_.timers(), 0u);
}

TEST_F(DebounceTest, NothingRunsAfterItsEnd) {
  {
    Debounce debounce(scheduler_, kTimes, [this] { ++calls_; });
    debounce.OnChange();
  }

  Advance(10'000);

  EXPECT_EQ(calls_, 0);
}

}  // namespace
}  // namespace varnic::host
