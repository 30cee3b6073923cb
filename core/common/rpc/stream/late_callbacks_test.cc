#include "core/common/rpc/stream/late_callbacks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "core/common/rpc/testing/fake_scheduler.h"

namespace varnic {
namespace {

using ::testing::ElementsAre;
using testing::FakeScheduler;
using ::testing::IsEmpty;

TEST(LateCallbacksTest, RunInOrderThroughTheScheduler) {
  FakeScheduler scheduler;
  LateCallbacks callbacks(scheduler);
  std::vector<int> ran;
  callbacks.Add([&] { ran.push_back(1); });
  callbacks.Add([&] { ran.push_back(2); });
  EXPECT_EQ(scheduler.posted_tasks(), 1u);
  EXPECT_THAT(ran, IsEmpty());

  scheduler.RunPosted();

  EXPECT_THAT(ran, ElementsAre(1, 2));
}

TEST(LateCallbacksTest, WhatACallbackAddsWaitsForTheNextTurn) {
  FakeScheduler scheduler;
  LateCallbacks callbacks(scheduler);
  std::vector<int> ran;
  callbacks.Add([&] {
    callbacks.Add([&] { ran.push_back(2); });
    scheduler.Post([&] { ran.push_back(3); });
    ran.push_back(1);
  });

  scheduler.RunPosted();

  EXPECT_THAT(ran, ElementsAre(1, 2, 3));
}

TEST(LateCallbacksTest, MayBeRunAtOnceAndThenDoNotRunAgain) {
  FakeScheduler scheduler;
  LateCallbacks callbacks(scheduler);
  std::vector<int> ran;
  callbacks.Add([&] {
    ran.push_back(1);
    callbacks.Add([&] { ran.push_back(2); });
  });

  callbacks.RunAll();
  scheduler.RunPosted();

  EXPECT_THAT(ran, ElementsAre(1, 2));
}

TEST(LateCallbacksTest, ACallbackMayDestroyThemAll) {
  FakeScheduler scheduler;
  std::optional<LateCallbacks> callbacks(std::in_place, scheduler);
  int ran = 0;
  callbacks->Add([&] {
    ++ran;
    callbacks.reset();
  });
  callbacks->Add([&] { ++ran; });

  scheduler.RunPosted();

  EXPECT_EQ(ran, 1);
}

}  // namespace
}  // namespace varnic
