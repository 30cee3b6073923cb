#include "tools/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace varnic::tools {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

absl::StatusOr<CommandLine> Parse(const std::vector<std::string>& arguments) {
  return ParseCommandLine(arguments, {{"color", true}, {"loud", false}});
}

std::string ErrorOf(const std::vector<std::string>& arguments) {
  const absl::StatusOr<CommandLine> line = Parse(arguments);
  EXPECT_EQ(line.status().code(), absl::StatusCode::kInvalidArgument);
  return std::string(line.status().message());
}

TEST(CommandLineTest, OptionsMayStandAnywhere) {
  const auto line = Parse({"one", "--color", "red", "two", "--loud", "--color=blue"});

  ASSERT_TRUE(line.ok()) << line.status();
  EXPECT_THAT(line->words, ElementsAre("one", "two"));
  EXPECT_THAT(line->options.at("color"), ElementsAre("red", "blue"));
  EXPECT_EQ(line->Get("color", "none"), "blue");
  EXPECT_TRUE(line->Has("loud"));
}

TEST(CommandLineTest, OptionThatIsNotGivenHasItsFallback) {
  const auto line = Parse({});

  ASSERT_TRUE(line.ok()) << line.status();
  EXPECT_EQ(line->Get("color", "none"), "none");
  EXPECT_FALSE(line->Has("loud"));
  EXPECT_THAT(line->words, IsEmpty());
}

TEST(CommandLineTest, DoubleDashEndsTheOptions) {
  const auto line = Parse({"--", "--loud"});

  ASSERT_TRUE(line.ok()) << line.status();
  EXPECT_THAT(line->words, ElementsAre("--loud"));
}

TEST(CommandLineTest, ValueMayLookLikeAnOption) {
  EXPECT_EQ(Parse({"--color", "-5,3"})->Get("color", ""), "-5,3");
}

TEST(CommandLineTest, BeginningOfANameIsEnough) {
  EXPECT_TRUE(Parse({"--lo"})->Has("loud"));
}

TEST(CommandLineTest, ShortHelpIsHelp) {
  EXPECT_TRUE(Parse({"-h"})->Has("help"));
}

TEST(CommandLineTest, ErrorsNameTheOption) {
  EXPECT_THAT(ErrorOf({"--shape"}), HasSubstr("--shape"));
  EXPECT_THAT(ErrorOf({"--color"}), HasSubstr("--color needs a value"));
  EXPECT_THAT(ErrorOf({"--loud=very"}), HasSubstr("--loud"));
  EXPECT_THAT(ErrorOf({"-x"}), HasSubstr("-x"));
  EXPECT_THAT(ErrorOf({"-xy", "--loud"}), HasSubstr("-x"));
}

}  // namespace
}  // namespace varnic::tools
