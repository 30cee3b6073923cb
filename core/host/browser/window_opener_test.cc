// Windows that come late, or whose pages crash. What else a window's opening comes to is tested
// with profile_browser_test.cc.

#include "core/host/browser/window_opener.h"

#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/host/browser/testing/scripted_browser.h"
#include "core/net/testing/fake_clock.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class WindowOpenerTest : public ::testing::Test, public WindowVisitor {
 protected:
  void OnWindowOpened(const BrowserWindow&) override { log_.emplace_back("opened"); }
  void OnWindowChanged(const BrowserWindow&) override {}
  void OnWindowClosed(const BrowserWindow&) override { log_.emplace_back("closed"); }
  void OnContextClosed(const std::string& context) override { log_.push_back(context); }

  void Note(const absl::StatusOr<BrowserWindow>& window) {
    log_.push_back(absl::StatusCodeToString(window.status().code()));
  }
  void Attach(const std::string& target_id) {
    TargetSession session;
    session.session_id = "S";
    session.target_id = target_id;
    session.type = "page";
    windows_.OnAttached(session);
    opener_.OnAttached(session);
  }
  // "Method target", of the commands since the last call.
  std::vector<std::string> Commands() {
    std::vector<std::string> texts;
    for (const Json& command : browser_.TakeCommands()) {
      texts.push_back(
          absl::StrCat(command.value("method", ""), " ", command["params"].value("targetId", "")));
    }
    return texts;
  }
  void WaitTooLong() {
    clock_.Advance(WindowOpener::kTimeLimit);
    while (loop_.RunPending() != 0) continue;
  }

  net::testing::FakeClock clock_;
  net::EventLoop loop_;
  testing::ScriptedBrowser browser_{loop_};
  std::vector<std::string> log_;
  IncognitoContexts contexts_{browser_.pipe(), /*deny_downloads=*/false,
                              [this](const std::string& context) { OnContextClosed(context); }};
  BrowserWindows windows_{browser_.pipe(), contexts_, /*is_headless=*/false, *this};
  WindowOpener opener_{loop_, browser_.pipe(), windows_, contexts_};
};

TEST_F(WindowOpenerTest, WindowThatComesAfterItsDeadlineIsClosedAndNeverShown) {
  opener_.Open("", WindowOptions(), [this](const auto& window) { Note(window); });
  const Json create = browser_.TakeCommands().at(0);
  WaitTooLong();
  EXPECT_THAT(log_, ElementsAre("DEADLINE_EXCEEDED"));

  Attach("T");
  browser_.Answer(create, {{"targetId", "T"}});

  EXPECT_THAT(Commands(), ElementsAre("Target.closeTarget T"));
  EXPECT_THAT(log_, ElementsAre("DEADLINE_EXCEEDED"));
}

TEST_F(WindowOpenerTest, ContextThatComesAfterTheDeadlineIsGivenUp) {
  opener_.OpenIncognito(WindowOptions(), nullptr, [this](const auto& window) { Note(window); });
  const Json create = browser_.TakeCommands().at(0);
  WaitTooLong();

  browser_.Answer(create, {{"browserContextId", "C"}});

  EXPECT_FALSE(contexts_.Has("C"));
  EXPECT_THAT(Commands(), ElementsAre("Target.disposeBrowserContext "));
  EXPECT_THAT(log_, ElementsAre("DEADLINE_EXCEEDED"));
}

TEST_F(WindowOpenerTest, CrashedWindowOnTheScreenIsLeftToItsPerson) {
  Attach("T");

  browser_.Happen("Target.targetCrashed", {{"targetId", "T"}});

  EXPECT_THAT(log_, ElementsAre("opened"));
  EXPECT_THAT(Commands(), IsEmpty());
}

TEST_F(WindowOpenerTest, CrashedPageThatNobodySeesIsClosed) {
  windows_.OnCreating();
  windows_.OnCreated("T");
  Attach("T");

  browser_.Happen("Target.targetCrashed", {{"targetId", "T"}});

  EXPECT_THAT(log_, IsEmpty());
  EXPECT_THAT(Commands(), ElementsAre("Target.closeTarget T"));
}

}  // namespace
}  // namespace varnic::host
