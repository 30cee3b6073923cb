#include "core/client/call_deadlines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "core/net/testing/fake_clock.h"

namespace varnic {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CallDeadlinesTest : public ::testing::Test {
 protected:
  void Advance(absl::Duration duration) {
    clock_.Advance(duration);
    loop_.RunPending();
  }

  net::testing::FakeClock clock_;
  net::EventLoop loop_;
  std::vector<CallDeadlines::CallId> due_;
  std::function<void()> then_ = [] {};
  CallDeadlines deadlines_{loop_, [this](CallDeadlines::CallId call_id) {
                             due_.push_back(call_id);
                             then_();
                           }};
};

TEST_F(CallDeadlinesTest, CallsAreDueInTheOrderOfTheirDeadlines) {
  deadlines_.Add(1, absl::Seconds(3));
  deadlines_.Add(2, absl::Seconds(1));
  deadlines_.Add(3, absl::Seconds(2));

  Advance(absl::Seconds(1));
  EXPECT_THAT(due_, ElementsAre(2));
  Advance(absl::Seconds(2));
  EXPECT_THAT(due_, ElementsAre(2, 3, 1));
}

TEST_F(CallDeadlinesTest, CallThatHasEndedIsNeverDue) {
  const auto first = deadlines_.Add(1, absl::Seconds(1));
  deadlines_.Add(2, absl::Seconds(2));

  deadlines_.Remove(1, first);
  Advance(absl::Seconds(1));
  EXPECT_THAT(due_, IsEmpty());

  Advance(absl::Seconds(1));
  EXPECT_THAT(due_, ElementsAre(2));
}

TEST_F(CallDeadlinesTest, NoTimeAtAllIsDueOnTheLoop) {
  deadlines_.Add(1, absl::ZeroDuration());
  deadlines_.Add(2, -absl::InfiniteDuration());
  EXPECT_THAT(due_, IsEmpty());

  loop_.RunPending();

  EXPECT_THAT(due_, ElementsAre(1, 2));
}

TEST_F(CallDeadlinesTest, MoreThanAYearIsForEver) {
  for (const absl::Duration timeout : {absl::InfiniteDuration(), absl::Hours(24 * 365 * 1000)}) {
    EXPECT_EQ(deadlines_.Add(1, timeout), CallDeadlines::kNone);
  }
  Advance(absl::Hours(24 * 365 * 2));

  EXPECT_THAT(due_, IsEmpty());
  EXPECT_EQ(CallDeadlines::Until(CallDeadlines::kNone), absl::InfiniteDuration());
}

TEST_F(CallDeadlinesTest, CallThatIsDueMayBeginAnotherWithoutTime) {
  int left = 3;
  then_ = [&] {
    if (--left > 0) deadlines_.Add(static_cast<CallDeadlines::CallId>(left), absl::ZeroDuration());
  };
  deadlines_.Add(9, absl::ZeroDuration());

  for (int turn = 0; turn < 5; ++turn) loop_.RunPending();

  EXPECT_THAT(due_, ElementsAre(9, 2, 1));
}

TEST_F(CallDeadlinesTest, TimeThatIsLeftRunsDown) {
  const auto due = deadlines_.Add(1, absl::Seconds(3));

  Advance(absl::Seconds(1));

  EXPECT_EQ(CallDeadlines::Until(due), absl::Seconds(2));
}

}  // namespace
}  // namespace varnic
