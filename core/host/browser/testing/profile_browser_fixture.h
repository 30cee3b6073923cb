#ifndef CORE_HOST_BROWSER_TESTING_PROFILE_BROWSER_FIXTURE_H_
#define CORE_HOST_BROWSER_TESTING_PROFILE_BROWSER_FIXTURE_H_

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"
#include "core/common/rpc/testing/fake_scheduler.h"
#include "core/host/browser/profile_browser.h"
#include "core/host/browser/testing/scoped_variable.h"
#include "core/host/question_asker.h"
#include "core/host/testing/temporary_folder.h"
#include "gtest/gtest.h"

namespace varnic::host::testing {

// One profile's browser, and what it tells its visitor, as text. Nobody answers questions.
class ProfileBrowserFixture : public ::testing::Test, public ProfileBrowser::Visitor {
 protected:
  ProfileBrowserFixture() {
    for (const char* name : {"data", "home", "tmp"}) {
      std::filesystem::create_directory(folder_.Path(name));
    }
    options_.keeper.process.launch.user_data_dir = folder_.Path("data");
    options_.keeper.pacing.first_delay = absl::ZeroDuration();
    options_.user_agent = UserAgentOf({"Chromium", "99.0.1.2"});
  }
  ~ProfileBrowserFixture() override {
    browser_ = nullptr;
    files_ = nullptr;
    while (loop_.RunPending() != 0) continue;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  }

  void OnWindowOpened(const BrowserWindow& window) override {
    opened_.push_back(window);
    Log(absl::StrCat("opened ", Describe(window)));
  }
  void OnWindowChanged(const BrowserWindow& window) override {
    Log(absl::StrCat("changed ", Describe(window)));
  }
  void OnWindowClosed(const BrowserWindow& window) override {
    Log(absl::StrCat("closed ", Describe(window)));
  }
  void OnContextClosed(const std::string& context) override {
    Log(absl::StrCat("context closed ", context));
  }
  void OnRunning(bool is_running) override { Log(is_running ? "running" : "not running"); }

  void MakeBrowser() {
    browser_ = std::make_unique<ProfileBrowser>(
        loop_, *files_, options_, asker_,
        [](const std::string&) { return std::vector<ProfileId>(); }, *this);
  }
  void Log(std::string line) {
    log_.push_back(std::move(line));
    if (on_log_ != nullptr) on_log_();
  }
  // Without ids that a real browser chooses.
  std::string Describe(const BrowserWindow& window) const {
    return absl::StrCat(window.context.empty() ? "" : "incognito ", window.url);
  }

  // Runs the loop until a call has come to its one reply.
  template <class T>
  absl::StatusOr<T> Wait(const std::function<void(Reply<T>)>& call) {
    std::optional<absl::StatusOr<T>> result;
    call([&result](absl::StatusOr<T> reply) {
      EXPECT_FALSE(result.has_value()) << "a second reply";
      result = std::move(reply);
    });
    loop_.RunUntil([&result] { return result.has_value(); });
    return *std::move(result);
  }
  absl::StatusOr<BrowserWindow> Open(const WindowOptions& options,
                                     const std::string& context = "") {
    return Wait<BrowserWindow>([&](Reply<BrowserWindow> reply) {
      browser_->OpenWindow(context, options, std::move(reply));
    });
  }
  absl::StatusOr<BrowserWindow> Open(const std::string& url) {
    WindowOptions options;
    options.url = url;
    return Open(options);
  }
  absl::StatusOr<BrowserWindow> OpenIncognito(const std::string& url) {
    WindowOptions options;
    options.url = url;
    return Wait<BrowserWindow>([&](Reply<BrowserWindow> reply) {
      browser_->OpenIncognitoWindow(
          options, [this](const std::string&) { Log("context"); }, std::move(reply));
    });
  }
  absl::Status CloseWindow(const BrowserWindow& window) {
    return Wait<Done>([&](Reply<Done> reply) {
             browser_->CloseWindow(window.target_id, std::move(reply));
           })
        .status();
  }
  absl::Status SetLanguages(const std::string& list) {
    return Wait<Done>(
               [&](Reply<Done> reply) { browser_->SetAcceptLanguage(list, std::move(reply)); })
        .status();
  }
  absl::StatusOr<std::string> Languages(const std::string& context = "") {
    return Wait<std::string>(
        [&](Reply<std::string> reply) { browser_->GetAcceptLanguage(context, std::move(reply)); });
  }
  void Close() {
    bool is_closed = false;
    browser_->Close([&is_closed] { is_closed = true; });
    loop_.RunUntil([&is_closed] { return is_closed; });
  }
  // Runs the loop until `condition` holds; what it asks about need not wake it.
  void WaitFor(const std::function<bool()>& condition, const std::string& what) {
    net::Timer tick(loop_);
    const absl::Time deadline = absl::Now() + absl::Seconds(30);
    std::function<void()> again = [&] { tick.Start(absl::Milliseconds(10), again); };
    again();
    loop_.RunUntil([&] { return condition() || absl::Now() > deadline; });
    EXPECT_TRUE(condition()) << what;
  }
  // Runs the loop until the last line is `line`.
  void RunUntilLogged(const std::string& line) {
    loop_.RunUntil([&] { return !log_.empty() && log_.back() == line; });
  }

  TemporaryFolder folder_;
  const ScopedVariable home_{"HOME", folder_.Path("home")};
  const ScopedVariable temporary_{"TMPDIR", folder_.Path("tmp")};
  net::EventLoop loop_;
  std::unique_ptr<TaskThread> files_ = std::make_unique<TaskThread>(
      [this](std::function<void()> function) { loop_.Post(std::move(function)); });
  varnic::testing::FakeScheduler scheduler_;
  QuestionAsker asker_{scheduler_, QuestionOptions()};
  ProfileBrowserOptions options_;
  std::vector<std::string> log_;
  std::vector<BrowserWindow> opened_;
  std::function<void()> on_log_;
  std::unique_ptr<ProfileBrowser> browser_;
};

}  // namespace varnic::host::testing

#endif  // CORE_HOST_BROWSER_TESTING_PROFILE_BROWSER_FIXTURE_H_
