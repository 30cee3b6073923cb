#include "tools/ctl_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;

absl::StatusOr<CtlCommand> Parse(const std::vector<std::string>& arguments) {
  return ParseCtlCommand(arguments, [](const char*) -> const char* { return nullptr; });
}

TEST(CtlCommandTest, HelpIsAnOptionOrACommandWithTheNameOfAnother) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"help", "watch-network"}, {"watch-network", "--help"}, {"--help", "watch-network"}}) {
    const auto command = Parse(arguments);
    ASSERT_TRUE(command.ok()) << command.status();
    EXPECT_TRUE(command->help);
    EXPECT_EQ(command->name, "watch-network");
  }
  EXPECT_EQ(Parse({"help"})->name, "");
  EXPECT_TRUE(Parse({"help"})->help);
}

TEST(CtlCommandTest, FailureTellsPeopleWhatToTry) {
  CtlCommand command;
  command.name = "path";
  command.default_target = true;

  EXPECT_EQ(FormatFailureForPeople(command, absl::UnavailableError("cannot connect to x")),
            "varnicctl: path: cannot connect to x (UNAVAILABLE)\n"
            "Is varnic-host running? Start it, or name another host with --target.\n");
  EXPECT_EQ(FormatFailureForPeople(command, absl::UnavailableError("the browser has died")),
            "varnicctl: path: the browser has died (UNAVAILABLE)\n");
}

TEST(CtlCommandTest, FailureDoesNothingToTheTerminal) {
  EXPECT_THAT(FormatFailureForPeople(CtlCommand(), absl::InternalError("\x1b[2J\n")),
              HasSubstr("\\x1b[2J\\n (INTERNAL)\n"));
}

TEST(CtlCommandTest, FailureOfAnyBytesIsJson) {
  EXPECT_EQ(
      FormatFailureAsJson(absl::NotFoundError("\"x\" \xff")),
      "{\"error\":{\"code\":5,\"status\":\"NOT_FOUND\",\"message\":\"\\\"x\\\" \\ufffd\"}}\n");
}

TEST(CtlCommandTest, FailureForProgramsDoesNothingToTheTerminal) {
  const std::string line = FormatFailureAsJson(absl::InternalError("\xc2\x9b\x7f\u202E\n\x1b"));

  for (const char c : line.substr(0, line.size() - 1)) EXPECT_TRUE(c >= ' ' && c < 0x7f) << line;
  EXPECT_THAT(line, HasSubstr("\\u009b\\u007f\\u202e\\n\\u001b"));
}

TEST(CtlCommandTest, HelpOfAnUnknownCommandIsAnError) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"help", "frobnicate"}, {"frobnicate", "--help"}}) {
    EXPECT_THAT(Parse(arguments).status().message(), HasSubstr("unknown command frobnicate"));
  }
  for (const char* name : {"path", "answer-auth", "help"}) {
    EXPECT_TRUE(Parse({"help", name}).ok()) << name;
  }
}

}  // namespace
}  // namespace varnic::tools
