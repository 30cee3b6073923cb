#include "tools/log_format.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "nlohmann/json.hpp"

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;

LogRecord Record(const std::string& message) {
  LogRecord record;
  record.time = absl::FromUnixMillis(1795237200123);
  record.severity = logging::LOGGING_WARNING;
  record.source = "host.cc:12";
  record.message = message;
  return record;
}

std::string Text(const std::string& message) {
  return FormatLogRecord(LogFormat::kText, Record(message));
}

std::string MessageInJson(const std::string& message) {
  const std::string line = FormatLogRecord(LogFormat::kJson, Record(message));
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
  return nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false).value("message", "none");
}

TEST(LogFormatTest, TextSaysWhenHowBadAndWhere) {
  EXPECT_EQ(Text("Refused a connection uid=7"),
            "2026-11-21T05:00:00.123Z WARNING host.cc:12 Refused a connection uid=7\n");
}

TEST(LogFormatTest, JournalReadsThePriorityInFront) {
  EXPECT_EQ(FormatLogRecord(LogFormat::kJournal, Record("x")),
            "<4>2026-11-21T05:00:00.123Z WARNING host.cc:12 x\n");
}

TEST(LogFormatTest, JsonHasTheSameInFields) {
  EXPECT_EQ(FormatLogRecord(LogFormat::kJson, Record("a \"b\"")),
            R"({"time":"2026-11-21T05:00:00.123Z","level":"warning","source":"host.cc:12",)"
            R"("message":"a \"b\""})"
            "\n");
}

TEST(LogFormatTest, SeveritiesBelowAndAboveHaveTheNextName) {
  LogRecord record = Record("x");
  record.severity = logging::LOGGING_VERBOSE - 3;
  EXPECT_THAT(FormatLogRecord(LogFormat::kText, record), HasSubstr(" DEBUG "));
  record.severity = logging::LOGGING_FATAL;
  EXPECT_THAT(FormatLogRecord(LogFormat::kText, record), HasSubstr(" FATAL "));
}

TEST(LogFormatTest, MessageCannotBeginARecordOfItsOwn) {
  EXPECT_THAT(Text("a\n2026-11-21T05:00:01.000Z ERROR x.cc:1 b\r\n"),
              HasSubstr(R"( a\n2026-11-21T05:00:01.000Z ERROR x.cc:1 b\r\n)"
                        "\n"));
  EXPECT_EQ(MessageInJson("a\n{\"message\":\"b\"}"), "a\n{\"message\":\"b\"}");
}

TEST(LogFormatTest, TerminalIsToldNothingButText) {
  // Escape, delete, a control character of two bytes, a line separator, a change of direction.
  EXPECT_THAT(Text("\x1b[2J\x7f"
                   "\u009b\u2028\u202e"),
              HasSubstr(R"( \x1b[2J\x7f\xc2\x9b\xe2\x80\xa8\xe2\x80\xae)"));
}

TEST(LogFormatTest, BytesThatAreNotUtf8AreEscapedOrReplaced) {
  EXPECT_THAT(Text("a\xff"), HasSubstr(R"( a\xff)"));
  EXPECT_EQ(MessageInJson("a\xff"), "a\uFFFD");
}

TEST(LogFormatTest, TextOfAnyLanguageStays) {
  EXPECT_THAT(Text("/home/j\u00fcrgen/\u65e5\u672c"),
              HasSubstr("/home/j\u00fcrgen/\u65e5\u672c\n"));
  EXPECT_EQ(MessageInJson("/home/j\u00fcrgen"), "/home/j\u00fcrgen");
}

TEST(LogFormatTest, LineOfAnyMessageIsWhatAPipeTakesWhole) {
  for (const std::string piece : {"a", "\x1b", "\xff", "\"", "\u65e5", "\U0001f600"}) {
    LogRecord record;
    for (int i = 0; i < 100'000; ++i) record.message += piece;
    record.counts = " left_out=7";
    for (const LogFormat format : {LogFormat::kText, LogFormat::kJournal, LogFormat::kJson}) {
      const std::string line = FormatLogRecord(format, record);

      EXPECT_LE(line.size(), kMaxLogLineBytes);
      EXPECT_GT(line.size(), kMaxLogLineBytes - 100);
      EXPECT_THAT(line, HasSubstr("... left_out=7"));
      EXPECT_EQ(line.find('\n'), line.size() - 1);
    }
  }
}

TEST(LogFormatTest, CharacterAtTheCutIsLeftOutWhole) {
  for (std::size_t before = 0; before < 3; ++before) {
    std::string message(before, 'a');
    for (int i = 0; i < 10'000; ++i) message += "\u65e5";

    EXPECT_THAT(Text(message), ::testing::Not(HasSubstr("\\x")));
    EXPECT_THAT(MessageInJson(message), ::testing::Not(HasSubstr("\uFFFD")));
  }
}

TEST(LogFormatTest, FormatsAndLevelsHaveNames) {
  EXPECT_EQ(*ParseLogFormat("text"), LogFormat::kText);
  EXPECT_EQ(*ParseLogFormat("json"), LogFormat::kJson);
  EXPECT_FALSE(ParseLogFormat("xml").ok());
  EXPECT_EQ(*ParseLogLevel("debug"), logging::LOGGING_VERBOSE);
  EXPECT_EQ(*ParseLogLevel("error"), logging::LOGGING_ERROR);
  EXPECT_FALSE(ParseLogLevel("fatal").ok());
}

}  // namespace
}  // namespace varnic::tools
