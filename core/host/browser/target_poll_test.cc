#include "core/host/browser/target_poll.h"

#include <string>
#include <vector>

#include "core/host/browser/testing/scripted_browser.h"
#include "core/net/testing/fake_clock.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class TargetPollTest : public ::testing::Test {
 protected:
  // The commands of one period.
  std::vector<Json> Period() {
    clock_.Advance(TargetPoll::kPeriod);
    while (loop_.RunPending() != 0) continue;
    return browser_.TakeCommands();
  }

  net::testing::FakeClock clock_;
  net::EventLoop loop_;
  testing::ScriptedBrowser browser_{loop_};
  bool is_wanted_ = true;
  std::vector<std::string> titles_;
  TargetPoll poll_{loop_, browser_.pipe(), [this] { return is_wanted_; },
                   [this](const Json& info) { titles_.push_back(info.value("title", "")); }};
};

TEST_F(TargetPollTest, AsksForPagesAloneOneQuestionAtATime) {
  const std::vector<Json> first = Period();
  ASSERT_THAT(first, SizeIs(1));
  EXPECT_EQ(first[0]["method"], "Target.getTargets");
  EXPECT_EQ(first[0]["params"], Json::parse(R"({"filter":[{"type":"page"}]})"));
  EXPECT_THAT(Period(), IsEmpty());

  browser_.Answer(first[0], {{"targetInfos", {{{"title", "a"}}, {{"title", "b"}}}}});

  EXPECT_THAT(titles_, ElementsAre("a", "b"));
  EXPECT_THAT(Period(), SizeIs(1));
}

TEST_F(TargetPollTest, AsksAgainAfterARefusal) {
  browser_.Refuse(Period().at(0), -32000, "not now");

  EXPECT_THAT(Period(), SizeIs(1));
}

TEST_F(TargetPollTest, AsksNothingWhileNobodyWantsIt) {
  is_wanted_ = false;
  EXPECT_THAT(Period(), IsEmpty());

  is_wanted_ = true;
  EXPECT_THAT(Period(), SizeIs(1));
}

}  // namespace
}  // namespace varnic::host
