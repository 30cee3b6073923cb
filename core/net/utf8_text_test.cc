#include "core/net/utf8_text.h"

#include <gtest/gtest.h>

#include <string>

namespace varnic::net {
namespace {

TEST(Utf8TextTest, TextOfEveryLengthOfCharacterIsUtf8) {
  for (const std::string text : {"", "plain\x1b", "Gr\u00fc\u00dfe", "\u4e16\u754c", "\U0001f600",
                                 "\uffff", "\U0010ffff", "\ud7ff"}) {
    EXPECT_TRUE(IsUtf8(text)) << text;
    EXPECT_EQ(EscapeInvalidUtf8(text), text);
  }
  EXPECT_TRUE(IsUtf8(std::string(3, '\0')));
}

TEST(Utf8TextTest, OtherBytesAreNot) {
  for (const char* bytes :
       {"\xff", "\x80", "\xc3", "\xc0\xaf", "\xc1\xbf", "\xe0\x9f\xbf", "\xe4\xb8", "\xed\xa0\x80",
        "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xc3\x28", "Gr\xfc\xdf"}) {
    EXPECT_FALSE(IsUtf8(bytes)) << bytes;
    EXPECT_TRUE(IsUtf8(EscapeInvalidUtf8(bytes)));
  }
}

TEST(Utf8TextTest, OnlyTheBytesThatAreNoTextAreEscaped) {
  EXPECT_EQ(EscapeInvalidUtf8("no \\ file \xff\xc3\x28 \u00fc\n"),
            "no \\ file \\xff\\xc3( \u00fc\n");
}

}  // namespace
}  // namespace varnic::net
