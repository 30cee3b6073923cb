#include "core/net/edge/frame_guard.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

#include "core/net/testing/raw_http2_peer.h"

namespace varnic::net {
namespace {

using testing::kClientPreface;
using testing::MakeFrame;

constexpr uint8_t kData = 0;
constexpr uint8_t kHeaders = 1;
constexpr uint8_t kResetStream = 3;
constexpr uint8_t kPing = 6;
constexpr uint8_t kContinuation = 9;

constexpr FrameGuard::Time kStart{std::chrono::hours(1)};

// A guard that lets through two of everything.
class FrameGuardTest : public ::testing::Test {
 protected:
  FrameGuardTest() { Send(kClientPreface); }

  static FloodLimits Limits() {
    FloodLimits limits;
    limits.resets = limits.control_frames = limits.empty_frames = {2, 0};
    limits.control_frames_per_exchange = 0;
    limits.continuations = 2;
    limits.unread_answers = 2;
    return limits;
  }

  FrameGuard::Verdict Send(std::string_view bytes) {
    while (const FrameHead* frame = scanner_.Next(bytes)) {
      const auto verdict =
          guard_.OnFrame(*frame, kStart, [this](int32_t id) { return id == answered_; });
      if (verdict.has_value()) return verdict;
    }
    return std::nullopt;
  }

  int32_t answered_ = 0;
  EdgeCounters counters_;
  FrameScanner scanner_;
  FrameGuard guard_{Limits(), /*max_streams=*/0, &counters_};
};

TEST_F(FrameGuardTest, CallsBreakNoRule) {
  for (int32_t id = 1; id < 2000; id += 2) {
    EXPECT_EQ(Send(MakeFrame(kHeaders, 4, id, "x") + MakeFrame(kData, 0, id, "x") +
                   MakeFrame(kData, 1, id, "")),
              std::nullopt);
  }
}

TEST_F(FrameGuardTest, NamesTooManyControlFrames) {
  const std::string ping = MakeFrame(kPing, 0, 0, "12345678");

  EXPECT_EQ(Send(ping + ping), std::nullopt);
  EXPECT_EQ(Send(ping), EdgeRule::kControlFrames);
}

TEST_F(FrameGuardTest, NamesTooManyEmptyFrames) {
  EXPECT_EQ(Send(MakeFrame(kData, 0, 1, "") + MakeFrame(kHeaders, 0, 1, "")), std::nullopt);
  EXPECT_EQ(Send(MakeFrame(kContinuation, 0, 1, "")), EdgeRule::kEmptyFrames);
}

TEST_F(FrameGuardTest, NamesTooManyContinuations) {
  const std::string more = MakeFrame(kContinuation, 0, 1, "x");

  EXPECT_EQ(Send(MakeFrame(kHeaders, 0, 1, "x") + more + more), std::nullopt);
  EXPECT_EQ(Send(more), EdgeRule::kContinuations);
}

TEST_F(FrameGuardTest, TheFirstRuleThatWasBrokenCounts) {
  const std::string ping = MakeFrame(kPing, 0, 0, "12345678");
  const std::string reset = MakeFrame(kResetStream, 0, 1, "1234");

  EXPECT_EQ(Send(reset + reset + ping + reset + ping + ping), EdgeRule::kResets);
}

TEST_F(FrameGuardTest, ResetsCountWhoeverSendsThem) {
  EXPECT_EQ(Send(MakeFrame(kResetStream, 0, 1, "1234")), std::nullopt);
  EXPECT_EQ(guard_.OnResetSent(/*for_fault=*/true, kStart), std::nullopt);
  EXPECT_EQ(guard_.OnResetSent(/*for_fault=*/false, kStart), std::nullopt);

  EXPECT_EQ(guard_.OnResetSent(/*for_fault=*/true, kStart), EdgeRule::kResets);
  EXPECT_EQ(guard_.OnFault(kStart), EdgeRule::kResets);
  EXPECT_EQ(Send(MakeFrame(kResetStream, 0, 3, "1234")), EdgeRule::kResets);
  EXPECT_EQ(counters_.resets_received, 2u);
  EXPECT_EQ(counters_.resets_sent, 3u);
}

TEST_F(FrameGuardTest, AResetAfterTheAnswerIsAControlFrame) {
  const std::string reset = MakeFrame(kResetStream, 0, 7, "1234");
  answered_ = 7;

  EXPECT_EQ(Send(reset + reset), std::nullopt);

  EXPECT_EQ(Send(reset), EdgeRule::kControlFrames);
}

TEST_F(FrameGuardTest, TellsWhenTooManyFramesWait) {
  EXPECT_EQ(guard_.OnWaiting(2), std::nullopt);
  EXPECT_EQ(guard_.OnWaiting(3), EdgeRule::kUnreadAnswers);
}

TEST_F(FrameGuardTest, CountsNowhereWithoutCounters) {
  FrameGuard guard(Limits(), /*max_streams=*/0, /*counters=*/nullptr);

  EXPECT_EQ(guard.OnResetSent(/*for_fault=*/true, kStart), std::nullopt);
}

}  // namespace
}  // namespace varnic::net
