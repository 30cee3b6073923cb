#include "core/net/event_loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "absl/time/clock.h"
#include "core/net/testing/fake_clock.h"

namespace varnic::net {
namespace {

using ::testing::ElementsAre;

TEST(EventLoopTest, PostedTasksRunInOrderAndNotInsidePost) {
  EventLoop loop;
  std::vector<std::string> events;

  loop.Post([&] {
    loop.Post([&] {
      events.push_back("inner");
      loop.Stop();
    });
    events.push_back("first");
  });
  loop.Post([&] { events.push_back("second"); });
  EXPECT_TRUE(events.empty());
  loop.Run();

  EXPECT_THAT(events, ElementsAre("first", "second", "inner"));
}

TEST(EventLoopTest, TasksFromOtherThreadsAllRunOnTheLoopThreadInTheirOrder) {
  constexpr int kThreads = 4;
  constexpr int kTasks = 1000;
  EventLoop loop;
  std::vector<std::vector<int>> seen(kThreads);
  int left = kThreads * kTasks;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int task = 0; task < kTasks; ++task) {
        loop.Post([&, thread, task] {
          EXPECT_TRUE(loop.IsLoopThread());
          seen[thread].push_back(task);
          if (--left == 0) loop.Stop();
        });
      }
    });
  }

  loop.Run();
  for (std::thread& thread : threads) thread.join();

  for (const std::vector<int>& tasks : seen) {
    ASSERT_EQ(tasks.size(), static_cast<std::size_t>(kTasks));
    for (int task = 0; task < kTasks; ++task) ASSERT_EQ(tasks[task], task);
  }
}

TEST(EventLoopTest, ALoopWithNothingToDoWaitsForAnotherThread) {
  EventLoop loop;
  bool ran = false;
  std::thread poster;
  // Posts only once the loop runs, so that it has to be woken.
  loop.Post([&] { poster = std::thread([&] { loop.Post([&] { ran = true; }); }); });

  EXPECT_TRUE(loop.RunUntil([&] { return ran; }));

  poster.join();
}

TEST(EventLoopTest, ALoopThatRanOutOfWorkRunsAgain) {
  EventLoop loop;
  for (int turn = 0; turn < 3; ++turn) {
    bool ran = false;
    loop.Post([&] { ran = true; });

    EXPECT_TRUE(loop.RunUntil([&] { return ran; })) << turn;
    loop.RunPending();
  }
}

TEST(EventLoopTest, StopComesFromAnyThread) {
  EventLoop loop;
  std::thread stopper([&] { loop.Stop(); });

  loop.Run();

  stopper.join();
}

TEST(EventLoopTest, ALoopThatLooksForWorkBeforeItSleepsRunsTasksAndTimers) {
  EventLoop loop;
  Timer timer(loop);
  std::vector<std::string> events;
  std::thread poster([&] {
    loop.Post([&] {
      events.push_back("task");
      // Longer than it looks, so that it has to be woken.
      timer.Start(absl::Milliseconds(5), [&] {
        events.push_back("timer");
        loop.Stop();
      });
    });
  });

  loop.Run(/*busy_poll=*/absl::Microseconds(50));

  poster.join();
  EXPECT_THAT(events, ElementsAre("task", "timer"));
}

TEST(EventLoopTest, ALoopThatLooksForWorkForEverIsStopped) {
  EventLoop loop;
  std::thread stopper([&] { loop.Stop(); });

  loop.Run(/*busy_poll=*/absl::InfiniteDuration());

  stopper.join();
  EXPECT_TRUE(loop.IsStopped());
}

TEST(EventLoopTest, AStopBeforeRunCountsAndLasts) {
  EventLoop loop;
  bool ran = false;
  loop.Post([&] { ran = true; });

  loop.Stop();
  loop.Run();

  EXPECT_FALSE(loop.RunUntil([&] { return ran; }));
  EXPECT_FALSE(ran);
}

TEST(EventLoopTest, PendingTasksCanBeSettledAfterStopWithoutRevivingTheLoop) {
  EventLoop loop;
  int runs = 0;
  loop.Stop();
  loop.Post([&] { ++runs; });

  loop.RunPending();

  EXPECT_EQ(runs, 1);
  loop.Post([&] { ++runs; });
  loop.Run();  // Returns, because the loop was stopped.
  EXPECT_EQ(runs, 1);
}

TEST(EventLoopTest, RunPendingDoesNotWait) {
  EventLoop loop;
  Timer timer(loop);
  timer.Start(absl::Hours(1), [] { ADD_FAILURE(); });

  loop.RunPending();
}

TEST(EventLoopTest, TasksThatHaveNotRunAreDestroyedUnrun) {
  auto token = std::make_shared<int>();
  {
    EventLoop loop;
    loop.Post([token] { ADD_FAILURE(); });
    EXPECT_EQ(token.use_count(), 2);
  }

  EXPECT_EQ(token.use_count(), 1);
}

TEST(EventLoopTest, TheLoopBelongsToWhoeverRunsIt) {
  EventLoop loop;
  EXPECT_TRUE(loop.IsLoopThread());
  bool foreign = true;
  loop.Post([&] {
    EXPECT_TRUE(loop.IsLoopThread());
    std::thread([&] { foreign = loop.IsLoopThread(); }).join();
    loop.Stop();
  });

  loop.Run();

  EXPECT_FALSE(foreign);
  EXPECT_TRUE(loop.IsLoopThread());
}

TEST(EventLoopDeathTest, RunningALoopInsideItselfIsFatal) {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(
      {
        EventLoop loop;
        loop.Post([&] { loop.Run(); });
        loop.Run();
      },
      "Check failed");
}

class TimerTest : public ::testing::Test {
 protected:
  // Lets every callback that could still come do so: a timer that is due later runs after them.
  void RunUntilIdle() {
    bool idle = false;
    Timer last(loop_);
    last.Start(absl::Milliseconds(5), [&] { idle = true; });
    EXPECT_TRUE(loop_.RunUntil([&] { return idle; }));
  }

  EventLoop loop_;
};

TEST_F(TimerTest, RunsItsCallbackOnceAndNotBeforeItsTime) {
  Timer timer(loop_);
  int runs = 0;
  const absl::Time start = absl::Now();
  timer.Start(absl::Milliseconds(2), [&] { ++runs; });

  EXPECT_TRUE(loop_.RunUntil([&] { return runs > 0; }));

  EXPECT_GE(absl::Now() - start, absl::Milliseconds(1));
  RunUntilIdle();
  EXPECT_EQ(runs, 1);
}

TEST_F(TimerTest, ADelayOfZeroOrLessIsDueAtOnceButNotInsideStart) {
  for (const absl::Duration delay :
       {absl::ZeroDuration(), -absl::Hours(1), -absl::InfiniteDuration()}) {
    Timer timer(loop_);
    bool ran = false;

    timer.Start(delay, [&] { ran = true; });
    EXPECT_FALSE(ran);

    EXPECT_TRUE(loop_.RunUntil([&] { return ran; }));
  }
}

TEST_F(TimerTest, AnEndlessDelayNeverComesDue) {
  Timer timer(loop_);
  timer.Start(absl::InfiniteDuration(), [] { ADD_FAILURE(); });

  RunUntilIdle();
}

TEST_F(TimerTest, ACancelledTimerIsSilent) {
  Timer timer(loop_);
  timer.Start(absl::ZeroDuration(), [] { ADD_FAILURE(); });

  timer.Cancel();
  timer.Cancel();

  RunUntilIdle();
}

TEST_F(TimerTest, ADestroyedTimerIsSilent) {
  auto timer = std::make_unique<Timer>(loop_);
  timer->Start(absl::ZeroDuration(), [] { ADD_FAILURE(); });

  timer = nullptr;

  RunUntilIdle();
}

TEST_F(TimerTest, CancellingWhatIsDueAlreadyKeepsItSilent) {
  // Both are due in the same turn of the loop; the first to run cancels the other.
  Timer first(loop_);
  Timer second(loop_);
  int runs = 0;
  first.Start(absl::ZeroDuration(), [&] {
    ++runs;
    second.Cancel();
  });
  second.Start(absl::ZeroDuration(), [&] {
    ++runs;
    first.Cancel();
  });

  RunUntilIdle();

  EXPECT_EQ(runs, 1);
}

TEST(EventLoopTest, WhatHasNotRunAtItsEndMayOwnTimers) {
  auto loop = std::make_unique<EventLoop>();
  auto of_task = std::make_shared<Timer>(*loop);
  auto of_itself = std::make_shared<Timer>(*loop);
  const std::weak_ptr<Timer> task_timer = of_task;
  const std::weak_ptr<Timer> own_timer = of_itself;
  of_task->Start(absl::Hours(1), [] {});
  of_itself->Start(absl::Hours(1), [timer = of_itself] {});
  loop->Post([timer = std::move(of_task)] {});
  of_itself.reset();

  loop.reset();

  EXPECT_TRUE(task_timer.expired());
  EXPECT_TRUE(own_timer.expired());
}

TEST_F(TimerTest, ATimerThatIsAlwaysLateDoesNotHoldUpAnother) {
  Timer late(loop_);
  int rounds = 0;
  const std::function<void()> again = [&] {
    if (++rounds < 1000) late.Start(-absl::Seconds(1), again);
  };
  again();
  Timer other(loop_);
  bool ran = false;
  other.Start(absl::ZeroDuration(), [&] { ran = true; });

  loop_.RunUntil([&] { return ran; });

  EXPECT_LT(rounds, 1000);
}

TEST_F(TimerTest, ASecondStartReplacesTheFirst) {
  Timer timer(loop_);
  std::vector<std::string> events;
  timer.Start(absl::ZeroDuration(), [&] { events.push_back("first"); });
  timer.Start(absl::Milliseconds(1), [&] { events.push_back("second"); });

  RunUntilIdle();

  EXPECT_THAT(events, ElementsAre("second"));
}

TEST_F(TimerTest, MayBeStartedAgainInsideItsCallback) {
  Timer timer(loop_);
  int runs = 0;
  std::function<void()> tick = [&] {
    if (++runs < 3) timer.Start(absl::ZeroDuration(), tick);
  };
  timer.Start(absl::ZeroDuration(), tick);

  EXPECT_TRUE(loop_.RunUntil([&] { return runs == 3; }));
}

TEST_F(TimerTest, MayBeDestroyedInsideItsCallback) {
  auto timer = std::make_unique<Timer>(loop_);
  const auto token = std::make_shared<std::string>("still there");
  std::string seen;
  timer->Start(absl::ZeroDuration(), [&, token] {
    timer = nullptr;
    seen = *token;
  });

  EXPECT_TRUE(loop_.RunUntil([&] { return timer == nullptr; }));

  EXPECT_EQ(seen, "still there");
}

// A loop whose time the test holds.
class HeldTimeTest : public ::testing::Test {
 protected:
  void Start(Timer& timer, absl::Duration delay, const std::string& name) {
    timer.Start(delay, [this, name] { events_.push_back(name); });
  }

  testing::FakeClock clock_;
  EventLoop loop_;
  std::vector<std::string> events_;
};

TEST_F(HeldTimeTest, TimersRunInTheNextTurnAfterTheirTimeAndNotBefore) {
  Timer hour(loop_);
  Start(hour, absl::Hours(1), "hour");

  clock_.Advance(absl::Hours(1) - absl::Nanoseconds(1));
  EXPECT_EQ(loop_.RunPending(), 0u);
  EXPECT_TRUE(events_.empty());
  clock_.Advance(absl::Nanoseconds(1));
  EXPECT_EQ(loop_.RunPending(), 1u);

  EXPECT_THAT(events_, ElementsAre("hour"));
  EXPECT_EQ(loop_.RunPending(), 0u);
}

TEST_F(HeldTimeTest, TimersThatAreDueRunInTheOrderOfTheirTimes) {
  Timer late(loop_);
  Timer early(loop_);
  Timer later(loop_);
  Start(late, absl::Seconds(2), "late");
  Start(early, absl::Seconds(1), "early");
  Start(later, absl::Seconds(4), "later");

  clock_.Advance(absl::Seconds(3));
  loop_.RunPending();

  EXPECT_THAT(events_, ElementsAre("early", "late"));
}

TEST_F(HeldTimeTest, TimersOfOneTimeRunInTheOrderOfTheirStarts) {
  Timer first(loop_);
  Timer second(loop_);
  Timer third(loop_);
  Start(second, absl::Seconds(1), "replaced");
  Start(first, absl::Seconds(1), "first");
  Start(second, absl::Seconds(1), "second");
  Start(third, absl::Seconds(1), "third");

  clock_.Advance(absl::Seconds(1));
  loop_.RunPending();

  EXPECT_THAT(events_, ElementsAre("first", "second", "third"));
}

TEST_F(HeldTimeTest, ATimerThatStartsItselfAtOnceDoesNotKeepATurnGoing) {
  Timer timer(loop_);
  std::function<void()> again = [&] {
    events_.push_back("again");
    timer.Start(absl::ZeroDuration(), again);
  };
  timer.Start(absl::ZeroDuration(), again);

  loop_.RunPending();

  EXPECT_THAT(events_, ElementsAre("again"));
}

TEST_F(HeldTimeTest, NoTimerRunsAfterOneThatStopsTheLoop) {
  Timer stops(loop_);
  Timer late(loop_);
  stops.Start(absl::Seconds(1), [this] { loop_.Stop(); });
  Start(late, absl::Seconds(2), "late");

  clock_.Advance(absl::Seconds(3));
  loop_.RunPending();
  EXPECT_TRUE(events_.empty());
  loop_.RunPending();

  EXPECT_THAT(events_, ElementsAre("late"));
}

TEST_F(HeldTimeTest, ATimerMayDestroyOthersThatAreDue) {
  auto other = std::make_unique<Timer>(loop_);
  Timer destroys(loop_);
  destroys.Start(absl::Seconds(1), [&] { other = nullptr; });
  Start(*other, absl::Seconds(2), "other");

  clock_.Advance(absl::Seconds(3));
  loop_.RunPending();

  EXPECT_TRUE(events_.empty());
}

TEST_F(HeldTimeTest, ACancelledTimerDoesNotHoldUpALaterOne) {
  Timer early(loop_);
  Timer late(loop_);
  Start(early, absl::Seconds(1), "early");
  Start(late, absl::Seconds(2), "late");
  early.Cancel();

  clock_.Advance(absl::Seconds(1));
  loop_.RunPending();
  EXPECT_TRUE(events_.empty());
  clock_.Advance(absl::Seconds(1));
  loop_.RunPending();

  EXPECT_THAT(events_, ElementsAre("late"));
}

TEST_F(HeldTimeTest, TimerThatIsStartedAgainWaitsForItsTimeAgain) {
  Timer timer(loop_);
  Start(timer, absl::Seconds(10), "first");
  clock_.Advance(absl::Seconds(9));
  loop_.RunPending();

  Start(timer, absl::Seconds(10), "second");
  clock_.Advance(absl::Seconds(9));
  loop_.RunPending();
  EXPECT_TRUE(events_.empty());
  clock_.Advance(absl::Seconds(1));
  loop_.RunPending();

  EXPECT_THAT(events_, ElementsAre("second"));
}

TEST_F(HeldTimeTest, PostedTasksRunWhileTimeStandsStill) {
  loop_.Post([this] {
    events_.push_back("first");
    loop_.Post([this] { events_.push_back("second"); });
  });

  while (loop_.RunPending() > 0) {
  }

  EXPECT_THAT(events_, ElementsAre("first", "second"));
}

TEST_F(HeldTimeTest, TaskThatPostsItselfDoesNotKeepATurnGoing) {
  std::function<void()> again = [&] { loop_.Post(again); };
  loop_.Post(again);

  EXPECT_GT(loop_.RunPending(), 0u);
}

TEST(LoopClockTest, GoesOnWhenNobodyHoldsIt) {
  const LoopClock::time_point before = [] {
    const testing::FakeClock clock;
    return LoopClock::now();
  }();

  EXPECT_FALSE(LoopClock::IsHeld());
  EXPECT_GE(LoopClock::now(), before);
}

TEST(LoopClockTest, IsHeldOnOneThreadOnly) {
  testing::FakeClock clock;
  const LoopClock::time_point before = LoopClock::now();
  clock.Advance(absl::Seconds(3));

  bool held_elsewhere = true;
  std::thread([&] { held_elsewhere = LoopClock::IsHeld(); }).join();

  EXPECT_EQ(LoopClock::Between(before, LoopClock::now()), absl::Seconds(3));
  EXPECT_FALSE(held_elsewhere);
}

TEST(StopSignalsTest, EachSignalIsToldOnTheLoop) {
  EventLoop loop;
  std::vector<int> signals;
  const StopSignals watch(loop, [&](int signal) {
    EXPECT_TRUE(loop.IsLoopThread());
    signals.push_back(signal);
  });

  std::raise(SIGTERM);
  EXPECT_TRUE(loop.RunUntil([&] { return signals.size() == 1; }));
  std::raise(SIGINT);
  EXPECT_TRUE(loop.RunUntil([&] { return signals.size() == 2; }));

  EXPECT_THAT(signals, ElementsAre(SIGTERM, SIGINT));
}

TEST(StopSignalsTest, NothingIsToldAfterItsEnd) {
  EventLoop loop;
  auto watch = std::make_unique<StopSignals>(loop, [](int) { ADD_FAILURE(); });
  std::raise(SIGTERM);

  watch = nullptr;

  loop.RunPending();
}

TEST(StopSignalsDeathTest, TheDefaultActionReturnsWithTheEndOfTheWatch) {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(
      {
        EventLoop loop;
        std::make_unique<StopSignals>(loop, [](int) {});
        std::raise(SIGTERM);
      },
      ::testing::KilledBySignal(SIGTERM), "");
}

TEST(EventLoopTest, RunPendingLeavesATaskThatPostsItselfForLater) {
  EventLoop loop;
  int runs = 0;
  std::function<void()> again = [&] {
    ++runs;
    loop.Post(again);
  };
  loop.Post(again);

  loop.RunPending();

  EXPECT_EQ(runs, 1);
}

TEST(EventLoopTest, RunPendingEndsWithATaskThatStopsTheLoop) {
  EventLoop loop;
  bool ran = false;
  loop.Post([&loop] { loop.Stop(); });
  loop.Post([&ran] { ran = true; });

  loop.RunPending();
  EXPECT_FALSE(ran);

  loop.RunPending();
  EXPECT_TRUE(ran);
}

TEST(DeferredTaskTest, RunsLaterAndOnceForAnyNumberOfPosts) {
  EventLoop loop;
  int runs = 0;
  DeferredTask task(loop, [&] { ++runs; });

  task.Post();
  task.Post();
  EXPECT_EQ(runs, 0);
  loop.RunPending();
  EXPECT_EQ(runs, 1);

  task.Post();
  loop.RunPending();
  EXPECT_EQ(runs, 2);
}

TEST(DeferredTaskTest, ThoseOfOneTurnRunInTheOrderOfTheirPosts) {
  EventLoop loop;
  std::vector<int> runs;
  DeferredTask first(loop, [&] { runs.push_back(1); });
  DeferredTask second(loop, [&] { runs.push_back(2); });
  DeferredTask third(loop, [&] { runs.push_back(3); });

  second.Post();
  third.Post();
  first.Post();
  second.Post();
  loop.RunPending();

  EXPECT_THAT(runs, ElementsAre(2, 3, 1));
}

TEST(DeferredTaskTest, OneThatPostsItselfDoesNotKeepATurnGoing) {
  EventLoop loop;
  int runs = 0;
  DeferredTask* self = nullptr;
  DeferredTask task(loop, [&] {
    ++runs;
    self->Post();
  });
  self = &task;
  task.Post();

  loop.RunPending();
  EXPECT_EQ(runs, 1);

  loop.RunPending();
  EXPECT_EQ(runs, 2);
}

TEST(DeferredTaskTest, ACancelledOneIsSilentUntilItIsPostedAgain) {
  EventLoop loop;
  int runs = 0;
  DeferredTask task(loop, [&] { ++runs; });

  task.Post();
  task.Cancel();
  loop.RunPending();
  EXPECT_EQ(runs, 0);

  task.Post();
  loop.RunPending();
  EXPECT_EQ(runs, 1);
}

TEST(DeferredTaskTest, ATaskMayDestroyItselfAndOthersOfItsTurnAndOfTheNext) {
  EventLoop loop;
  int runs = 0;
  std::unique_ptr<DeferredTask> itself;
  auto of_this_turn = std::make_unique<DeferredTask>(loop, [] { ADD_FAILURE(); });
  auto of_the_next = std::make_unique<DeferredTask>(loop, [] { ADD_FAILURE(); });
  DeferredTask last(loop, [&] { ++runs; });
  itself = std::make_unique<DeferredTask>(loop, [&] {
    ++runs;
    of_the_next->Post();
    of_the_next.reset();
    of_this_turn.reset();
    itself.reset();
  });
  itself->Post();
  of_this_turn->Post();
  last.Post();

  loop.RunPending();
  loop.RunPending();

  EXPECT_EQ(runs, 2);
}

TEST(DeferredTaskTest, AfterOneThatStopsTheLoopTheOthersWaitAndKeepTheirOrder) {
  EventLoop loop;
  std::vector<int> runs;
  DeferredTask later(loop, [&] { runs.push_back(4); });
  DeferredTask first(loop, [&] {
    runs.push_back(1);
    later.Post();
    loop.Stop();
  });
  DeferredTask second(loop, [&] { runs.push_back(2); });
  DeferredTask third(loop, [&] { runs.push_back(3); });
  first.Post();
  second.Post();
  third.Post();

  loop.RunPending();
  EXPECT_THAT(runs, ElementsAre(1));

  loop.RunPending();
  EXPECT_THAT(runs, ElementsAre(1, 2, 3, 4));
}

TEST(DeferredTaskTest, WhatIsPostedAfterAStopRunsWithThoseThatItKeptWaiting) {
  EventLoop loop;
  std::vector<int> runs;
  DeferredTask first(loop, [&] {
    runs.push_back(1);
    loop.Stop();
  });
  DeferredTask second(loop, [&] { runs.push_back(2); });
  DeferredTask third(loop, [&] { runs.push_back(3); });
  first.Post();
  second.Post();
  loop.RunPending();

  third.Post();
  loop.RunPending();

  EXPECT_THAT(runs, ElementsAre(1, 2, 3));
}

TEST(DeferredTaskTest, ThoseThatAStopKeptWaitingMayBeCancelledDestroyedAndPostedAgain) {
  EventLoop loop;
  std::vector<int> runs;
  DeferredTask later(loop, [&] { runs.push_back(5); });
  DeferredTask stops(loop, [&] {
    runs.push_back(1);
    later.Post();
    loop.Stop();
  });
  auto destroyed = std::make_unique<DeferredTask>(loop, [] { ADD_FAILURE(); });
  DeferredTask cancelled(loop, [] { ADD_FAILURE(); });
  DeferredTask again(loop, [&] { runs.push_back(3); });
  DeferredTask waits(loop, [&] { runs.push_back(4); });
  stops.Post();
  destroyed->Post();
  cancelled.Post();
  again.Post();
  waits.Post();
  loop.RunPending();

  destroyed.reset();
  cancelled.Cancel();
  again.Cancel();
  again.Post();
  loop.RunPending();

  EXPECT_THAT(runs, ElementsAre(1, 4, 5, 3));
}

TEST(DeferredTaskTest, WhatHasNotRunAtTheLoopsEndNeverRuns) {
  auto loop = std::make_unique<EventLoop>();
  auto owned = std::make_shared<DeferredTask>(*loop, [] { ADD_FAILURE(); });
  owned->Post();
  const std::weak_ptr<DeferredTask> task = owned;
  loop->Post([owned = std::move(owned)] {});

  loop.reset();

  EXPECT_TRUE(task.expired());
}

}  // namespace
}  // namespace varnic::net
