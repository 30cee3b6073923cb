#include "core/net/client_frames.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "core/net/testing/raw_http2_peer.h"

namespace varnic::net {
namespace {

using testing::kClientPreface;
using testing::MakeFrame;

constexpr uint8_t kEndStream = 0x1;
constexpr FrameGuard::Time kStart{std::chrono::hours(1)};

std::string Data(int32_t stream_id) {
  return MakeFrame(0, 0, stream_id, "x");
}
std::string Headers(int32_t stream_id, uint8_t flags = 0) {
  return MakeFrame(1, flags, stream_id, "y");
}
std::string Ping() {
  return MakeFrame(6, 0, 0, "12345678");
}

// Lets through two control frames, for which calls do not pay.
class ClientFramesTest : public ::testing::Test {
 protected:
  static FloodLimits Limits() {
    FloodLimits limits;
    limits.control_frames = {2, 0};
    limits.control_frames_per_exchange = 0;
    return limits;
  }

  static ClientFrames::Findings Inspect(ClientFrames& frames, std::string_view bytes) {
    return frames.Inspect(bytes, kStart, [](int32_t /*id*/) { return false; });
  }

  ClientFrames frames_{Limits(), /*max_streams=*/0, /*counters=*/nullptr};
};

TEST_F(ClientFramesTest, CallsAreSoundToTheLastByte) {
  const std::string bytes = std::string(kClientPreface) + Headers(1) + Data(1);

  const auto findings = Inspect(frames_, bytes);

  EXPECT_EQ(findings.sound_bytes, bytes.size());
  EXPECT_EQ(findings.fault, std::nullopt);
  EXPECT_EQ(findings.broken_rule, std::nullopt);
}

TEST_F(ClientFramesTest, EverythingBeforeTheFaultyFrameIsSound) {
  const std::string sound = std::string(kClientPreface) + Headers(1, kEndStream);

  const auto findings = Inspect(frames_, sound + Data(1) + Headers(3));

  EXPECT_EQ(findings.fault, ProtocolFault::kStreamEnded);
  EXPECT_GE(findings.sound_bytes, sound.size());
  EXPECT_LT(findings.sound_bytes, sound.size() + 9);
}

TEST_F(ClientFramesTest, TheSameFaultIsFoundInInputOfAnyPieceSize) {
  const std::string bytes = std::string(kClientPreface) + Headers(1, kEndStream) + Data(1);
  for (std::size_t piece_size = 1; piece_size <= bytes.size(); ++piece_size) {
    ClientFrames frames(Limits(), 0, nullptr);
    std::optional<ProtocolFault> fault;

    for (std::size_t at = 0; at < bytes.size() && !fault.has_value(); at += piece_size) {
      fault = Inspect(frames, std::string_view(bytes).substr(at, piece_size)).fault;
    }

    EXPECT_EQ(fault, ProtocolFault::kStreamEnded) << piece_size;
  }
}

TEST_F(ClientFramesTest, AFloodIsFoundInInputOfAnyPieceSize) {
  const std::string bytes = std::string(kClientPreface) + Ping() + Headers(1) + Ping() + Ping();
  for (std::size_t piece_size = 1; piece_size <= bytes.size(); ++piece_size) {
    ClientFrames frames(Limits(), 0, nullptr);
    std::optional<EdgeRule> rule;

    for (std::size_t at = 0; at < bytes.size() && !rule.has_value(); at += piece_size) {
      rule = Inspect(frames, std::string_view(bytes).substr(at, piece_size)).broken_rule;
    }

    EXPECT_EQ(rule, EdgeRule::kControlFrames) << piece_size;
  }
}

TEST_F(ClientFramesTest, AFloodBehindAFaultIsAFlood) {
  const std::string fault = std::string(kClientPreface) + Headers(1, kEndStream) + Data(1);

  EXPECT_EQ(Inspect(frames_, fault + Ping() + Ping() + Ping()).broken_rule,
            EdgeRule::kControlFrames);
}

}  // namespace
}  // namespace varnic::net
