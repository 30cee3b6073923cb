#include "core/net/protocol_guard.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

#include "core/net/testing/raw_http2_peer.h"

namespace varnic::net {
namespace {

using testing::kClientPreface;
using testing::MakeFrame;

constexpr uint8_t kEndStream = 0x1;

std::string Data(int32_t stream_id, uint8_t flags = 0) {
  return MakeFrame(0, flags, stream_id, "x");
}
std::string Headers(int32_t stream_id, uint8_t flags = 0) {
  return MakeFrame(1, flags, stream_id, "y");
}
std::string Reset(int32_t stream_id) {
  return MakeFrame(3, 0, stream_id, std::string(4, '\0'));
}

std::optional<ProtocolFault> FindFault(const std::string& frames) {
  FrameScanner scanner;
  ProtocolGuard guard;
  const std::string bytes = std::string(kClientPreface) + frames;
  std::string_view rest = bytes;
  while (const FrameHead* frame = scanner.Next(rest)) {
    if (const auto fault = guard.OnFrame(*frame)) return fault;
  }
  return std::nullopt;
}

TEST(ProtocolGuardTest, StreamsGoOnUntilTheClientEndsThem) {
  EXPECT_EQ(FindFault(Headers(1) + Headers(3) + Data(1) + Data(3) + Data(1, kEndStream) +
                      Headers(3, kEndStream) + Headers(5, kEndStream) + Headers(7) + Reset(7)),
            std::nullopt);
}

TEST(ProtocolGuardTest, DataAfterTheEndOfTheStreamIsAFault) {
  EXPECT_EQ(FindFault(Headers(1) + Data(1, kEndStream) + Data(1)), ProtocolFault::kStreamEnded);
  EXPECT_EQ(FindFault(Headers(1, kEndStream) + Data(1)), ProtocolFault::kStreamEnded);
  EXPECT_EQ(FindFault(Headers(1) + Reset(1) + Data(1)), ProtocolFault::kStreamEnded);
}

TEST(ProtocolGuardTest, HeadersAfterTheEndOfTheStreamAreAFault) {
  EXPECT_EQ(FindFault(Headers(1) + Data(1, kEndStream) + Headers(1)), ProtocolFault::kStreamEnded);
  EXPECT_EQ(FindFault(Headers(1) + Reset(1) + Headers(1)), ProtocolFault::kStreamEnded);
}

TEST(ProtocolGuardTest, AStreamThatWasLeftOutCannotBeOpened) {
  EXPECT_EQ(FindFault(Headers(5) + Headers(3)), ProtocolFault::kStreamLeftOut);
  EXPECT_EQ(FindFault(Headers(5) + Data(3)), ProtocolFault::kStreamEnded);
}

TEST(ProtocolGuardTest, ResetsOfStreamsThatAreGoneAreNoFault) {
  EXPECT_EQ(FindFault(Headers(3, kEndStream) + Reset(3) + Reset(3) + Reset(1)), std::nullopt);
}

TEST(ProtocolGuardTest, AContinuationLargerThanAnyFrameIsAFault) {
  const std::string largest(1 << 14, 'z');

  EXPECT_EQ(FindFault(Headers(1) + MakeFrame(9, 0, 1, largest)), std::nullopt);
  EXPECT_EQ(FindFault(Headers(1) + MakeFrame(9, 0, 1, largest + "z")),
            ProtocolFault::kFrameTooLarge);
}

}  // namespace
}  // namespace varnic::net
