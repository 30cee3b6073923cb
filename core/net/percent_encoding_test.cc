#include "core/net/percent_encoding.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace varnic::net {
namespace {

std::string EveryByte() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes.push_back(static_cast<char>(byte));
  return bytes;
}

TEST(PercentEncodingTest, PrintableAsciiStandsAsItIs) {
  const std::string_view text = "no profile \"x\" (~/a+b=c&d)";

  EXPECT_EQ(PercentEncode(text), text);
}

TEST(PercentEncodingTest, OtherBytesBecomeUpperCaseEscapes) {
  EXPECT_EQ(PercentEncode("100%"), "100%25");
  EXPECT_EQ(PercentEncode("a\r\nb"), "a%0D%0Ab");
  EXPECT_EQ(PercentEncode("\xC3\xBC"), "%C3%BC");
  EXPECT_EQ(PercentEncode("\x1F \x7E\x7F"), "%1F ~%7F");
  EXPECT_EQ(PercentEncode(std::string_view("a\0b", 3)), "a%00b");
}

TEST(PercentEncodingTest, SpacesAreEscapedOnlyAtTheEnds) {
  EXPECT_EQ(PercentEncode(" a  b "), "%20a  b%20");
  EXPECT_EQ(PercentEncode("  "), "%20%20");
  EXPECT_EQ(PercentEncode(" "), "%20");
}

TEST(PercentEncodingTest, TheEmptyTextStaysEmpty) {
  EXPECT_EQ(PercentEncode(""), "");
  EXPECT_EQ(PercentDecode(""), "");
}

TEST(PercentEncodingTest, DecodingTakesDigitsOfEitherCase) {
  EXPECT_EQ(PercentDecode("%c3%BC%2f%2F"), "\xC3\xBC//");
}

TEST(PercentEncodingTest, InvalidEscapesAreKeptAsTheyStand) {
  for (const std::string_view text : {"%", "%%", "a%", "a%4", "%G1", "%1G", "%+1", "% 1", "%%%"}) {
    EXPECT_EQ(PercentDecode(text), text);
  }
}

TEST(PercentEncodingTest, ValidEscapesBesideInvalidOnesAreDecoded) {
  EXPECT_EQ(PercentDecode("%%41%4"), "%A%4");
  EXPECT_EQ(PercentDecode("%zz%42%"), "%zzB%");
}

TEST(PercentEncodingTest, AnEscapedPercentSignIsDecodedOnce) {
  EXPECT_EQ(PercentDecode("%2541"), "%41");
}

TEST(PercentEncodingTest, EveryByteSurvivesTheRoundTrip) {
  const std::string bytes = EveryByte();

  const std::string encoded = PercentEncode(bytes);

  EXPECT_EQ(PercentDecode(encoded), bytes);
  for (const char c : encoded) EXPECT_TRUE(c >= 0x20 && c <= 0x7E) << static_cast<int>(c);
}

}  // namespace
}  // namespace varnic::net
