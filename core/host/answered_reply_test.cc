#include "core/host/answered_reply.h"

#include <vector>

#include "gtest/gtest.h"

namespace varnic::host {
namespace {

class AnsweredReplyTest : public ::testing::Test {
 protected:
  Reply<int> MakeReply() {
    return AnsweredReply<int>([this](absl::StatusOr<int> value) { answers_.push_back(value); });
  }

  std::vector<absl::StatusOr<int>> answers_;
};

TEST_F(AnsweredReplyTest, LastCopyToGoAnswersForAll) {
  {
    const Reply<int> reply = MakeReply();
    { const Reply<int> copy = reply; }
    EXPECT_TRUE(answers_.empty());
  }

  ASSERT_EQ(answers_.size(), 1u);
  EXPECT_TRUE(absl::IsUnavailable(answers_[0].status()));
}

TEST_F(AnsweredReplyTest, AnswersOnce) {
  {
    const Reply<int> reply = MakeReply();
    reply(1);
    reply(2);
  }

  ASSERT_EQ(answers_.size(), 1u);
  EXPECT_EQ(answers_[0].value(), 1);
}

}  // namespace
}  // namespace varnic::host
