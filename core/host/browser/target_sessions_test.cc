#include "core/host/browser/target_sessions.h"

#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/host/browser/testing/scripted_browser.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TargetSessionsTest : public ::testing::Test, public TargetSessions::Visitor {
 protected:
  TargetSessionsTest() {
    user_agent_.text = "Agent/1";
    sessions_.Start([this](const absl::Status& status) { started_.push_back(status); });
    start_ = browser_.TakeCommands();
  }

  void OnAttached(const TargetSession& session) override { seen_.push_back("+" + session.type); }
  void OnDetached(const TargetSession& session) override { seen_.push_back("-" + session.type); }

  void Attach(const std::string& session, const std::string& type, const std::string& in = "") {
    browser_.Happen("Target.attachedToTarget",
                    {{"sessionId", session}, {"targetInfo", {{"type", type}}}}, in);
  }
  // "Method session", of the commands since the last call.
  std::vector<std::string> Commands() {
    std::vector<std::string> texts;
    for (const Json& command : browser_.TakeCommands()) {
      texts.push_back(
          absl::StrCat(command.value("method", ""), " ", command.value("sessionId", "")));
    }
    return texts;
  }
  static std::vector<std::string> LeftOut(const Json& command) {
    std::vector<std::string> types;
    for (const Json& entry : command["params"]["filter"]) {
      if (entry.value("exclude", false)) types.push_back(entry.value("type", ""));
    }
    return types;
  }

  net::EventLoop loop_;
  testing::ScriptedBrowser browser_{loop_};
  UserAgent user_agent_;
  std::vector<std::string> seen_;
  std::vector<absl::Status> started_;
  TargetSessions sessions_{browser_.pipe(), user_agent_, *this};
  std::vector<Json> start_;
};

TEST_F(TargetSessionsTest, StartsWithTheAnswerOfTheBrowser) {
  ASSERT_EQ(start_.size(), 1u);
  EXPECT_EQ(start_[0]["params"]["waitForDebuggerOnStart"], true);
  EXPECT_THAT(LeftOut(start_[0]), ElementsAre("browser", "browser_ui", "tab"));
  EXPECT_THAT(started_, IsEmpty());

  browser_.Answer(start_[0], Json::object());

  EXPECT_THAT(started_, ElementsAre(absl::OkStatus()));
}

TEST_F(TargetSessionsTest, TargetRunsAfterAllIsSetAndLooksForThoseInside) {
  Attach("S", "page");

  EXPECT_THAT(Commands(), ElementsAre("Emulation.setUserAgentOverride S", "Target.setAutoAttach S",
                                      "Runtime.runIfWaitingForDebugger S"));
  EXPECT_THAT(seen_, ElementsAre("+page"));
}

TEST_F(TargetSessionsTest, TargetInsideAnotherIsAttachedToOnce) {
  Attach("S", "page");

  const Json inside = browser_.TakeCommands()[1];

  EXPECT_THAT(LeftOut(inside), ElementsAre("browser", "browser_ui", "tab", "page", "service_worker",
                                           "shared_worker"));
}

TEST_F(TargetSessionsTest, SessionsInsideOneThatEndsEndBeforeIt) {
  Attach("S", "page");
  Attach("T", "worker", "S");
  Attach("U", "worker inside", "T");

  browser_.Happen("Target.detachedFromTarget", {{"sessionId", "S"}});
  browser_.Happen("Target.detachedFromTarget", {{"sessionId", "S"}});

  EXPECT_THAT(seen_, ElementsAre("+page", "+worker", "+worker inside", "-worker inside", "-worker",
                                 "-page"));
}

TEST_F(TargetSessionsTest, NetworkStateGoesToThoseThatHaveOne) {
  Attach("S", "page");
  Attach("W", "worker", "S");
  Commands();

  sessions_.SetNetworkState(true);
  EXPECT_THAT(Commands(), IsEmpty());
  sessions_.SetNetworkState(false);
  EXPECT_THAT(Commands(), ElementsAre("Network.overrideNetworkState S"));
  Attach("F", "iframe", "S");

  EXPECT_THAT(Commands(),
              ElementsAre("Emulation.setUserAgentOverride F", "Network.overrideNetworkState F",
                          "Target.setAutoAttach F", "Runtime.runIfWaitingForDebugger F"));
}

}  // namespace
}  // namespace varnic::host
