#include "core/host/browser_profiles.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "core/host/browser/testing/scoped_variable.h"
#include "core/host/testing/live_profiles.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using testing::LiveProfiles;
using testing::ScopedVariable;

std::string MessageOf(const absl::Status& status) {
  return std::string(status.message());
}

BrowserProfilesOptions WithoutBrowsers() {
  BrowserProfilesOptions options;
  options.user_agent = UserAgentFromText("Robot Chrome/99.1.2.3").value();
  options.keeper.process.launch.program = "/nonexistent/browser";
  options.keeper.process.launch.without_sandbox = true;
  options.keeper.pacing.first_delay = absl::ZeroDuration();
  return options;
}

// What can be known and done without a browser.
class BrowserProfilesTest : public ::testing::Test {
 protected:
  BrowserProfiles& profiles() { return live_.profiles(); }

  // What is answered within the call.
  template <class T>
  std::optional<absl::StatusOr<T>> AtOnce(const std::function<void(Reply<T>)>& call) {
    std::optional<absl::StatusOr<T>> answer;
    call([&answer](absl::StatusOr<T> value) { answer = std::move(value); });
    return answer;
  }

  LiveProfiles live_{WithoutBrowsers()};
};

TEST_F(BrowserProfilesTest, EmptyIdNamesTheDefaultProfile) {
  for (const char* id : {"", "default"}) {
    const auto path = AtOnce<std::string>([&](auto reply) { profiles().Path(id, reply); });
    const auto name = AtOnce<std::string>([&](auto reply) { profiles().Name(id, reply); });
    const auto is_default = AtOnce<bool>([&](auto reply) { profiles().IsDefault(id, reply); });
    const auto incognito = AtOnce<bool>([&](auto reply) { profiles().IsIncognito(id, reply); });

    EXPECT_EQ(path->value(), live_.path() + "/default/Default");
    EXPECT_EQ(name->value(), "default");
    EXPECT_TRUE(is_default->value());
    EXPECT_FALSE(incognito->value());
  }
}

TEST_F(BrowserProfilesTest, NewProfileIsListedAndTold) {
  const auto profile =
      live_.Answer<rpc::ProfileInfo>([&](auto reply) { profiles().CreateProfile("Ada", reply); });

  ASSERT_TRUE(profile.ok()) << profile.status();
  EXPECT_EQ(profile->id().value(), "profile-1");
  EXPECT_EQ(profile->name(), "Ada");
  EXPECT_EQ(profile->path(), live_.path() + "/profile-1/Default");
  EXPECT_FALSE(profile->is_default() || profile->is_incognito() || profile->running());
  EXPECT_EQ(live_.List(), "default: profile-1:");
  EXPECT_EQ(live_.changes(), 1);
}

TEST_F(BrowserProfilesTest, ProfilesAreThereAfterARestart) {
  live_.CreateProfile("Ada");

  live_.Restart();

  EXPECT_EQ(live_.List(), "default: profile-1:");
  EXPECT_EQ(AtOnce<std::string>([&](auto reply) { profiles().Name("profile-1", reply); })->value(),
            "Ada");
}

TEST_F(BrowserProfilesTest, DeletedProfileIsGone) {
  live_.CreateProfile();

  EXPECT_EQ(live_.DeleteProfile("profile-1"), absl::OkStatus());

  EXPECT_EQ(live_.List(), "default:");
  EXPECT_FALSE(std::filesystem::exists(live_.path() + "/profile-1"));
  EXPECT_EQ(live_.DeleteProfile("profile-1"),
            absl::NotFoundError("there is no profile \"profile-1\""));
  EXPECT_EQ(live_.CreateProfile(), "profile-2");
}

TEST_F(BrowserProfilesTest, DefaultProfileStays) {
  EXPECT_TRUE(absl::IsFailedPrecondition(live_.DeleteProfile("")));
  EXPECT_TRUE(absl::IsFailedPrecondition(live_.DeleteProfile("default")));
  EXPECT_EQ(live_.List(), "default:");
}

TEST_F(BrowserProfilesTest, ProfileThatIsBeingDeletedIsLeftAlone) {
  live_.CreateProfile();
  std::optional<absl::StatusOr<Done>> deleted;
  profiles().DeleteProfile("profile-1", [&deleted](auto done) { deleted = done; });

  const absl::Status again = live_.DeleteProfile("profile-1");
  const absl::Status languages = live_.SetLanguages("profile-1", "fr");
  live_.loop().RunUntil([&deleted] { return deleted.has_value(); });

  for (const absl::Status& status : {again, languages}) {
    EXPECT_EQ(status, absl::FailedPreconditionError("the profile \"profile-1\" is being deleted"));
  }
  EXPECT_TRUE(deleted->ok()) << deleted->status();
}

TEST_F(BrowserProfilesTest, ProfileThatCannotBeDeletedIsAsBefore) {
  live_.CreateProfile();
  std::filesystem::create_symlink("elsewhere-1", live_.path() + "/profile-1/SingletonLock");

  const absl::Status status = live_.DeleteProfile("profile-1");
  std::filesystem::remove(live_.path() + "/profile-1/SingletonLock");

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(MessageOf(status), HasSubstr("elsewhere"));
  EXPECT_EQ(live_.List(), "default: profile-1:");
  EXPECT_EQ(live_.SetLanguages("profile-1", "fr"), absl::OkStatus());
}

TEST_F(BrowserProfilesTest, LanguagesAreKeptOnDisk) {
  live_.CreateProfile();
  EXPECT_EQ(live_.Languages(""), "en-US,en");

  EXPECT_EQ(live_.SetLanguages("profile-1", "fr-FR, fr"), absl::OkStatus());

  live_.Restart();
  EXPECT_EQ(live_.Languages("profile-1"), "fr-FR,fr");
  EXPECT_EQ(live_.Languages("default"), "en-US,en");
}

TEST_F(BrowserProfilesTest, RefusesBadLanguages) {
  EXPECT_TRUE(absl::IsInvalidArgument(live_.SetLanguages("", "de;q=0.9")));
}

TEST_F(BrowserProfilesTest, EveryCallNamesAnUnknownProfile) {
  const absl::Status expected = absl::NotFoundError("there is no profile \"Nobody\"");
  const auto path = AtOnce<std::string>([&](auto reply) { profiles().Path("Nobody", reply); });
  const auto user_agent =
      AtOnce<UserAgent>([&](auto reply) { profiles().GetUserAgent("Nobody", reply); });

  EXPECT_EQ(path->status(), expected);
  EXPECT_EQ(user_agent->status(), expected);
  EXPECT_EQ(live_.SetLanguages("Nobody", "fr"), expected);
  EXPECT_EQ(live_.Languages("Nobody"), expected.ToString());
  EXPECT_EQ(live_.DeleteProfile("Nobody"), expected);
  EXPECT_EQ(live_.OpenBrowser("Nobody").status(), expected);
}

TEST_F(BrowserProfilesTest, UserAgentIsWhatTheHostWasTold) {
  const auto user_agent =
      AtOnce<UserAgent>([&](auto reply) { profiles().GetUserAgent("", reply); });

  EXPECT_EQ(user_agent->value().text, "Robot Chrome/99.1.2.3");
}

TEST_F(BrowserProfilesTest, BrowserThatCannotStartFailsTheCallAlone) {
  const absl::Status status = live_.OpenBrowser("").status();

  EXPECT_FALSE(status.ok());
  EXPECT_THAT(MessageOf(status), HasSubstr("/nonexistent/browser"));
  EXPECT_EQ(live_.List(), "default:");
  EXPECT_EQ(live_.SetLanguages("", "fr"), absl::OkStatus());
  EXPECT_EQ(live_.Languages(""), "fr");
}

TEST_F(BrowserProfilesTest, RequestsThatMakeNoSenseStartNoBrowser) {
  EXPECT_THAT(MessageOf(live_.OpenBrowser("", "example.org").status()),
              AllOf(HasSubstr("example.org"), HasSubstr("not absolute")));
}

TEST_F(BrowserProfilesTest, WindowNeedsADisplay) {
  const ScopedVariable x11("DISPLAY", "");
  const ScopedVariable wayland("WAYLAND_DISPLAY", "");

  const auto answer =
      AtOnce<int64_t>([&](auto reply) { profiles().CreateBrowser(rpc::BrowserOptions(), reply); });

  EXPECT_TRUE(absl::IsFailedPrecondition(answer->status())) << answer->status();
  EXPECT_THAT(MessageOf(answer->status()), HasSubstr("headless"));
}

TEST_F(BrowserProfilesTest, UnknownBrowserIsNamed) {
  EXPECT_EQ(live_.CloseBrowser(17), absl::NotFoundError("there is no browser 17"));
}

TEST_F(BrowserProfilesTest, EveryCallIsAnsweredOnceWhenTheHostGoes) {
  int answers = 0;
  const auto count = [&answers](const auto& answer) {
    ++answers;
    EXPECT_TRUE(answer.ok() || absl::IsUnavailable(answer.status())) << answer.status();
  };
  profiles().CreateProfile("Ada", count);
  profiles().SetAcceptLanguage("", "fr", count);
  profiles().GetAcceptLanguage("", count);
  profiles().GetUserAgent("", count);

  live_.CloseAndDestroy();

  EXPECT_EQ(answers, 4);
}

TEST_F(BrowserProfilesTest, NothingIsBegunAfterClose) {
  live_.Close();

  EXPECT_TRUE(absl::IsUnavailable(live_.OpenBrowser("").status()));
  EXPECT_THAT(live_.CreateProfile(), HasSubstr("UNAVAILABLE"));
  EXPECT_EQ(live_.List(), "default:");
}

}  // namespace
}  // namespace varnic::host
