#include "core/net/edge/control_frame_rule.h"

#include <gtest/gtest.h>

#include <chrono>

namespace varnic::net {
namespace {

constexpr TokenBucket::Time kStart{std::chrono::hours(1)};

FrameHead Frame(FrameType type, uint32_t payload_bytes = 8) {
  FrameHead frame;
  frame.type = type;
  frame.payload_bytes = payload_bytes;
  return frame;
}

// How many of these frames are let through at once.
uint32_t Count(ControlFrameRule& rule, const FrameHead& frame) {
  uint32_t count = 0;
  while (rule.OnFrame(frame, kStart)) ++count;
  return count;
}

FloodLimits SmallLimits() {
  FloodLimits limits;
  limits.control_frames = {50, 5};
  limits.control_frames_per_exchange = 3;
  return limits;
}

TEST(ControlFrameRuleTest, AllFramesWithoutACallCountTogether) {
  ControlFrameRule rule(SmallLimits());
  const FrameType unknown = FrameType{200};

  for (int i = 0; i < 10; ++i) {
    for (const FrameType type : {FrameType::kPing, FrameType::kPriority, FrameType::kWindowUpdate,
                                 FrameType::kGoaway, unknown}) {
      EXPECT_TRUE(rule.OnFrame(Frame(type), kStart));
    }
  }

  EXPECT_FALSE(rule.OnFrame(Frame(FrameType::kPing), kStart));
  EXPECT_FALSE(rule.OnFrame(Frame(unknown), kStart));
  EXPECT_TRUE(rule.OnFrame(Frame(FrameType::kPing), kStart + std::chrono::milliseconds(200)));
}

TEST(ControlFrameRuleTest, StreamsAndDataPayForFrames) {
  ControlFrameRule rule(SmallLimits());

  for (int i = 0; i < 100; ++i) rule.OnExchange();

  EXPECT_EQ(Count(rule, Frame(FrameType::kWindowUpdate)), 350u);
}

TEST(ControlFrameRuleTest, WhatWasPaidForIsNotSavedUpForEver) {
  ControlFrameRule rule(SmallLimits());

  for (int i = 0; i < 100'000; ++i) rule.OnExchange();

  EXPECT_EQ(Count(rule, Frame(FrameType::kPing)), ControlFrameRule::kMaxPaid + 50);
}

TEST(ControlFrameRuleTest, AReaderThatPingsAndOpensItsWindowsAtEveryFrameIsNeverStopped) {
  ControlFrameRule rule{FloodLimits()};

  for (int i = 0; i < 100'000; ++i) {
    rule.OnExchange();
    ASSERT_TRUE(rule.OnFrame(Frame(FrameType::kPing), kStart));
    ASSERT_TRUE(rule.OnFrame(Frame(FrameType::kWindowUpdate), kStart));
    ASSERT_TRUE(rule.OnFrame(Frame(FrameType::kWindowUpdate), kStart));
  }
}

TEST(ControlFrameRuleTest, EachSettingCounts) {
  ControlFrameRule rule(SmallLimits());

  EXPECT_EQ(Count(rule, Frame(FrameType::kSettings, /*payload_bytes=*/4 * 6)), 10u);
}

TEST(ControlFrameRuleTest, OneFrameMayHaveSoManySettings) {
  FloodLimits limits = SmallLimits();
  limits.settings_entries = 5;
  ControlFrameRule rule(limits);

  EXPECT_TRUE(rule.OnFrame(Frame(FrameType::kSettings, 5 * 6), kStart));
  EXPECT_FALSE(rule.OnFrame(Frame(FrameType::kSettings, 6 * 6), kStart));
}

TEST(ControlFrameRuleTest, NothingPaysForSettings) {
  ControlFrameRule rule(SmallLimits());

  for (int i = 0; i < 100; ++i) rule.OnExchange();

  EXPECT_EQ(Count(rule, Frame(FrameType::kSettings, /*payload_bytes=*/0)), 50u);
  EXPECT_EQ(Count(rule, Frame(FrameType::kPing)), 300u);
}

}  // namespace
}  // namespace varnic::net
