#include "core/host/browser/page_dialogs.h"

#include <vector>

#include "core/host/browser/testing/scripted_browser.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

TEST(PageDialogsTest, LeavingIsAllowedAndEverythingElseCancelled) {
  net::EventLoop loop;
  testing::ScriptedBrowser browser(loop);
  AnswerPageDialogs(browser.pipe(), "S");

  for (const char* type : {"alert", "confirm", "prompt", "beforeunload"}) {
    browser.Happen("Page.javascriptDialogOpening", {{"type", type}}, "S");
  }

  const std::vector<Json> answers = browser.TakeCommands();
  ASSERT_EQ(answers.size(), 4u);
  for (const Json& answer : answers) {
    EXPECT_EQ(answer["method"], "Page.handleJavaScriptDialog");
    EXPECT_EQ(answer["sessionId"], "S");
    EXPECT_EQ(answer["params"]["accept"], &answer == &answers.back());
  }
}

}  // namespace
}  // namespace varnic::host
