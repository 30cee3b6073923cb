#include "core/net/edge/frame_scanner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/net/testing/raw_http2_peer.h"

namespace varnic::net {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::kClientPreface;
using testing::MakeFrame;

constexpr uint8_t kData = 0;
constexpr uint8_t kHeaders = 1;
constexpr uint8_t kPing = 6;

// "type flags stream payload content" of each frame that is found.
std::vector<std::string> Scan(std::string_view bytes, std::size_t piece_size = 1 << 30) {
  FrameScanner scanner;
  std::vector<std::string> frames;
  for (; !bytes.empty(); bytes.remove_prefix(std::min(piece_size, bytes.size()))) {
    std::string_view piece = bytes.substr(0, piece_size);
    while (const FrameHead* frame = scanner.Next(piece)) {
      frames.push_back(absl::StrCat(static_cast<int>(frame->type), " ", int{frame->flags}, " ",
                                    frame->stream_id, " ", frame->payload_bytes, " ",
                                    frame->content_bytes));
    }
    EXPECT_TRUE(piece.empty());
  }
  return frames;
}

std::string Preface() {
  return std::string(kClientPreface);
}

TEST(FrameScannerTest, FindsEveryFrameBehindThePreface) {
  const std::string bytes = Preface() + MakeFrame(/*SETTINGS*/ 4, 0, 0, "") +
                            MakeFrame(kPing, 1, 0, "12345678") +
                            MakeFrame(kHeaders, 4, 0x01020304, std::string(70'000, 'x')) +
                            MakeFrame(/*unknown*/ 200, 255, 3, "abc");

  EXPECT_THAT(Scan(bytes),
              ElementsAre("4 0 0 0 0", "6 1 0 8 8", "1 4 16909060 70000 70000", "200 255 3 3 3"));
}

TEST(FrameScannerTest, InputOfAnyPieceSizeGivesTheSameFrames) {
  const std::string bytes = Preface() + MakeFrame(kPing, 0, 0, "12345678") +
                            MakeFrame(kData, 8, 1, std::string("\2xyz\0\0", 6)) +
                            MakeFrame(kData, 0, 1, "") + MakeFrame(kHeaders, 0x2c, 3, "\1-----x-");
  const auto frames = Scan(bytes);
  ASSERT_EQ(frames.size(), 4u);

  for (std::size_t piece_size = 1; piece_size < bytes.size(); ++piece_size) {
    EXPECT_EQ(Scan(bytes, piece_size), frames) << piece_size;
  }
}

TEST(FrameScannerTest, PaddingIsNoContent) {
  const std::string padded = MakeFrame(kData, 8, 1, std::string("\2xyz\0\0", 6));
  const std::string nothing_else = MakeFrame(kData, 8, 1, std::string(4, '\3'));
  const std::string no_padding = MakeFrame(kData, 8, 1, std::string(1, '\0'));

  EXPECT_THAT(Scan(Preface() + padded + nothing_else + no_padding),
              ElementsAre("0 8 1 6 3", "0 8 1 4 0", "0 8 1 1 0"));
}

TEST(FrameScannerTest, PriorityIsNoContent) {
  const std::string with_field = MakeFrame(kHeaders, 0x20, 1, "-----x");
  const std::string padded = MakeFrame(kHeaders, 0x28, 1, "\1------");

  EXPECT_THAT(Scan(Preface() + with_field + padded), ElementsAre("1 32 1 6 1", "1 40 1 7 0"));
}

TEST(FrameScannerTest, FramesShorterThanTheirOverheadHaveNoContent) {
  const std::string too_much_padding = MakeFrame(kData, 8, 1, "\xffx");
  const std::string no_padding_length = MakeFrame(kData, 8, 1, "");
  const std::string half_a_priority = MakeFrame(kHeaders, 0x20, 1, "--");

  EXPECT_THAT(Scan(Preface() + too_much_padding + no_padding_length + half_a_priority),
              ElementsAre("0 8 1 2 0", "0 8 1 0 0", "1 32 1 2 0"));
}

TEST(FrameScannerTest, PaddingCountsWhereThereCanBeSomeOnly) {
  EXPECT_THAT(Scan(Preface() + MakeFrame(/*CONTINUATION*/ 9, 8, 1, "\1x")),
              ElementsAre("9 8 1 2 2"));
}

TEST(FrameScannerTest, TheReservedBitIsNotPartOfTheStream) {
  std::string bytes = Preface() + MakeFrame(kPing, 0, 5, "12345678");
  bytes[24 + 5] = '\x80';

  EXPECT_THAT(Scan(bytes), ElementsAre("6 0 5 8 8"));
}

TEST(FrameScannerTest, FindsNothingInHalfAHead) {
  EXPECT_THAT(Scan(Preface() + MakeFrame(kPing, 0, 0, "").substr(0, 8)), IsEmpty());
}

}  // namespace
}  // namespace varnic::net
