#include "core/common/rpc/testing/fake_scheduler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace varnic::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class FakeSchedulerTest : public ::testing::Test {
 protected:
  std::function<void()> Note(const std::string& text) {
    return [this, text] { notes_.push_back(text); };
  }

  std::vector<std::string> notes_;
  FakeScheduler scheduler_;
};

TEST_F(FakeSchedulerTest, RunsPostedTasksInOrderAndOnlyWhenTold) {
  scheduler_.Post(Note("first"));
  scheduler_.Post(Note("second"));
  EXPECT_THAT(notes_, IsEmpty());
  EXPECT_EQ(scheduler_.posted_tasks(), 2u);

  scheduler_.RunPosted();

  EXPECT_THAT(notes_, ElementsAre("first", "second"));
  EXPECT_EQ(scheduler_.posted_tasks(), 0u);
}

TEST_F(FakeSchedulerTest, RunsWhatATaskPosts) {
  scheduler_.Post([this] { scheduler_.Post(Note("later")); });

  scheduler_.RunPosted();

  EXPECT_THAT(notes_, ElementsAre("later"));
}

TEST_F(FakeSchedulerTest, RunsATimerOnceWhenItsTimeHasCome) {
  const auto timer = scheduler_.RunAfter(absl::Seconds(10), Note("due"));

  scheduler_.Advance(absl::Seconds(9));
  EXPECT_THAT(notes_, IsEmpty());
  scheduler_.Advance(absl::Seconds(1));
  scheduler_.Advance(absl::Hours(1));

  EXPECT_THAT(notes_, ElementsAre("due"));
  EXPECT_EQ(scheduler_.timers(), 0u);
}

TEST_F(FakeSchedulerTest, RunsTimersInTheOrderOfTheirTimesAndThenOfTheirMaking) {
  const auto late = scheduler_.RunAfter(absl::Seconds(2), Note("late"));
  const auto early = scheduler_.RunAfter(absl::Seconds(1), Note("early"));
  const auto early_too = scheduler_.RunAfter(absl::Seconds(1), Note("early too"));

  scheduler_.Advance(absl::Seconds(5));

  EXPECT_THAT(notes_, ElementsAre("early", "early too", "late"));
}

TEST_F(FakeSchedulerTest, RunsWhatATimerPostsBeforeTheNextTimer) {
  const auto first = scheduler_.RunAfter(absl::Seconds(1), [this] {
    Note("first")();
    scheduler_.Post(Note("posted"));
  });
  const auto second = scheduler_.RunAfter(absl::Seconds(2), Note("second"));

  scheduler_.Advance(absl::Seconds(2));

  EXPECT_THAT(notes_, ElementsAre("first", "posted", "second"));
}

TEST_F(FakeSchedulerTest, MeasuresATimersDelayFromTheTimeOfTheTaskThatMadeIt) {
  std::unique_ptr<Scheduler::Timer> second;
  const auto first = scheduler_.RunAfter(
      absl::Seconds(1), [&] { second = scheduler_.RunAfter(absl::Seconds(1), Note("second")); });

  scheduler_.Advance(absl::Milliseconds(1999));
  EXPECT_THAT(notes_, IsEmpty());
  scheduler_.Advance(absl::Milliseconds(1));

  EXPECT_THAT(notes_, ElementsAre("second"));
}

TEST_F(FakeSchedulerTest, ANegativeDelayRunsAtTheNextAdvance) {
  const auto timer = scheduler_.RunAfter(absl::Seconds(-1), Note("due"));
  EXPECT_THAT(notes_, IsEmpty());

  scheduler_.Advance(absl::ZeroDuration());

  EXPECT_THAT(notes_, ElementsAre("due"));
}

TEST_F(FakeSchedulerTest, DestroyingATimerCancelsIt) {
  auto timer = scheduler_.RunAfter(absl::Seconds(1), Note("never"));

  timer.reset();
  scheduler_.Advance(absl::Hours(1));

  EXPECT_THAT(notes_, IsEmpty());
  EXPECT_EQ(scheduler_.timers(), 0u);
}

TEST_F(FakeSchedulerTest, ATimerMayBeDestroyedInItsOwnTask) {
  std::unique_ptr<Scheduler::Timer> timer;
  timer = scheduler_.RunAfter(absl::Seconds(1), [&, text = std::string(100, 'x')] {
    timer.reset();
    notes_.push_back(text);
  });

  scheduler_.Advance(absl::Seconds(1));

  EXPECT_THAT(notes_, ElementsAre(std::string(100, 'x')));
}

TEST_F(FakeSchedulerTest, ATimerMayCancelAnotherOfTheSameTime) {
  std::unique_ptr<Scheduler::Timer> other;
  const auto timer = scheduler_.RunAfter(absl::Seconds(1), [&] { other.reset(); });
  other = scheduler_.RunAfter(absl::Seconds(1), Note("never"));

  scheduler_.Advance(absl::Seconds(1));

  EXPECT_THAT(notes_, IsEmpty());
}

TEST_F(FakeSchedulerTest, DestroysUnrunWhatIsLeft) {
  const auto held = std::make_shared<int>(0);
  std::optional<FakeScheduler> scheduler(std::in_place);
  scheduler->Post([held] { FAIL(); });

  scheduler.reset();

  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace varnic::testing
