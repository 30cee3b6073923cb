#include "tools/call_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "rpc/host/browser_host.rpc.h"
#include "rpc/profile/profile.rpc.h"
#include "tools/ctl_command.h"

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;

absl::StatusOr<CallCommand> Parse(const std::vector<std::string>& arguments) {
  auto command = ParseCtlCommand(arguments, [](const char*) -> const char* { return nullptr; });
  if (!command.ok()) return command.status();
  return *std::move(command->call);
}

template <class Request>
const Request& RequestOf(const CallCommand& command) {
  EXPECT_EQ(command.request->GetDescriptor(), Request::descriptor());
  return static_cast<const Request&>(*command.request);
}

TEST(CallCommandTest, ProfileIsTheDefaultOneUnlessNamed) {
  EXPECT_EQ(RequestOf<ProfileId>(*Parse({"path"})).value(), "");
  EXPECT_EQ(RequestOf<ProfileId>(*Parse({"path", "Profile 1"})).value(), "Profile 1");
}

TEST(CallCommandTest, EachUnaryMethodHasItsCommand) {
  for (const auto& [command, method] : std::vector<std::pair<std::string, std::string>>{
           {"path", "Path"},
           {"name", "Name"},
           {"is-incognito", "IsIncognito"},
           {"is-default", "IsDefault"},
           {"browsers", "ListBrowsers"},
           {"create-browser", "CreateBrowser"},
           {"new-profile", "CreateProfile"},
           {"get-accept-language", "GetAcceptLanguage"},
           {"get-user-agent", "GetUserAgent"},
           {"get-user-agent-metadata", "GetUserAgentMetadata"},
           {"profiles", "ListProfiles"}}) {
    const auto parsed = Parse({command});
    ASSERT_TRUE(parsed.ok()) << parsed.status();
    EXPECT_EQ(parsed->method->name(), method);
    EXPECT_EQ(parsed->request->GetDescriptor(), parsed->method->input_type());
  }
}

TEST(CallCommandTest, WhatIsToBeDeletedOrClosedHasToBeNamed) {
  EXPECT_EQ(RequestOf<ProfileId>(*Parse({"delete-profile", "profile-1"})).value(), "profile-1");
  EXPECT_EQ(RequestOf<BrowserId>(*Parse({"close-browser", "12"})).value(), 12);

  EXPECT_EQ(Parse({"delete-profile"}).status().message(),
            "delete-profile needs the id of a profile");
  EXPECT_EQ(Parse({"close-browser"}).status().message(), "close-browser needs the id of a browser");
  EXPECT_EQ(Parse({"close-browser", "\x1b"}).status().message(),
            "a browser's id is a number, not \"\\x1b\"");
}

TEST(CallCommandTest, WordsBeyondThoseThatAreMeantAreWrong) {
  EXPECT_THAT(Parse({"profiles", "default"}).status().message(), HasSubstr("default"));
  EXPECT_THAT(Parse({"new-profile", "For", "work"}).status().message(), HasSubstr("work"));
  EXPECT_THAT(Parse({"delete-profile", "a", "b"}).status().message(), HasSubstr("argument b"));
}

TEST(CallCommandTest, NewProfileMayHaveAName) {
  EXPECT_EQ(RequestOf<rpc::CreateProfileRequest>(*Parse({"new-profile"})).name(), "");
  EXPECT_EQ(RequestOf<rpc::CreateProfileRequest>(*Parse({"new-profile", "For work"})).name(),
            "For work");
}

TEST(CallCommandTest, AnswerIsFormattedAsItsCommandSays) {
  rpc::ProfileInfo profile;
  profile.mutable_id()->set_value("profile-1");

  EXPECT_EQ(Parse({"new-profile"})->format(profile), "profile-1\n");
  EXPECT_THAT(Parse({"profiles"})->format(rpc::ProfileList()), HasSubstr("BROWSERS\n"));
  EXPECT_EQ(Parse({"is-default"})->format(google::protobuf::BoolValue()), "false\n");
}

TEST(CallCommandTest, LanguagesComeBeforeTheProfile) {
  const auto command = Parse({"set-accept-language", "fr,en", "Profile 1"});

  ASSERT_TRUE(command.ok()) << command.status();
  const auto& request = RequestOf<rpc::SetAcceptLanguageRequest>(*command);
  EXPECT_EQ(request.accept_language(), "fr,en");
  EXPECT_EQ(request.profile_id().value(), "Profile 1");
}

TEST(CallCommandTest, BrowserOptionsComeFromOptions) {
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

TEST(CallCommandTest, BrowserOptionsAreForBrowsersAlone) {
  EXPECT_EQ(Parse({"new-profile", "--incognito"}).status().message(),
            "new-profile has no option --incognito");
  EXPECT_EQ(Parse({"close-browser", "1", "--url", "about:blank"}).status().message(),
            "close-browser has no option --url");
}

TEST(CallCommandTest, WhatIsNoTextIsNotSent) {
  EXPECT_EQ(Parse({"new-profile", "a\xff"}).status().message(), "\"a\\xff\" is no UTF-8");
  EXPECT_FALSE(Parse({"create-browser", "--url", "about:\xff"}).ok());
  EXPECT_TRUE(Parse({"new-profile", "\xc3\xa4"}).ok());
}

TEST(CallCommandTest, TimeoutIsInSeconds) {
  EXPECT_EQ(Parse({"path", "--timeout", "0.5"})->timeout, absl::Milliseconds(500));
  EXPECT_EQ(Parse({"path"})->timeout, kDefaultCallTimeout);
  EXPECT_EQ(Parse({"create-browser"})->timeout, kBrowserCallTimeout);
  EXPECT_FALSE(Parse({"path", "--timeout", "0"}).ok());
  EXPECT_FALSE(Parse({"path", "--timeout", "-1"}).ok());
  EXPECT_FALSE(Parse({"path", "--timeout", "nan"}).ok());
}

}  // namespace
}  // namespace varnic::tools
