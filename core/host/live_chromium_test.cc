// Profiles with the real browser of the system.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/numbers.h"
#include "core/host/browser/testing/process_list.h"
#include "core/host/testing/live_profiles.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using testing::ComesTrue;
using ::testing::HasSubstr;
using testing::LiveProfiles;
using testing::LivingProcessesWith;

constexpr char kChromium[] = "/usr/bin/chromium";

class LiveChromiumTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access(kChromium, X_OK) != 0) {
      GTEST_SKIP() << kChromium << " is not installed: install Debian's package chromium";
    }
    BrowserProfilesOptions options;
    options.keeper.process.launch.program = kChromium;
    options.keeper.process.launch.without_sandbox = ::geteuid() == 0;
    options.keeper.pacing.first_delay = absl::ZeroDuration();
    options.max_browsers = 3;
    live_ = std::make_unique<LiveProfiles>(std::move(options));
  }
  void TearDown() override {
    if (live_ == nullptr) return;
    live_->CloseAndDestroy();
    EXPECT_TRUE(ComesTrue([this] { return LivingProcessesWith(live_->path()).empty(); }));
    live_ = nullptr;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  }

  // Waits until the profiles are listed as that.
  void WaitForList(const std::string& list) {
    while (live_->List() != list) {
      const int changes = live_->changes();
      live_->loop().RunUntil([&] { return live_->changes() != changes; });
    }
  }
  pid_t BrowserOf(const std::string& profile) {
    std::error_code error;
    const std::string holder =
        std::filesystem::read_symlink(live_->path() + "/" + profile + "/SingletonLock", error)
            .string();
    pid_t pid = 0;
    EXPECT_TRUE(absl::SimpleAtoi(holder.substr(holder.rfind('-') + 1), &pid)) << holder;
    return pid;
  }
  std::string Settings(const std::string& profile) {
    return live_->folder().Read("profiles/" + profile + "/Default/Preferences");
  }

  std::unique_ptr<LiveProfiles> live_;
};

TEST_F(LiveChromiumTest, ProfilesHaveBrowsersOfTheirOwn) {
  ASSERT_EQ(live_->CreateProfile("Ada"), "profile-1");

  const auto first = live_->OpenBrowser("");
  const auto second = live_->OpenBrowser("profile-1", "data:text/html,<title>Hello</title>");
  ASSERT_TRUE(first.ok() && second.ok()) << first.status() << second.status();

  EXPECT_EQ(live_->List(), "default:1 profile-1:2");
  EXPECT_NE(BrowserOf("default"), BrowserOf("profile-1"));
  EXPECT_EQ(live_->CloseBrowser(*first), absl::OkStatus());
  EXPECT_EQ(live_->List(), "default: profile-1:2");
  EXPECT_EQ(live_->DeleteProfile("profile-1"), absl::OkStatus());
  EXPECT_EQ(live_->List(), "default:");
  EXPECT_FALSE(std::filesystem::exists(live_->path() + "/profile-1"));
  EXPECT_TRUE(LivingProcessesWith(live_->path() + "/profile-1").empty());
}

TEST_F(LiveChromiumTest, IncognitoProfileLivesAsLongAsItsBrowsers) {
  const auto first = live_->OpenBrowser("", "", /*incognito=*/true);
  ASSERT_TRUE(first.ok()) << first.status();
  const auto second = live_->OpenBrowser("default-incognito-1");
  ASSERT_TRUE(second.ok()) << second.status();

  EXPECT_EQ(live_->List(), "default: default-incognito-1:1,2");
  const absl::Status languages = live_->SetLanguages("default-incognito-1", "fr");
  EXPECT_TRUE(absl::IsFailedPrecondition(languages)) << languages;
  EXPECT_THAT(std::string(languages.message()), HasSubstr("\"default\""));
  EXPECT_THAT(live_->Languages("default-incognito-1"), HasSubstr("en"));

  EXPECT_EQ(live_->DeleteProfile("default-incognito-1"), absl::OkStatus());
  WaitForList("default:");
  ASSERT_TRUE(live_->OpenBrowser("", "", /*incognito=*/true).ok());
  EXPECT_EQ(live_->List(), "default: default-incognito-2:3");
}

TEST_F(LiveChromiumTest, LanguagesSurviveABrowserThatIsKilled) {
  ASSERT_TRUE(live_->OpenBrowser("").ok());
  ASSERT_EQ(live_->SetLanguages("", "fr-FR,fr"), absl::OkStatus());
  EXPECT_EQ(live_->Languages(""), "fr-FR,fr");

  const pid_t browser = BrowserOf("default");
  ASSERT_GT(browser, 1);
  ::kill(browser, SIGKILL);
  WaitForList("default:");

  EXPECT_EQ(live_->Languages(""), "fr-FR,fr");
  ASSERT_TRUE(live_->OpenBrowser("").ok());
  EXPECT_EQ(live_->List(), "default:2");
  EXPECT_EQ(live_->Languages(""), "fr-FR,fr");
  live_->CloseAndDestroy();
  EXPECT_THAT(Settings("default"), HasSubstr(R"("selected_languages":"fr-FR,fr")"));
}

TEST_F(LiveChromiumTest, LanguagesSurviveAHostThatKillsItsBrowsers) {
  ASSERT_TRUE(live_->OpenBrowser("").ok());
  ASSERT_EQ(live_->SetLanguages("", "fr-FR,fr"), absl::OkStatus());

  live_->RestartAtOnce();

  EXPECT_EQ(live_->Languages(""), "fr-FR,fr");
  ASSERT_TRUE(live_->OpenBrowser("").ok());
  EXPECT_EQ(live_->Languages(""), "fr-FR,fr");
}

TEST_F(LiveChromiumTest, LanguagesSetBeforeTheStartAreTheBrowsers) {
  ASSERT_EQ(live_->SetLanguages("", "it-IT,it"), absl::OkStatus());

  ASSERT_TRUE(live_->OpenBrowser("").ok());

  EXPECT_EQ(live_->Languages(""), "it-IT,it");
}

TEST_F(LiveChromiumTest, NoMoreBrowsersThanAllowed) {
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(live_->OpenBrowser("").ok());

  const absl::Status status = live_->OpenBrowser("").status();

  EXPECT_TRUE(absl::IsResourceExhausted(status)) << status;
  EXPECT_EQ(live_->CloseBrowser(1), absl::OkStatus());
  EXPECT_TRUE(live_->OpenBrowser("").ok());
}

TEST_F(LiveChromiumTest, NewProfileHasItsNameInTheBrowserToo) {
  ASSERT_EQ(live_->CreateProfile("Ada"), "profile-1");
  ASSERT_TRUE(live_->OpenBrowser("profile-1").ok());

  live_->CloseAndDestroy();

  EXPECT_THAT(live_->folder().Read("profiles/profile-1/Local State"), HasSubstr(R"("name":"Ada")"));
  EXPECT_THAT(Settings("profile-1"), HasSubstr(R"("exit_type":"Normal")"));
}

}  // namespace
}  // namespace varnic::host
