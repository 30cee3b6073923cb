// A profile's browser with the real Chromium of the system: what pages and servers see of it.

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "absl/strings/match.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "core/host/browser/testing/page_server.h"
#include "core/host/browser/testing/profile_browser_fixture.h"
#include "core/host/browser/user_agent_override.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::Contains;
using ::testing::Not;
using testing::PageServer;
using ::testing::StartsWith;

constexpr char kChromium[] = "/usr/bin/chromium";

std::map<std::string, std::string> Pages() {
  return {{"/workers",
           "<script>new Worker('/worker.js'); new SharedWorker('/shared.js');"
           "navigator.serviceWorker.register('/service.js');</script>"},
          {"/worker.js", "fetch('/from-worker'); new Worker('/inner.js');"},
          {"/inner.js", "fetch('/from-inner-worker');"},
          {"/shared.js", "fetch('/from-shared-worker');"},
          {"/service.js", "oninstall = event => event.waitUntil(fetch('/from-service-worker'));"},
          {"/popups", "<script>open('/popup'); open('/popup-alone', '', 'noopener');</script>"},
          {"/dialogs", "<script>alert(1); document.title = confirm(2) + ' ' + prompt(3);</script>"},
          {"/names",
           "<script>const long = 'n'.repeat(4e7); const frame = document.createElement('iframe');"
           "frame.name = long; frame.src = '/frame';"
           "frame.onload = () => { open('/popup', long); document.title = 'named'; };"
           "document.documentElement.append(frame);</script>"},
          {"/languages",
           "<script>onlanguagechange = () => { document.title = navigator.languages.join(); };"
           "document.title = navigator.languages.join();</script>"},
          {"/online",
           "<script>document.title = navigator.onLine;"
           "onoffline = ononline = () => { document.title = navigator.onLine; };</script>"}};
}

class ProfileChromiumTest : public testing::ProfileBrowserFixture {
 protected:
  void SetUp() override {
    if (::access(kChromium, X_OK) != 0) {
      GTEST_SKIP() << kChromium << " is not installed: install Debian's package chromium";
    }
    options_.keeper.process.launch.program = kChromium;
    options_.keeper.process.launch.without_sandbox = ::geteuid() == 0;
    // Without it, a page may open a window only when somebody clicks.
    options_.keeper.process.launch.more_arguments = {"--disable-popup-blocking"};
    MakeBrowser();
  }

  PageServer::Headers RequestOf(const std::string& path) {
    WaitFor([&] { return server_->WasAsked(path); }, path);
    return server_->Request(path);
  }
  void WaitForTitle(const std::string& title) {
    WaitFor([&] { return last_title_ == title; }, title);
    EXPECT_EQ(last_title_, title);
  }
  void OnWindowChanged(const BrowserWindow& window) override {
    last_title_ = window.title;
    was_named_ = was_named_ || window.title == "named";
    ProfileBrowserFixture::OnWindowChanged(window);
  }

  // What a server hears of the settings of the profile: `hints` come with pages alone.
  void ExpectSettings(const PageServer::Headers& request, const std::string& languages,
                      bool with_hints) {
    const auto header = [&request](const std::string& name) {
      const auto it = request.find(name);
      return it == request.end() ? std::string("none") : it->second;
    };
    EXPECT_EQ(header("user-agent"), options_.user_agent.text);
    EXPECT_EQ(header("accept-language"), languages);
    if (!with_hints) return;
    const auto hints = ClientHintHeaders(options_.user_agent);
    for (const char* name : {"sec-ch-ua", "sec-ch-ua-mobile", "sec-ch-ua-platform"}) {
      EXPECT_EQ(header(name), hints.at(name));
    }
  }
  pid_t BrowserPid() {
    std::error_code error;
    const std::string holder =
        std::filesystem::read_symlink(folder_.Path("data") + "/SingletonLock", error).string();
    pid_t pid = 0;
    EXPECT_TRUE(absl::SimpleAtoi(holder.substr(holder.rfind('-') + 1), &pid)) << holder;
    return pid;
  }

  std::unique_ptr<PageServer> server_ = std::make_unique<PageServer>(Pages());
  std::string last_title_;
  bool was_named_ = false;  // A page had this title.
};

TEST_F(ProfileChromiumTest, FirstRequestOfEveryWindowCarriesAllSettings) {
  options_.user_agent.metadata.set_platform("Plan 9");
  MakeBrowser();
  ASSERT_TRUE(Open("").ok());
  ASSERT_TRUE(SetLanguages("fr-FR,fr").ok());

  ASSERT_TRUE(Open(server_->Url("/window")).ok());
  ASSERT_TRUE(OpenIncognito(server_->Url("/incognito")).ok());
  ASSERT_TRUE(Open(server_->Url("/popups")).ok());

  ExpectSettings(RequestOf("/window"), "fr-FR,fr;q=0.9", true);
  EXPECT_THAT(RequestOf("/incognito")["accept-language"], StartsWith("fr-FR,fr;q=0.9"));
  ExpectSettings(RequestOf("/incognito"), RequestOf("/incognito")["accept-language"], true);
  ExpectSettings(RequestOf("/popups"), "fr-FR,fr;q=0.9", true);
  ExpectSettings(RequestOf("/popup"), "fr-FR,fr;q=0.9", true);
  ExpectSettings(RequestOf("/popup-alone"), "fr-FR,fr;q=0.9", true);
  Close();
}

TEST_F(ProfileChromiumTest, WorkersAndFramesCarryTheSettingsToo) {
  ASSERT_TRUE(Open("").ok());
  ASSERT_TRUE(SetLanguages("fr-FR,fr").ok());
  const std::string frame =
      absl::StrCat("<iframe src='", server_->OtherUrl("/frame"), "'></iframe>");
  PageServer outer({{"/", frame}});

  ASSERT_TRUE(Open(server_->Url("/workers")).ok());
  ASSERT_TRUE(Open(outer.Url("/")).ok());

  ExpectSettings(RequestOf("/frame"), "fr-FR,fr;q=0.9", true);
  for (const char* path : {"/worker.js", "/shared.js", "/service.js", "/inner.js", "/from-worker",
                           "/from-inner-worker", "/from-shared-worker", "/from-service-worker"}) {
    SCOPED_TRACE(path);
    ExpectSettings(RequestOf(path), "fr-FR,fr;q=0.9", false);
  }
  Close();
}

TEST_F(ProfileChromiumTest, LanguagesChangeInAnOpenPageAndStay) {
  ASSERT_TRUE(Open(server_->Url("/languages")).ok());

  ASSERT_TRUE(SetLanguages("pt-BR,pt").ok());
  WaitForTitle("pt-BR,pt");

  const auto languages = Languages();
  ASSERT_TRUE(languages.ok()) << languages.status();
  EXPECT_EQ(*languages, "pt-BR,pt");
  const auto incognito = OpenIncognito("");
  ASSERT_TRUE(incognito.ok()) << incognito.status();
  const auto seen = Languages(incognito->context);
  ASSERT_TRUE(seen.ok()) << seen.status();
  EXPECT_THAT(*seen, StartsWith("pt-BR,pt"));
  EXPECT_EQ(opened_.size(), 2u) << "the settings are no window";
  Close();
}

TEST_F(ProfileChromiumTest, PagesSeeTheNetworkGoAndCome) {
  ASSERT_TRUE(Open(server_->Url("/online")).ok());
  WaitForTitle("true");

  browser_->SetNetworkState(false);
  WaitForTitle("false");

  browser_->SetNetworkState(true);
  WaitForTitle("true");
  Close();
}

TEST_F(ProfileChromiumTest, DialogsDoNotKeepAHeadlessPage) {
  const auto window = Open(server_->Url("/dialogs"));
  ASSERT_TRUE(window.ok()) << window.status();

  WaitForTitle("false null");

  EXPECT_TRUE(CloseWindow(*window).ok());
  Close();
}

TEST_F(ProfileChromiumTest, NamesThatAreLongerThanAMessageEndNothing) {
  ASSERT_TRUE(Open(server_->Url("/names")).ok());

  WaitFor([this] { return was_named_; }, "the title after both names");

  EXPECT_TRUE(Open("").ok());
  EXPECT_THAT(log_, Not(Contains("not running")));
  Close();
}

TEST_F(ProfileChromiumTest, ClosedWindowsTakeTheirIncognitoContextAlong) {
  const auto window = OpenIncognito("about:blank");
  ASSERT_TRUE(window.ok()) << window.status();

  EXPECT_TRUE(CloseWindow(*window).ok());

  EXPECT_THAT(log_, Contains("context closed " + window->context));
  EXPECT_TRUE(Open("about:blank").ok()) << "it runs on without windows";
  Close();
}

TEST_F(ProfileChromiumTest, CrashedPageClosesItsWindow) {
  ASSERT_TRUE(Open("").ok());

  ASSERT_TRUE(Open("chrome://crash").ok());
  WaitFor([this] { return absl::StartsWith(log_.back(), "closed"); }, "the end of the window");

  EXPECT_TRUE(Open("").ok());
  Close();
}

TEST_F(ProfileChromiumTest, BrowserKilledWhileItOpensAWindowAnswersOnceAndComesBack) {
  on_log_ = [this] {
    if (log_.back() == "context") ::kill(BrowserPid(), SIGKILL);
  };

  const auto window = OpenIncognito(server_->Url("/never"));
  RunUntilLogged("not running");
  const auto next = Open(server_->Url("/again"));

  EXPECT_TRUE(absl::IsUnavailable(window.status())) << window.status();
  ASSERT_TRUE(next.ok()) << next.status();
  RequestOf("/again");
  EXPECT_EQ(log_[2].substr(0, 14), "context closed");
  Close();
}

}  // namespace
}  // namespace varnic::host
