#include "tools/safe_text.h"

#include <gtest/gtest.h>

#include <string>

namespace varnic::tools {
namespace {

TEST(SafeTextTest, OrdinaryTextStaysAsItIs) {
  EXPECT_EQ(EscapeUnprintable("Grüße, \"Welt\" \\ 世界"), "Grüße, \"Welt\" \\ 世界");
  EXPECT_EQ(SafeWord("/home/zoë/世界.txt"), "/home/zoë/世界.txt");
  EXPECT_EQ(SafeWord("https://example.com:8443"), "https://example.com:8443");
}

TEST(SafeTextTest, EscapeSequencesLoseTheirEscape) {
  EXPECT_EQ(EscapeUnprintable("a\x1b[2Jb"), "a\\x1b[2Jb");
  EXPECT_EQ(EscapeUnprintable("\x1b]0;title\x07"), "\\x1b]0;title\\x07");
  // The control characters beyond ASCII: U+009B begins a sequence on its own.
  EXPECT_EQ(EscapeUnprintable("\xc2\x9b"
                              "31m"),
            "\\xc2\\x9b31m");
  EXPECT_EQ(EscapeUnprintable("\x7f"), "\\x7f");
}

TEST(SafeTextTest, LinesStayOneLine) {
  EXPECT_EQ(EscapeUnprintable("a\nb\rc\td"), "a\\nb\\rc\\td");
  EXPECT_EQ(EscapeUnprintable("a\u2028b\u0085c"), "a\\xe2\\x80\\xa8b\\xc2\\x85c");
  EXPECT_EQ(EscapeUnprintable(std::string("a\0b", 3)), "a\\x00b");
}

TEST(SafeTextTest, DirectionOfWritingIsNotTurned) {
  EXPECT_EQ(EscapeUnprintable("txt.\u202Eexe"), "txt.\\xe2\\x80\\xaeexe");
}

TEST(SafeTextTest, WhatOnlyLooksLikeABlankIsEscaped) {
  EXPECT_EQ(SafeWord("a\u2800b"), "\"a\\xe2\\xa0\\x80b\"");
  for (const char* blank :
       {"\u00A0", "\u00AD", "\u034F", "\u115F", "\u1160",     "\u17B4",    "\u180E",
        "\u2003", "\u200B", "\u200D", "\u2066", "\u2069",     "\u2800",    "\u3000",
        "\u3164", "\uFE0F", "\uFEFF", "\uFFA0", "\U0001D159", "\U000E0041"}) {
    EXPECT_EQ(EscapeUnprintable(blank).substr(0, 2), "\\x") << blank;
    EXPECT_EQ(SafeWord(blank).substr(0, 3), "\"\\x") << blank;
  }
}

TEST(SafeTextTest, BytesThatAreNoTextAreEscaped) {
  EXPECT_EQ(EscapeUnprintable("a\xff\xc3"), "a\\xff\\xc3");
}

TEST(SafeTextTest, WordThatIsNotPlainStandsInQuotes) {
  EXPECT_EQ(SafeWord(""), "\"\"");
  EXPECT_EQ(SafeWord("two words"), "\"two words\"");
  EXPECT_EQ(SafeWord("no\u00A0break"), "\"no\\xc2\\xa0break\"");
  EXPECT_EQ(SafeWord("say \"yes\""), "\"say \\\"yes\\\"\"");
  EXPECT_EQ(SafeWord("back\\slash"), "\"back\\\\slash\"");
  EXPECT_EQ(SafeWord("line\nbreak"), "\"line\\nbreak\"");
}

TEST(SafeTextTest, LongTextIsShownByItsEndsAndItsLength) {
  EXPECT_EQ(ShortWord("plain"), "plain");
  EXPECT_EQ(ShortWord(std::string(300, 'a')), std::string(300, 'a'));
  EXPECT_EQ(ShortWord("ab\"efgh..wxyz", 9), "\"ab\\\"efg\"...\"xyz\" (13 bytes)");
  EXPECT_EQ(ShortWord("aaaaaëëbbcc", 9), "\"aaaaa\"...\"bcc\" (13 bytes)");
  EXPECT_LT(ShortWord(std::string(200000, '\x1b')).size(), 1300u);
}

}  // namespace
}  // namespace varnic::tools
