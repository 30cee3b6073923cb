#include "core/net/log_field.h"

#include <gtest/gtest.h>

namespace varnic::net {
namespace {

TEST(LogFieldTest, PlainValueStandsAsItIs) {
  EXPECT_EQ(LogField("address", "unix:///run/host.sock"), " address=unix:///run/host.sock");
  EXPECT_EQ(LogField("peer", "[::1]:50112"), " peer=[::1]:50112");
}

TEST(LogFieldTest, ValueWithBlanksIsQuoted) {
  EXPECT_EQ(LogField("reason", "no space"), " reason=\"no space\"");
}

TEST(LogFieldTest, EmptyValueIsSeen) {
  EXPECT_EQ(LogField("reason", ""), " reason=\"\"");
}

TEST(LogFieldTest, ValueCannotPassForAnotherField) {
  EXPECT_EQ(LogField("method", "/x role=admin"), " method=\"/x role=admin\"");
  EXPECT_EQ(LogField("method", "/x\" role=admin"), R"( method="/x\" role=admin")");
  EXPECT_EQ(LogField("method", "/x\\"), R"( method="/x\\")");
}

TEST(LogFieldTest, ControlBytesAreEscaped) {
  EXPECT_EQ(LogField("method", std::string_view("a\nb\0z\x1b", 6)), R"( method="a\nb\x00z\x1b")");
}

TEST(LogFieldTest, LongValueIsCut) {
  const std::string most(kMaxLogFieldBytes, 'a');

  EXPECT_EQ(LogField("method", most), " method=" + most);
  EXPECT_EQ(LogField("method", most + "b"), " method=" + most + "...");
  EXPECT_EQ(LogField("method", most + " "), " method=\"" + most + "...\"");
}

TEST(LogFieldTest, CutValueIsMeasuredAsItIsEscapedAndKeepsCharactersWhole) {
  const std::string bells(8192, '\a');
  std::string letters;
  for (int i = 0; i < 1000; ++i) letters += "\u65e5";
  std::string bells_shown;
  for (int i = 0; i < 64; ++i) bells_shown += "\\x07";

  EXPECT_EQ(LogField("method", bells), " method=\"" + bells_shown + "...\"");
  EXPECT_EQ(LogField("method", letters), " method=\"" + letters.substr(0, 85 * 3) + "...\"");
}

TEST(LogFieldTest, LettersOfAnyLanguageStay) {
  EXPECT_EQ(LogField("path", "/home/j\u00fcrgen"), " path=\"/home/j\u00fcrgen\"");
}

}  // namespace
}  // namespace varnic::net
