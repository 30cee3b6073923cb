#include "core/host/browser/page_languages.h"

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

class PageLanguagesTest : public ::testing::Test {
 protected:
  void Ask(int pages) {
    std::vector<TargetSession> sessions(static_cast<size_t>(pages));
    for (TargetSession& session : sessions) session.session_id = "S";
    languages_.Ask(std::move(sessions), [this](const absl::StatusOr<std::string>& list) {
      replies_.push_back(list.ok() ? *list : absl::StatusCodeToString(list.status().code()));
    });
  }

  net::EventLoop loop_;
  testing::ScriptedBrowser browser_{loop_};
  PageLanguages languages_{browser_.pipe()};
  std::vector<std::string> replies_;
};

TEST_F(PageLanguagesTest, PageIsAskedWhereItsScriptsDoNotSee) {
  Ask(1);
  browser_.Answer(browser_.TakeCommands().at(0), {{"executionContextId", 7}});

  const Json question = browser_.TakeCommands().at(0);
  EXPECT_EQ(question["params"]["contextId"], 7);
  browser_.Answer(question, {{"result", {{"value", "de,en"}}}});

  EXPECT_THAT(replies_, ElementsAre("de,en"));
}

TEST_F(PageLanguagesTest, NoMoreThanThreePagesKeepWhoAsks) {
  Ask(200);

  for (int page = 0; page < 3; ++page) {
    EXPECT_TRUE(replies_.empty());
    browser_.Refuse(browser_.TakeCommands().at(0), -32000, "busy");
  }

  EXPECT_THAT(replies_, ElementsAre("UNAVAILABLE"));
  EXPECT_TRUE(browser_.TakeCommands().empty());
}

}  // namespace
}  // namespace varnic::host
