#include "tools/stream_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <variant>
#include <vector>

#include "tools/ctl_command.h"

namespace varnic::tools {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

absl::StatusOr<CtlCommand> Parse(const std::vector<std::string>& arguments) {
  return ParseCtlCommand(arguments, [](const char*) -> const char* { return nullptr; });
}

StreamCommand StreamOf(const std::vector<std::string>& arguments) {
  auto command = Parse(arguments);
  EXPECT_TRUE(command.ok()) << command.status();
  EXPECT_TRUE(command->stream.has_value());
  return *std::move(command->stream);
}

std::string ErrorOf(const std::vector<std::string>& arguments) {
  const auto command = Parse(arguments);
  EXPECT_EQ(command.status().code(), absl::StatusCode::kInvalidArgument);
  return std::string(command.status().message());
}

TEST(StreamCommandTest, ProfilesAreTheDefaultOneUnlessNamed) {
  EXPECT_THAT(StreamOf({"watch-network"}).profiles, ElementsAre(""));
  EXPECT_THAT(StreamOf({"watch-network", "P", "", "--profile", "Q"}).profiles,
              ElementsAre("Q", "P", ""));
  EXPECT_THAT(StreamOf({"answer-files", "--ask", "--profile", "P", "--profile", "Q"}).profiles,
              ElementsAre("P", "Q"));
}

TEST(StreamCommandTest, ProfilesAreAllWatchedUnlessSomeAreNamed) {
  const StreamCommand all = StreamOf({"watch-profiles"});

  EXPECT_TRUE(std::holds_alternative<WatchProfiles>(all.task));
  EXPECT_THAT(all.profiles, ElementsAre(""));
  EXPECT_THAT(StreamOf({"watch-profiles", "P", "Q"}).profiles, ElementsAre("P", "Q"));
  EXPECT_THAT(StreamOf({"watch-profiles", "P", ""}).profiles, ElementsAre(""));
}

TEST(StreamCommandTest, FilesAreAnsweredByTheGivenRules) {
  const StreamCommand stream =
      StreamOf({"answer-files", "--allow", "/a/*", "--deny", "/a/b", "--allow", "/c", "--ask"});

  const auto* task = std::get_if<AnswerFiles>(&stream.task);
  ASSERT_NE(task, nullptr);
  EXPECT_TRUE(task->ask);
  EXPECT_EQ(task->rules.Judge("/a/x").decision, FileVerdict::Decision::kAllow);
  EXPECT_EQ(task->rules.Judge("/c").decision, FileVerdict::Decision::kAllow);
  EXPECT_EQ(task->rules.Judge("/a/b").decision, FileVerdict::Decision::kDeny);
  EXPECT_EQ(task->rules.Judge("/d").decision, FileVerdict::Decision::kAskPerson);
}

TEST(StreamCommandTest, CredentialsComeFromTheGivenFile) {
  const StreamCommand stream =
      StreamOf({"answer-auth", "--user", "zoë", "--password-file", "/run/secret", "--challenger",
                "example.com", "--challenger", "proxy:3128"});

  const auto* task = std::get_if<AnswerAuth>(&stream.task);
  ASSERT_NE(task, nullptr);
  EXPECT_FALSE(task->source.ask);
  EXPECT_EQ(task->source.username, "zoë");
  EXPECT_EQ(task->source.password_file, "/run/secret");
  ASSERT_EQ(task->source.challengers.size(), 2U);
  EXPECT_EQ(task->source.challengers[1].port, 3128U);
}

TEST(StreamCommandTest, CommandThatCouldAnswerNothingIsWrong) {
  EXPECT_THAT(ErrorOf({"answer-files"}), HasSubstr("--allow, --deny or --ask"));
  EXPECT_THAT(ErrorOf({"answer-auth"}), HasSubstr("--user and --password-file, or --ask"));
  EXPECT_THAT(ErrorOf({"answer-auth", "--user", "zoë"}), HasSubstr("go together"));
  EXPECT_THAT(ErrorOf({"answer-auth", "--ask", "--user", "zoë"}), HasSubstr("--ask goes without"));
}

TEST(StreamCommandTest, GlobThatTheShellHasExpandedIsExplained) {
  EXPECT_THAT(ErrorOf({"answer-files", "--allow", "/etc/a", "/etc/b"}),
              HasSubstr("/etc/b: --profile names a profile, and a glob needs quotes"));
}

TEST(StreamCommandTest, OptionsBelongToTheirCommands) {
  EXPECT_EQ(ErrorOf({"watch-network", "--allow", "/a"}), "watch-network has no option --allow");
  EXPECT_EQ(ErrorOf({"watch-network", "--timeout", "1"}), "watch-network has no option --timeout");
  EXPECT_EQ(ErrorOf({"answer-auth", "--ask", "--deny", "/a"}), "answer-auth has no option --deny");
  EXPECT_EQ(ErrorOf({"path", "--ask"}), "path has no option --ask");
}

TEST(StreamCommandTest, WrongValuesAreQuoted) {
  EXPECT_THAT(ErrorOf({"answer-files", "--allow", "*.txt"}), HasSubstr("--allow: glob *.txt"));
  EXPECT_THAT(ErrorOf({"answer-auth", "--ask", "--challenger", ":1"}), HasSubstr(":1"));
  EXPECT_THAT(ErrorOf({"watch-network", "\xff"}), HasSubstr("\"\\xff\" is no UTF-8"));
  EXPECT_THAT(ErrorOf({"answer-auth", "--user", "\xff", "--password-file", "f"}),
              HasSubstr("--user"));
}

}  // namespace
}  // namespace varnic::tools
