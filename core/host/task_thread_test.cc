#include "core/host/task_thread.h"

#include <pthread.h>
#include <signal.h>

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/host/testing/post_queue.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::ElementsAre;
using testing::PostQueue;

TEST(TaskThreadTest, WorksOnItsOwnThreadAndAnswersOnTheOwners) {
  PostQueue queue;
  TaskThread tasks(queue.AsPost());
  std::thread::id answered_on;
  std::thread::id worked_on;

  tasks.Run([] { return std::this_thread::get_id(); },
            [&](std::thread::id id) {
              worked_on = id;
              answered_on = std::this_thread::get_id();
            });
  queue.RunNext();

  EXPECT_NE(worked_on, std::this_thread::get_id());
  EXPECT_NE(worked_on, std::thread::id());
  EXPECT_EQ(answered_on, std::this_thread::get_id());
}

TEST(TaskThreadTest, RunsTasksInTheOrderGiven) {
  PostQueue queue;
  std::vector<int> order;
  TaskThread tasks(queue.AsPost());

  for (int i = 0; i < 4; ++i) {
    tasks.Run([i] { return i; }, [&order](int number) { order.push_back(number); });
  }
  for (int i = 0; i < 4; ++i) queue.RunNext();

  EXPECT_THAT(order, ElementsAre(0, 1, 2, 3));
}

TEST(TaskThreadTest, FinishesWhatIsQueuedBeforeItEnds) {
  PostQueue queue;
  std::vector<int> results;
  {
    TaskThread tasks(queue.AsPost());
    std::promise<void> gate;
    tasks.Run(
        [opened = std::make_shared<std::future<void>>(gate.get_future())] {
          opened->wait();
          return 1;
        },
        [&results](int result) { results.push_back(result); });
    tasks.Run([] { return 2; }, [&results](int result) { results.push_back(result); });
    EXPECT_EQ(queue.size(), 0u);
    gate.set_value();
  }

  EXPECT_EQ(queue.size(), 2u);
  queue.RunNext();
  queue.RunNext();
  EXPECT_THAT(results, ElementsAre(1, 2));
}

TEST(TaskThreadTest, EndsWithoutHavingHadATask) {
  PostQueue queue;

  { const TaskThread tasks(queue.AsPost()); }

  EXPECT_EQ(queue.size(), 0u);
}

TEST(TaskThreadTest, LeavesSignalsToOtherThreads) {
  PostQueue queue;
  TaskThread tasks(queue.AsPost());
  bool blocks_signals = false;

  tasks.Run(
      [] {
        sigset_t mask;
        return ::pthread_sigmask(SIG_SETMASK, nullptr, &mask) == 0 &&
               ::sigismember(&mask, SIGTERM) == 1 && ::sigismember(&mask, SIGINT) == 1;
      },
      [&](bool result) { blocks_signals = result; });
  queue.RunNext();

  EXPECT_TRUE(blocks_signals);
  sigset_t own;
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &own), 0);
  EXPECT_EQ(::sigismember(&own, SIGTERM), 0);
}

}  // namespace
}  // namespace varnic::host
