#include "tools/ctl_command.h"

#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rpc/profile/profile.rpc.h"

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;

absl::StatusOr<CtlCommand> Parse(const std::vector<std::string>& arguments) {
  return ParseCtlCommand(arguments, [](const char*) -> const char* { return nullptr; });
}

template <class Request>
const Request& RequestOf(const CtlCommand& command) {
  EXPECT_EQ(command.request->GetDescriptor(), Request::descriptor());
  return static_cast<const Request&>(*command.request);
}

TEST(CtlCommandTest, ProfileIsTheDefaultOneUnlessNamed) {
  EXPECT_EQ(RequestOf<ProfileId>(*Parse({"path"})).value(), "");
  EXPECT_EQ(RequestOf<ProfileId>(*Parse({"path", "Profile 1"})).value(), "Profile 1");
}

TEST(CtlCommandTest, EachUnaryMethodHasItsCommand) {
  for (const auto& [command, method] : std::vector<std::pair<std::string, std::string>>{
           {"path", "Path"},
           {"name", "Name"},
           {"is-incognito", "IsIncognito"},
           {"is-default", "IsDefault"},
           {"create-browser", "CreateBrowser"},
           {"get-accept-language", "GetAcceptLanguage"},
           {"get-user-agent", "GetUserAgent"},
           {"get-user-agent-metadata", "GetUserAgentMetadata"}}) {
    const auto parsed = Parse({command});
    ASSERT_TRUE(parsed.ok()) << parsed.status();
    EXPECT_EQ(parsed->method->name(), method);
    EXPECT_EQ(parsed->request->GetDescriptor(), parsed->method->input_type());
  }
}

TEST(CtlCommandTest, LanguagesComeBeforeTheProfile) {
  const auto command = Parse({"set-accept-language", "fr,en", "Profile 1"});

  ASSERT_TRUE(command.ok()) << command.status();
  const auto& request = RequestOf<rpc::SetAcceptLanguageRequest>(*command);
  EXPECT_EQ(request.accept_language(), "fr,en");
  EXPECT_EQ(request.profile_id().value(), "Profile 1");
}

TEST(CtlCommandTest, BrowserOptionsComeFromOptions) {
  const auto command = Parse({"create-browser", "P", "--url", "about:blank", "--incognito",
                              "--headless", "--window-size=800x600", "--window-position", "-5,20"});

  ASSERT_TRUE(command.ok()) << command.status();
  const auto& request = RequestOf<rpc::BrowserOptions>(*command);
  EXPECT_EQ(request.profile_id().value(), "P");
  EXPECT_EQ(request.url(), "about:blank");
  EXPECT_TRUE(request.incognito());
  EXPECT_TRUE(request.headless());
  EXPECT_EQ(request.window_size().width(), 800U);
  EXPECT_EQ(request.window_size().height(), 600U);
  EXPECT_EQ(request.window_position().x(), -5);
  EXPECT_EQ(request.window_position().y(), 20);
}

TEST(CtlCommandTest, TimeoutIsInSeconds) {
  EXPECT_EQ(Parse({"path", "--timeout", "0.5"})->timeout, absl::Milliseconds(500));
  EXPECT_FALSE(Parse({"path", "--timeout", "0"}).ok());
  EXPECT_FALSE(Parse({"path", "--timeout", "-1"}).ok());
  EXPECT_FALSE(Parse({"path", "--timeout", "nan"}).ok());
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

TEST(CtlCommandTest, PeopleGetTheValueAlone) {
  google::protobuf::StringValue text;
  text.set_value("Grüße");
  google::protobuf::BoolValue flag;
  BrowserId id;
  id.set_value(7);

  EXPECT_EQ(FormatAnswerForPeople(text), "Grüße\n");
  EXPECT_EQ(FormatAnswerForPeople(flag), "false\n");
  EXPECT_EQ(FormatAnswerForPeople(id), "7\n");
  EXPECT_EQ(FormatAnswerForPeople(google::protobuf::Empty()), "");
}

TEST(CtlCommandTest, PeopleGetALineForEachField) {
  rpc::UserAgentMetadata metadata;
  for (const char* brand : {"Chromium", "Not A Brand"}) {
    metadata.add_brands()->set_brand(brand);
    metadata.mutable_brands()->rbegin()->set_version("156");
  }
  metadata.set_platform("Linux");

  const std::string text = FormatAnswerForPeople(metadata);

  EXPECT_THAT(text, HasSubstr("brands: Chromium 156, Not A Brand 156\n"));
  EXPECT_THAT(text, HasSubstr("platform: Linux\n"));
  EXPECT_THAT(text, HasSubstr("mobile: false\n"));
}

TEST(CtlCommandTest, AnswerForPeopleDoesNothingToTheTerminalAndKeepsToItsLine) {
  google::protobuf::StringValue name;
  name.set_value("My \\ profile\x1b[2J\nplatform: none\r\u202E");
  rpc::UserAgentMetadata metadata;
  metadata.add_brands()->set_brand("Chromium\x1b]0;title\x07");
  metadata.set_platform("Linux\nmobile: true");

  const std::string text = FormatAnswerForPeople(metadata);

  EXPECT_EQ(FormatAnswerForPeople(name),
            "My \\ profile\\x1b[2J\\nplatform: none\\r\\xe2\\x80\\xae\n");
  EXPECT_THAT(text, HasSubstr("brands: Chromium\\x1b]0;title\\x07 \n"));
  EXPECT_THAT(text, HasSubstr("platform: Linux\\nmobile: true\n"));
}

TEST(CtlCommandTest, AnswerForProgramsKeepsEveryCharacter) {
  google::protobuf::StringValue name;
  name.set_value("a\x1b[2J\nb");

  EXPECT_EQ(FormatAnswerAsJson(name), "\"a\\u001b[2J\\nb\"\n");
}

TEST(CtlCommandTest, ProgramsGetJsonWithEveryField) {
  rpc::UserAgentMetadata metadata;
  metadata.set_platform("Linux");

  EXPECT_THAT(FormatAnswerAsJson(metadata), HasSubstr(R"("platform":"Linux")"));
  EXPECT_THAT(FormatAnswerAsJson(metadata), HasSubstr(R"("mobile":false)"));
}

TEST(CtlCommandTest, FailureTellsPeopleWhatToTry) {
  CtlCommand command;
  command.name = "path";
  command.default_target = true;

  EXPECT_EQ(FormatFailureForPeople(command, absl::UnavailableError("nobody there")),
            "varnicctl: path: nobody there (UNAVAILABLE)\n"
            "Is varnic-host running? Start it, or name another host with --target.\n");
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
