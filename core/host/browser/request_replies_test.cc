#include "core/host/browser/request_replies.h"

#include <memory>
#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/testing/fake_scheduler.h"
#include "core/host/browser/testing/scripted_browser.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::ScriptedBrowser;

class RequestRepliesTest : public ::testing::Test {
 protected:
  void RunAll() {
    while (loop_.RunPending() != 0) continue;
  }

  net::EventLoop loop_;
  varnic::testing::FakeScheduler scheduler_;
};

TEST_F(RequestRepliesTest, EachReplyIsItsCommand) {
  ScriptedBrowser browser(loop_);
  RequestReplies replies(browser.pipe(), scheduler_);

  replies.Continue("1");
  replies.Continue("2", Json::array({{{"name", "a"}, {"value", "b"}}}));
  replies.Refuse("3");
  replies.Authenticate("4", "ann", "secret");
  replies.CancelLogin("5");

  const std::vector<Json> commands = browser.TakeCommands();
  ASSERT_EQ(commands.size(), 5u);
  EXPECT_EQ(commands[0]["params"], Json::parse(R"({"requestId":"1"})"));
  EXPECT_EQ(commands[1]["params"]["headers"][0]["value"], "b");
  EXPECT_EQ(commands[2]["params"],
            Json::parse(R"({"requestId":"3","errorReason":"AccessDenied"})"));
  EXPECT_EQ(
      commands[3]["params"]["authChallengeResponse"],
      Json::parse(R"({"response":"ProvideCredentials","username":"ann","password":"secret"})"));
  EXPECT_EQ(commands[4]["params"]["authChallengeResponse"],
            Json::parse(R"({"response":"CancelAuth"})"));
}

TEST_F(RequestRepliesTest, RepliesBeyondTheWindowWaitForConfirmations) {
  ScriptedBrowser browser(loop_);
  RequestReplyLimits limits;
  limits.in_flight = 2;
  RequestReplies replies(browser.pipe(), scheduler_, limits);
  for (const char* request : {"1", "2", "3", "4"}) replies.Continue(request);
  const std::vector<Json> commands = browser.TakeCommands();
  ASSERT_EQ(commands.size(), 2u);

  browser.Answer(commands[0], Json::object());
  browser.Refuse(commands[1], -32602, "Invalid InterceptionId.");

  EXPECT_THAT(browser.TakeRequests(),
              ElementsAre("Fetch.continueRequest 3", "Fetch.continueRequest 4"));
  EXPECT_EQ(replies.waiting(), 0u);
}

TEST_F(RequestRepliesTest, ReplyThatThePipeHasNoRoomForIsSentLater) {
  DevToolsLimits pipe_limits;
  pipe_limits.waiting_bytes = 150;
  ScriptedBrowser browser(loop_, pipe_limits);
  RequestReplies replies(browser.pipe(), scheduler_);
  browser.peer().LimitRoom(0);
  for (const char* request : {"1", "2", "3"}) replies.Refuse(request);
  RunAll();
  browser.peer().MakeRoom();
  EXPECT_THAT(browser.TakeRequests(), ElementsAre("Fetch.failRequest 1"));

  scheduler_.Advance(absl::Milliseconds(100));

  EXPECT_THAT(browser.TakeRequests(),
              ::testing::UnorderedElementsAre("Fetch.failRequest 2", "Fetch.failRequest 3"));
}

TEST_F(RequestRepliesTest, CredentialsThatTheBrowserCannotReadAreNone) {
  ScriptedBrowser browser(loop_);
  RequestReplies replies(browser.pipe(), scheduler_);
  replies.Authenticate("1", "ann", "secret");

  browser.Refuse(browser.TakeCommands()[0], -32602, "no");

  const std::vector<Json> commands = browser.TakeCommands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0]["params"]["authChallengeResponse"]["response"], "CancelAuth");
}

TEST_F(RequestRepliesTest, HeadersThatTheBrowserCannotReadStayAsTheyWere) {
  ScriptedBrowser browser(loop_);
  RequestReplies replies(browser.pipe(), scheduler_);
  replies.Continue("1", Json::array());

  browser.Refuse(browser.TakeCommands()[0], -32602, "no");

  const std::vector<Json> commands = browser.TakeCommands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0]["params"], Json::parse(R"({"requestId":"1"})"));
}

TEST_F(RequestRepliesTest, BrowserThatNeverConfirmsIsGivenUp) {
  ScriptedBrowser browser(loop_);
  RequestReplyLimits limits;
  limits.in_flight = 1;
  limits.waiting = 3;
  RequestReplies replies(browser.pipe(), scheduler_, limits);

  for (int i = 0; i < 5; ++i) replies.Continue(absl::StrCat(i));

  EXPECT_FALSE(browser.pipe().is_open());
  EXPECT_EQ(replies.waiting(), 0u);
  replies.Continue("after");
  EXPECT_EQ(replies.waiting(), 0u);
}

TEST_F(RequestRepliesTest, WhatWaitsIsSentAtTheEnd) {
  ScriptedBrowser browser(loop_);
  RequestReplyLimits limits;
  limits.in_flight = 1;
  auto replies = std::make_unique<RequestReplies>(browser.pipe(), scheduler_, limits);
  for (const char* request : {"1", "2"}) replies->Refuse(request);
  EXPECT_THAT(browser.TakeRequests(), ElementsAre("Fetch.failRequest 1"));

  replies = nullptr;

  EXPECT_THAT(browser.TakeRequests(), ElementsAre("Fetch.failRequest 2"));
}

TEST_F(RequestRepliesTest, NothingIsSentThroughAPipeThatHasEnded) {
  ScriptedBrowser browser(loop_);
  RequestReplies replies(browser.pipe(), scheduler_);
  browser.peer().Close();

  replies.Continue("1");
  RunAll();

  EXPECT_THAT(browser.TakeRequests(), IsEmpty());
}

}  // namespace
}  // namespace varnic::host
