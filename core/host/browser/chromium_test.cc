// The real browser of the system, from its start to its end.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/numbers.h"
#include "core/host/browser/browser_keeper.h"
#include "core/host/browser/testing/process_list.h"
#include "core/host/browser/testing/scoped_variable.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using testing::ComesTrue;
using ::testing::IsEmpty;
using testing::LivingProcessesWith;
using testing::ScopedVariable;
using ::testing::StartsWith;
using testing::TemporaryFolder;

constexpr char kChromium[] = "/usr/bin/chromium";

class ChromiumTest : public ::testing::Test, public BrowserKeeper::Visitor {
 protected:
  void SetUp() override {
    if (::access(kChromium, X_OK) != 0) {
      GTEST_SKIP() << kChromium << " is not installed: install Debian's package chromium";
    }
    ASSERT_FALSE(folder_.path().empty());
    for (const char* name : {"data", "home", "tmp"}) {
      std::filesystem::create_directory(folder_.Path(name));
    }
    BrowserKeeperOptions options;
    options.process.launch.program = kChromium;
    options.process.launch.user_data_dir = directory_;
    options.process.launch.without_sandbox = ::geteuid() == 0;
    options.pacing.first_delay = absl::ZeroDuration();
    keeper_ = std::make_unique<BrowserKeeper>(loop_, *files_, std::move(options), *this);
  }
  void TearDown() override {
    keeper_ = nullptr;
    files_ = nullptr;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  }

  void OnBrowserUp(DevToolsPipe&, const RunningBrowser& browser) override { up_ = browser; }
  void OnBrowserGone(const absl::Status& why) override { gone_.push_back(why); }

  // Waits for a browser.
  DevToolsPipe* Get() {
    std::optional<absl::StatusOr<DevToolsPipe*>> got;
    keeper_->Get([&got](absl::StatusOr<DevToolsPipe*> result) { got = result; });
    loop_.RunUntil([&got] { return got.has_value(); });
    EXPECT_TRUE(got->ok()) << got->status();
    return got->value_or(nullptr);
  }
  absl::StatusOr<Json> Call(DevToolsPipe& devtools, DevToolsCommand command) {
    std::optional<absl::StatusOr<Json>> answer;
    devtools.Call(std::move(command), [&answer](absl::StatusOr<Json> result) { answer = result; });
    loop_.RunUntil([&answer] { return answer.has_value(); });
    EXPECT_TRUE(answer->ok()) << answer->status();
    return *answer;
  }
  // The session of a new window.
  std::string OpenWindow(DevToolsPipe& devtools) {
    const auto target =
        Call(devtools, {"Target.createTarget", {{"url", "about:blank"}, {"newWindow", true}}});
    if (!target.ok()) return "";
    const auto session = Call(devtools, {"Target.attachToTarget",
                                         {{"targetId", (*target)["targetId"]}, {"flatten", true}}});
    return session.ok() ? (*session)["sessionId"].get<std::string>() : "";
  }
  Json Evaluate(DevToolsPipe& devtools, const std::string& session, const std::string& script) {
    const auto answer = Call(
        devtools, {"Runtime.evaluate", {{"expression", script}, {"returnByValue", true}}, session});
    return answer.ok() ? (*answer)["result"]["value"] : Json();
  }
  void Close() {
    bool is_closed = false;
    keeper_->Close([&is_closed] { is_closed = true; });
    loop_.RunUntil([&is_closed] { return is_closed; });
  }
  void ExpectNothingIsLeft() {
    files_ = nullptr;  // Waits for what it was given.
    EXPECT_TRUE(ComesTrue([this] { return LivingProcessesWith(directory_).empty(); }));
    EXPECT_THAT(folder_.Names("tmp"), IsEmpty());
    EXPECT_FALSE(std::filesystem::is_symlink(directory_ + "/SingletonLock"));
    keeper_ = nullptr;
  }
  pid_t HolderOfTheLock() {
    std::error_code error;
    const std::string holder =
        std::filesystem::read_symlink(directory_ + "/SingletonLock", error).string();
    pid_t pid = 0;
    EXPECT_TRUE(absl::SimpleAtoi(holder.substr(holder.rfind('-') + 1), &pid)) << holder;
    return pid;
  }

  TemporaryFolder folder_;
  const std::string directory_ = folder_.Path("data");
  // Whatever it leaves is to be found.
  const ScopedVariable home_{"HOME", folder_.Path("home")};
  const ScopedVariable temporary_{"TMPDIR", folder_.Path("tmp")};
  net::EventLoop loop_;
  std::unique_ptr<TaskThread> files_ = std::make_unique<TaskThread>(
      [this](std::function<void()> function) { loop_.Post(std::move(function)); });
  std::optional<RunningBrowser> up_;
  std::vector<absl::Status> gone_;
  std::unique_ptr<BrowserKeeper> keeper_;
};

TEST_F(ChromiumTest, OpensAPageAndLeavesNothing) {
  DevToolsPipe* const devtools = Get();
  ASSERT_NE(devtools, nullptr);
  EXPECT_THAT(up_->product, StartsWith("Chrome/"));
  const std::string session = OpenWindow(*devtools);
  bool is_loaded = false;
  devtools->Listen(session, "Page.loadEventFired", [&is_loaded](const Json&) { is_loaded = true; });
  EXPECT_TRUE(Call(*devtools, {"Page.enable", Json::object(), session}).ok());

  const DevToolsCommand navigate = {
      "Page.navigate", {{"url", "data:text/html,<title>Hello</title>"}}, session};
  EXPECT_TRUE(Call(*devtools, navigate).ok());
  loop_.RunUntil([&] { return is_loaded || !gone_.empty(); });

  EXPECT_EQ(Evaluate(*devtools, session, "document.title"), "Hello");
  EXPECT_EQ(Evaluate(*devtools, session, "'\\ud83d' + 'é'"), "\uFFFDé");
  EXPECT_EQ(devtools->bad_messages(), 0u);
  Close();
  EXPECT_THAT(gone_, ::testing::ElementsAre(absl::OkStatus()));
  ExpectNothingIsLeft();
}

TEST_F(ChromiumTest, EndOfASessionEndsItsCommands) {
  DevToolsPipe* const devtools = Get();
  ASSERT_NE(devtools, nullptr);
  const std::string session = OpenWindow(*devtools);
  std::optional<absl::StatusOr<Json>> endless;
  devtools->Call({"Runtime.evaluate",
                  {{"expression", "new Promise(() => {})"}, {"awaitPromise", true}},
                  session},
                 [&endless](absl::StatusOr<Json> answer) { endless = std::move(answer); });

  EXPECT_TRUE(Call(*devtools, {"Target.detachFromTarget", {{"sessionId", session}}}).ok());
  loop_.RunUntil([&] { return endless.has_value() || !gone_.empty(); });

  ASSERT_TRUE(endless.has_value());
  EXPECT_FALSE(endless->ok());
  Close();
  ExpectNothingIsLeft();
}

TEST_F(ChromiumTest, KilledBrowserEndsItsCommandsAndIsStartedAgain) {
  DevToolsPipe* devtools = Get();
  ASSERT_NE(devtools, nullptr);
  const std::string session = OpenWindow(*devtools);
  const pid_t browser = HolderOfTheLock();
  std::optional<absl::StatusOr<Json>> endless;
  devtools->Call({"Runtime.evaluate",
                  {{"expression", "new Promise(() => {})"}, {"awaitPromise", true}},
                  session},
                 [&endless](absl::StatusOr<Json> answer) { endless = std::move(answer); });

  ASSERT_GT(browser, 1);
  ::kill(browser, SIGKILL);
  loop_.RunUntil([this] { return !gone_.empty(); });

  EXPECT_TRUE(endless.has_value() && absl::IsUnavailable(endless->status()));
  EXPECT_TRUE(absl::IsUnavailable(gone_[0])) << gone_[0];
  EXPECT_TRUE(std::filesystem::is_symlink(directory_ + "/SingletonLock"));
  devtools = Get();
  ASSERT_NE(devtools, nullptr);
  EXPECT_NE(HolderOfTheLock(), browser);
  EXPECT_TRUE(Call(*devtools, {"Browser.getVersion"}).ok());
  Close();
  ExpectNothingIsLeft();
}

TEST_F(ChromiumTest, SecondBrowserOnADirectoryIsRefused) {
  ASSERT_NE(Get(), nullptr);
  BrowserKeeperOptions options;
  options.process.launch.user_data_dir = directory_;
  options.process.launch.without_sandbox = ::geteuid() == 0;
  BrowserKeeper second(loop_, *files_, std::move(options), *this);
  std::optional<absl::Status> answer;

  second.Get([&answer](const absl::StatusOr<DevToolsPipe*>& got) { answer = got.status(); });
  loop_.RunUntil([&answer] { return answer.has_value(); });

  EXPECT_TRUE(absl::IsFailedPrecondition(*answer)) << *answer;
  EXPECT_THAT(std::string(answer->message()), ::testing::HasSubstr("of this machine"));
  Close();
}

}  // namespace
}  // namespace varnic::host
