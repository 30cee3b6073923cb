// A profile's browser with one that stands in for Chromium: orders and failures.

#include "core/host/browser/profile_browser.h"

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "core/host/browser/testing/profile_browser_fixture.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::Not;

class ProfileBrowserTest : public testing::ProfileBrowserFixture {
 protected:
  ProfileBrowserTest() {
    options_.keeper.process.launch.program = VARNIC_FAKE_BROWSER;
    options_.keeper.process.launch.without_sandbox = true;  // So that root may run it.
  }

  void MakeBrowserThat(std::vector<std::string> behaviour) {
    behaviour.push_back("--journal=" + journal_);
    options_.keeper.process.launch.more_arguments = std::move(behaviour);
    MakeBrowser();
  }
  // The commands that the browser got.
  std::vector<std::string> Journal() const {
    std::ifstream file(journal_);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }
  bool HasBeenTold(const std::string& command) const {
    const std::vector<std::string> journal = Journal();
    return std::find(journal.begin(), journal.end(), command) != journal.end();
  }
  static WindowOptions OnScreen() {
    WindowOptions options;
    options.headless = false;
    return options;
  }

  const std::string journal_ = folder_.Path("journal");
};

TEST_F(ProfileBrowserTest, WindowIsSetUpBeforeItGoesToItsPage) {
  MakeBrowserThat({});

  const auto window = Open("http://a/");

  ASSERT_TRUE(window.ok()) << window.status();
  EXPECT_EQ(window->url, "http://a/");
  EXPECT_TRUE(window->headless);
  EXPECT_THAT(log_, ElementsAre("running", "opened http://a/"));
  EXPECT_THAT(Journal(),
              IsSupersetOf({"Target.createTarget about:blank", "Emulation.setUserAgentOverride S1",
                            "Page.navigate S1 http://a/"}));
  const std::vector<std::string> journal = Journal();
  const auto at = [&journal](const char* line) {
    return std::find(journal.begin(), journal.end(), line);
  };
  EXPECT_LT(at("Fetch.enable"), at("Target.setAutoAttach"));
  EXPECT_LT(at("Emulation.setUserAgentOverride S1"), at("Runtime.runIfWaitingForDebugger S1"));
  EXPECT_LT(at("Emulation.setUserAgentOverride S1"), at("Page.navigate S1 http://a/"));
}

TEST_F(ProfileBrowserTest, WindowMayComeAfterTheAnswerThatNamesIt) {
  MakeBrowserThat({"--attach-late"});

  const auto window = Open("http://a/");

  ASSERT_TRUE(window.ok()) << window.status();
  EXPECT_THAT(log_, ElementsAre("running", "opened http://a/"));
}

TEST_F(ProfileBrowserTest, PopupOfAPageIsAWindow) {
  MakeBrowserThat({});

  ASSERT_TRUE(Open("popup:").ok());
  RunUntilLogged("opened popup:");

  EXPECT_THAT(log_, ElementsAre("running", "opened about:blank", "opened popup:"));
}

TEST_F(ProfileBrowserTest, AddressThatTheBrowserCannotReadOpensNoWindow) {
  MakeBrowserThat({});

  const auto window = Open("no-address:");

  EXPECT_TRUE(absl::IsInvalidArgument(window.status())) << window.status();
  EXPECT_THAT(std::string(window.status().message()), HasSubstr("\"no-address:\""));
  EXPECT_THAT(log_, ElementsAre("running"));
  EXPECT_TRUE(Open("").ok());
  EXPECT_THAT(Journal(), Contains("Target.closeTarget"));
}

TEST_F(ProfileBrowserTest, IncognitoContextGoesWithItsLastWindow) {
  MakeBrowserThat({});
  const auto first = OpenIncognito("http://a/");
  ASSERT_TRUE(first.ok()) << first.status();
  WindowOptions options;
  options.url = "http://b/";
  const auto second = Open(options, first->context);
  ASSERT_TRUE(second.ok()) << second.status();
  EXPECT_EQ(second->context, first->context);

  EXPECT_TRUE(CloseWindow(*first).ok());
  EXPECT_THAT(log_, Not(Contains("context closed C1")));
  EXPECT_TRUE(CloseWindow(*second).ok());

  EXPECT_THAT(log_, ElementsAre("running", "context", "opened incognito http://a/",
                                "opened incognito http://b/", "closed incognito http://a/",
                                "closed incognito http://b/", "context closed C1"));
  EXPECT_TRUE(absl::IsNotFound(Open(options, first->context).status()));
  EXPECT_TRUE(absl::IsNotFound(CloseWindow(*second)));
}

TEST_F(ProfileBrowserTest, HeadlessWindowWhosePageCrashesIsClosed) {
  MakeBrowserThat({});

  ASSERT_TRUE(Open("crash-page:").ok());
  RunUntilLogged("closed crash-page:");

  EXPECT_TRUE(browser_->is_running());
}

TEST_F(ProfileBrowserTest, BrowserThatDiesWhileItOpensAWindowFailsThatCallAlone) {
  MakeBrowserThat({"--crash-at=Page.navigate"});
  ASSERT_TRUE(Open("").ok());

  const auto window = Open("http://a/");
  RunUntilLogged("not running");

  EXPECT_TRUE(absl::IsUnavailable(window.status())) << window.status();
  EXPECT_THAT(log_,
              ElementsAre("running", "opened about:blank", "closed about:blank", "not running"));
  EXPECT_TRUE(Open("").ok());
}

TEST_F(ProfileBrowserTest, BrowserThatDiesInItsPreparationFailsWhoWaits) {
  MakeBrowserThat({"--crash-at=Target.setAutoAttach"});

  const auto window = Open("");
  RunUntilLogged("not running");

  EXPECT_TRUE(absl::IsUnavailable(window.status())) << window.status();
  EXPECT_FALSE(browser_->is_running());
}

TEST_F(ProfileBrowserTest, ErrorOfThePreparationOfFilesIsTheCalls) {
  options_.prepare = [] { return absl::DataLossError("no such Preferences"); };
  MakeBrowserThat({});

  const auto window = Open("");

  EXPECT_EQ(window.status(), absl::DataLossError("no such Preferences"));
  EXPECT_FALSE(browser_->is_running());
}

TEST_F(ProfileBrowserTest, LanguagesAreAskedInTheSettingsUntilTheyAnswer) {
  MakeBrowserThat({"--settings-failures=3"});
  ASSERT_TRUE(Open("").ok());
  log_.clear();

  EXPECT_TRUE(SetLanguages("fr-FR,fr").ok());

  const auto languages = Languages();
  ASSERT_TRUE(languages.ok()) << languages.status();
  EXPECT_EQ(*languages, "fr-FR,fr");
  EXPECT_THAT(log_, ElementsAre());
}

TEST_F(ProfileBrowserTest, LanguagesOfAnIncognitoContextAreThoseOfItsPages) {
  MakeBrowserThat({});
  const auto window = OpenIncognito("");
  ASSERT_TRUE(window.ok()) << window.status();

  const auto languages = Languages(window->context);

  ASSERT_TRUE(languages.ok()) << languages.status();
  EXPECT_EQ(*languages, "en-GB,en");
  EXPECT_TRUE(absl::IsNotFound(Languages("another").status()));
}

TEST_F(ProfileBrowserTest, LanguagesOfABrowserThatDoesNotRunAreNotItsBusiness) {
  MakeBrowserThat({});

  EXPECT_TRUE(absl::IsFailedPrecondition(SetLanguages("de")));
  EXPECT_TRUE(absl::IsFailedPrecondition(Languages().status()));
  EXPECT_THAT(Journal(), ElementsAre());
}

TEST_F(ProfileBrowserTest, LanguagesThatAreSetWhileItStartsWaitForIt) {
  MakeBrowserThat({});
  browser_->OpenWindow("", WindowOptions(), [](const absl::StatusOr<BrowserWindow>&) {});
  ASSERT_TRUE(browser_->is_running());

  EXPECT_TRUE(SetLanguages("de").ok());

  EXPECT_THAT(Journal(), Contains("Target.createTarget chrome://settings/languages"));
}

TEST_F(ProfileBrowserTest, OtherModeIsTakenWhenNoWindowIsOpen) {
  MakeBrowserThat({});
  const auto window = Open("");
  ASSERT_TRUE(window.ok()) << window.status();
  EXPECT_TRUE(absl::IsFailedPrecondition(Open(OnScreen()).status()));
  ASSERT_TRUE(CloseWindow(*window).ok());

  const auto on_screen = Open(OnScreen());

  ASSERT_TRUE(on_screen.ok()) << on_screen.status();
  EXPECT_FALSE(on_screen->headless);
  const std::vector<std::string> journal = Journal();
  EXPECT_EQ(std::count(journal.begin(), journal.end(), "Browser.close"), 1);
  EXPECT_EQ(std::count(journal.begin(), journal.end(), "Browser.setDownloadBehavior"), 1);
}

TEST_F(ProfileBrowserTest, OtherModeIsRefusedWhileAWindowIsBeingOpened) {
  MakeBrowserThat({});
  bool is_open = false;
  browser_->OpenWindow("", WindowOptions(),
                       [&is_open](const absl::StatusOr<BrowserWindow>& w) { is_open = w.ok(); });

  EXPECT_TRUE(absl::IsFailedPrecondition(Open(OnScreen()).status()));

  loop_.RunUntil([&is_open] { return is_open; });
}

TEST_F(ProfileBrowserTest, NetworkStateReachesPagesThatAreAndThatCome) {
  MakeBrowserThat({});
  ASSERT_TRUE(Open("").ok());
  EXPECT_THAT(Journal(), Not(Contains(HasSubstr("Network.overrideNetworkState"))));

  browser_->SetNetworkState(false);
  ASSERT_TRUE(Open("").ok());

  EXPECT_THAT(Journal(),
              IsSupersetOf({"Network.overrideNetworkState S1", "Network.overrideNetworkState S2"}));
}

TEST_F(ProfileBrowserTest, CloseFailsWhatIsOpenAndStartsNothing) {
  MakeBrowserThat({"--silent-at=Target.createTarget"});
  std::vector<absl::Status> replies;
  browser_->OpenWindow("", WindowOptions(), [&](const absl::StatusOr<BrowserWindow>& window) {
    replies.push_back(window.status());
  });
  WaitFor([this] { return HasBeenTold("Target.createTarget about:blank"); }, "the command");

  Close();

  ASSERT_EQ(replies.size(), 1u);
  EXPECT_TRUE(absl::IsUnavailable(replies[0])) << replies[0];
  EXPECT_TRUE(absl::IsUnavailable(Open("").status()));
  EXPECT_THAT(log_, ElementsAre("running", "not running"));
}

TEST_F(ProfileBrowserTest, MayBeDestroyedWhenItIsClosed) {
  MakeBrowserThat({});
  ASSERT_TRUE(Open("").ok());

  browser_->Close([this] { browser_ = nullptr; });
  loop_.RunUntil([this] { return browser_ == nullptr; });

  EXPECT_THAT(log_,
              ElementsAre("running", "opened about:blank", "closed about:blank", "not running"));
}

TEST_F(ProfileBrowserTest, DestructionFailsWhatIsOpen) {
  MakeBrowserThat({"--silent-at=Browser.getVersion"});
  std::vector<absl::Status> replies;
  browser_->OpenWindow("", WindowOptions(), [&](const absl::StatusOr<BrowserWindow>& window) {
    replies.push_back(window.status());
  });

  browser_ = nullptr;

  ASSERT_EQ(replies.size(), 1u);
  EXPECT_TRUE(absl::IsUnavailable(replies[0])) << replies[0];
}

TEST_F(ProfileBrowserTest, WindowThatIsClosedWhileAllOfThemGoIsAnswered) {
  MakeBrowserThat({"--crash-at=Page.navigate"});
  const auto first = Open("");
  const auto second = Open("");
  ASSERT_TRUE(first.ok() && second.ok());
  std::vector<absl::Status> replies;
  on_log_ = [&] {
    if (log_.back() != "closed about:blank" || !replies.empty()) return;
    for (const auto& window : {first, second}) {
      browser_->CloseWindow(window->target_id, [&replies](const absl::StatusOr<Done>& reply) {
        replies.push_back(reply.status());
      });
    }
  };

  EXPECT_FALSE(Open("http://a/").ok());
  RunUntilLogged("not running");

  ASSERT_EQ(replies.size(), 2u);
  EXPECT_TRUE(absl::IsNotFound(replies[0])) << replies[0];
  EXPECT_TRUE(absl::IsUnavailable(replies[1])) << replies[1];
}

TEST_F(ProfileBrowserTest, WindowThatIsClosedByAReplyInTheDestructorIsAnswered) {
  MakeBrowserThat({});
  const auto window = Open("");
  ASSERT_TRUE(window.ok()) << window.status();
  std::vector<absl::Status> replies;
  browser_->OpenWindow("", WindowOptions(), [&, browser = browser_.get()](const auto&) {
    browser->CloseWindow(window->target_id, [&replies](const absl::StatusOr<Done>& reply) {
      replies.push_back(reply.status());
    });
  });

  browser_ = nullptr;

  ASSERT_EQ(replies.size(), 1u);
  EXPECT_TRUE(absl::IsUnavailable(replies[0])) << replies[0];
}

TEST_F(ProfileBrowserTest, WindowMayBeAskedForWhenTheLastOneHasDied) {
  MakeBrowserThat({"--crash-at=Page.navigate"});
  ASSERT_TRUE(Open("").ok());
  bool is_open = false;
  on_log_ = [&] {
    if (log_.back() != "closed about:blank") return;
    browser_->OpenWindow("", WindowOptions(),
                         [&is_open](const absl::StatusOr<BrowserWindow>& w) { is_open = w.ok(); });
  };

  EXPECT_FALSE(Open("http://a/").ok());
  loop_.RunUntil([&is_open] { return is_open; });

  EXPECT_TRUE(browser_->is_running());
}

}  // namespace
}  // namespace varnic::host
