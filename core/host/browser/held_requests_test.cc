#include "core/host/browser/held_requests.h"

#include <memory>
#include <string>
#include <vector>

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

constexpr char kPaused[] =
    "Can only get response body on HeadersReceived pattern matched requests.";

class HeldRequestsTest : public ::testing::Test {
 protected:
  HeldRequests::Ticket Hold(const std::string& request_id, const std::string& frame_id = "F") {
    return held_->Hold({request_id, frame_id, [this, request_id] { log_.push_back(request_id); }});
  }

  net::EventLoop loop_;
  varnic::testing::FakeScheduler scheduler_;
  QuestionAsker asker_{scheduler_, {}};
  ScriptedBrowser browser_{loop_};
  std::vector<std::string> log_;  // What was given up.
  std::unique_ptr<HeldRequests> held_ =
      std::make_unique<HeldRequests>(browser_.pipe(), asker_, HeldRequestOptions{});
};

TEST_F(HeldRequestsTest, ReleasedRequestIsNotGivenUp) {
  const HeldRequests::Ticket ticket = Hold("R");
  EXPECT_TRUE(held_->IsHeld(ticket));

  EXPECT_TRUE(held_->Release(ticket));
  EXPECT_FALSE(held_->Release(ticket));
  held_ = nullptr;
  scheduler_.Advance(absl::Hours(1));

  EXPECT_THAT(log_, IsEmpty());
}

TEST_F(HeldRequestsTest, NothingIsHeldForEver) {
  const HeldRequests::Ticket ticket = Hold("R");

  scheduler_.Advance(absl::Seconds(40));

  EXPECT_THAT(log_, ElementsAre("R"));
  EXPECT_FALSE(held_->Release(ticket));
}

TEST_F(HeldRequestsTest, RequestsAreLookedAfterEachSecond) {
  Hold("R");
  EXPECT_THAT(browser_.TakeRequests(), IsEmpty());

  scheduler_.Advance(absl::Seconds(1));
  const std::vector<Json> commands = browser_.TakeCommands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0]["method"], "Fetch.getResponseBody");
  browser_.Refuse(commands[0], -32000, kPaused);
  scheduler_.Advance(absl::Seconds(1));

  EXPECT_THAT(browser_.TakeRequests(), ElementsAre("Fetch.getResponseBody R"));
  EXPECT_EQ(held_->size(), 1u);
}

TEST_F(HeldRequestsTest, RequestThatIsGoneNeedsNoAnswer) {
  const HeldRequests::Ticket ticket = Hold("R");
  scheduler_.Advance(absl::Seconds(1));

  browser_.Refuse(browser_.TakeCommands()[0], -32602, "Invalid InterceptionId.");

  EXPECT_FALSE(held_->IsHeld(ticket));
  EXPECT_THAT(log_, IsEmpty());
}

TEST_F(HeldRequestsTest, OnlyTheFrameThatChangesIsLookedAtOnce) {
  Hold("R", "F");
  Hold("S", "G");

  held_->Check("F");
  held_->Check("F");

  EXPECT_THAT(browser_.TakeRequests(), ElementsAre("Fetch.getResponseBody R"));
}

TEST_F(HeldRequestsTest, RequestsOfFramesThatAreGoneAreGivenUp) {
  Hold("R", "F");
  const HeldRequests::Ticket other = Hold("S", "G");

  held_->OnFramesGone({"F", "H"});

  EXPECT_THAT(log_, ElementsAre("R"));
  EXPECT_TRUE(held_->IsHeld(other));
}

TEST_F(HeldRequestsTest, QuestionOfARequestThatIsGoneIsWithdrawn) {
  const HeldRequests::Ticket ticket = Hold("R");
  bool is_answered = false;
  held_->SetQuestion(ticket, asker_.AskFile({}, {}, [&is_answered](bool) { is_answered = true; }));

  held_->OnFramesGone({"F"});
  scheduler_.RunPosted();

  EXPECT_FALSE(is_answered);
  EXPECT_EQ(asker_.open_questions(), 0u);
}

TEST_F(HeldRequestsTest, QuestionThatComesTooLateIsWithdrawn) {
  const HeldRequests::Ticket ticket = Hold("R");
  held_->Release(ticket);

  held_->SetQuestion(ticket, asker_.AskFile({}, {}, [](bool) {}));

  EXPECT_EQ(asker_.open_questions(), 0u);
}

TEST_F(HeldRequestsTest, NoMoreAreHeldThanTheLimit) {
  held_ = std::make_unique<HeldRequests>(browser_.pipe(), asker_,
                                         HeldRequestOptions{absl::Seconds(9), absl::Seconds(1), 1});
  EXPECT_NE(Hold("R"), 0u);

  EXPECT_EQ(Hold("S"), 0u);

  EXPECT_EQ(held_->size(), 1u);
  EXPECT_THAT(log_, IsEmpty());
}

TEST_F(HeldRequestsTest, DestroyedTableGivesEverythingUp) {
  Hold("R");
  Hold("S");

  held_ = nullptr;

  EXPECT_THAT(log_, ElementsAre("R", "S"));
}

}  // namespace
}  // namespace varnic::host
