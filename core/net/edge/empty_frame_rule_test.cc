#include "core/net/edge/empty_frame_rule.h"

#include <gtest/gtest.h>

#include <chrono>

namespace varnic::net {
namespace {

constexpr TokenBucket::Time kStart{std::chrono::hours(1)};
constexpr int kMany = 10'000;

FrameHead Frame(FrameType type, uint8_t flags, uint32_t content_bytes) {
  FrameHead frame;
  frame.type = type;
  frame.flags = flags;
  frame.content_bytes = content_bytes;
  return frame;
}

// How many of these frames are let through at once; no more than kMany are tried.
int Count(const FrameHead& frame) {
  FloodLimits limits;
  limits.empty_frames = {5, 1};
  EmptyFrameRule rule(limits);
  int count = 0;
  while (count < kMany && rule.OnFrame(frame, kStart)) ++count;
  return count;
}

TEST(EmptyFrameRuleTest, FramesThatBringNothingAndEndNothingCount) {
  EXPECT_EQ(Count(Frame(FrameType::kData, 0, 0)), 5);
  EXPECT_EQ(Count(Frame(FrameType::kHeaders, 0, 0)), 5);
  EXPECT_EQ(Count(Frame(FrameType::kContinuation, 0, 0)), 5);
}

TEST(EmptyFrameRuleTest, PaddingIsNoContent) {
  FrameHead padded = Frame(FrameType::kData, FrameHead::kPadded, 0);
  padded.payload_bytes = 200;

  EXPECT_EQ(Count(padded), 5);
}

TEST(EmptyFrameRuleTest, FramesThatBringAByteDoNotCount) {
  EXPECT_EQ(Count(Frame(FrameType::kData, 0, 1)), kMany);
  EXPECT_EQ(Count(Frame(FrameType::kHeaders, 0, 1)), kMany);
  EXPECT_EQ(Count(Frame(FrameType::kContinuation, 0, 1)), kMany);
}

TEST(EmptyFrameRuleTest, AnEmptyEndDoesNotCount) {
  EXPECT_EQ(Count(Frame(FrameType::kData, FrameHead::kEndStream, 0)), kMany);
  EXPECT_EQ(Count(Frame(FrameType::kHeaders, FrameHead::kEndHeaders, 0)), kMany);
  EXPECT_EQ(Count(Frame(FrameType::kContinuation, FrameHead::kEndHeaders, 0)), kMany);
}

TEST(EmptyFrameRuleTest, EmptyFramesMayComeAtTheRateForEver) {
  const FloodLimits limits;
  EmptyFrameRule rule(limits);

  for (uint32_t i = 0; i < 1000; ++i) {
    const auto now = kStart + std::chrono::seconds(1) * i / limits.empty_frames.per_second;
    ASSERT_TRUE(rule.OnFrame(Frame(FrameType::kData, 0, 0), now)) << i;
  }
}

}  // namespace
}  // namespace varnic::net
