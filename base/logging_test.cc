#include "base/logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace logging {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

struct Record {
  int severity;
  std::string file;
  int line;
  std::string text;
};

std::vector<Record>& Records() {
  static std::vector<Record> records;
  return records;
}

bool Swallow(int severity, const char* file, int line, size_t message_start,
             const std::string& str) {
  Records().push_back({severity, file, line, str.substr(message_start)});
  return true;
}

bool LetThrough(int, const char*, int, size_t, const std::string&) {
  return false;
}

bool SetErrnoAndSwallow(int, const char*, int, size_t, const std::string&) {
  errno = EBADF;
  return true;
}

void Log(LogSeverity severity, const std::string& text) {
  LogMessage("some/folder/file.cc", 12, severity).stream() << text;
}

class LoggingTest : public ::testing::Test {
 protected:
  ~LoggingTest() override {
    SetMinLogLevel(LOGGING_INFO);
    SetLogMessageHandler(nullptr);
    Records().clear();
  }
};

using LoggingDeathTest = LoggingTest;

TEST_F(LoggingTest, EverythingFromInfoIsWantedByDefault) {
  EXPECT_EQ(GetMinLogLevel(), LOGGING_INFO);

  EXPECT_FALSE(ShouldCreateLogMessage(LOGGING_VERBOSE));
  EXPECT_TRUE(ShouldCreateLogMessage(LOGGING_INFO));
  EXPECT_TRUE(ShouldCreateLogMessage(LOGGING_FATAL));
}

TEST_F(LoggingTest, TheMinimumLevelDividesWantedFromUnwanted) {
  SetMinLogLevel(LOGGING_ERROR);

  EXPECT_FALSE(ShouldCreateLogMessage(LOGGING_WARNING));
  EXPECT_TRUE(ShouldCreateLogMessage(LOGGING_ERROR));
}

TEST_F(LoggingTest, ANegativeLevelLetsVerboseRecordsIn) {
  SetMinLogLevel(-2);

  EXPECT_TRUE(ShouldCreateLogMessage(-2));
  EXPECT_FALSE(ShouldCreateLogMessage(-3));
}

TEST_F(LoggingTest, FatalRecordsCannotBeTurnedOff) {
  SetMinLogLevel(LOGGING_FATAL + 5);

  EXPECT_EQ(GetMinLogLevel(), LOGGING_FATAL);
  EXPECT_TRUE(ShouldCreateLogMessage(LOGGING_FATAL));
  EXPECT_FALSE(ShouldCreateLogMessage(LOGGING_ERROR));
}

TEST_F(LoggingTest, ARecordIsOneLineWithTimeSeverityAndPlace) {
  ::testing::internal::CaptureStderr();

  Log(LOGGING_WARNING, "the text");

  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              MatchesRegex("\\[[0-9]+-[0-9]+-[0-9]+T[0-9]+:[0-9]+:[0-9]+\\.[0-9]+Z WARNING "
                           "file\\.cc:12\\] the text\n"));
}

TEST_F(LoggingTest, EachSeverityHasItsName) {
  ::testing::internal::CaptureStderr();

  Log(-2, "a");
  Log(LOGGING_INFO, "b");
  Log(LOGGING_ERROR, "c");

  const std::string output = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(output, HasSubstr(" VERBOSE2 file.cc:12] a\n"));
  EXPECT_THAT(output, HasSubstr(" INFO file.cc:12] b\n"));
  EXPECT_THAT(output, HasSubstr(" ERROR file.cc:12] c\n"));
}

TEST_F(LoggingTest, NewlinesAtTheEndOfTheTextBecomeOne) {
  ::testing::internal::CaptureStderr();

  Log(LOGGING_INFO, "text\n\n");
  Log(LOGGING_INFO, "");

  const std::string output = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(output, HasSubstr("] text\n["));
  EXPECT_THAT(output, EndsWith("] \n"));
}

TEST_F(LoggingTest, AHandlerSeesTheBareTextAndSwallowsTheRecord) {
  SetLogMessageHandler(&Swallow);
  ::testing::internal::CaptureStderr();

  Log(LOGGING_ERROR, "for the handler");

  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(GetLogMessageHandler(), &Swallow);
  ASSERT_EQ(Records().size(), 1u);
  EXPECT_EQ(Records()[0].severity, LOGGING_ERROR);
  EXPECT_EQ(Records()[0].file, "some/folder/file.cc");
  EXPECT_EQ(Records()[0].line, 12);
  EXPECT_EQ(Records()[0].text, "for the handler\n");
}

TEST_F(LoggingTest, ARecordThatTheHandlerDeclinesIsWritten) {
  SetLogMessageHandler(&LetThrough);
  ::testing::internal::CaptureStderr();

  Log(LOGGING_INFO, "declined");

  EXPECT_THAT(::testing::internal::GetCapturedStderr(), EndsWith("] declined\n"));
}

TEST_F(LoggingTest, LoggingLeavesErrnoAlone) {
  SetLogMessageHandler(&SetErrnoAndSwallow);
  errno = ENOENT;

  Log(LOGGING_INFO, "errno");

  EXPECT_EQ(errno, ENOENT);
}

TEST_F(LoggingTest, RecordsOfSeveralThreadsStayWhole) {
  ::testing::internal::CaptureStderr();
  std::vector<std::thread> threads;

  for (char letter = 'a'; letter < 'e'; ++letter) {
    threads.emplace_back([letter] {
      for (int i = 0; i < 50; ++i) Log(LOGGING_INFO, std::string(200, letter));
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::istringstream output(::testing::internal::GetCapturedStderr());
  int lines = 0;
  for (std::string line; std::getline(output, line); ++lines) {
    ASSERT_EQ(line.front(), '[');
    ASSERT_EQ(line.substr(line.find("] ") + 2), std::string(200, line.back()));
  }
  EXPECT_EQ(lines, 200);
}

TEST_F(LoggingDeathTest, AFatalRecordIsWrittenAndEndsTheProcess) {
  EXPECT_DEATH(Log(LOGGING_FATAL, "the last words"), "FATAL file.cc:12\\] the last words");
}

TEST_F(LoggingDeathTest, AFatalRecordEndsTheProcessEvenIfSwallowed) {
  SetLogMessageHandler(&Swallow);

  EXPECT_DEATH(Log(LOGGING_FATAL, "swallowed"), "^$");
}

}  // namespace
}  // namespace logging
