#include "core/net/edge/unfinished_messages.h"

#include <gtest/gtest.h>

namespace varnic::net {
namespace {

TEST(UnfinishedMessagesTest, CallThatGoesPastTheLimitIsTold) {
  UnfinishedMessages all(100);
  UnfinishedMessages::Share first(all);
  UnfinishedMessages::Share second(all);

  EXPECT_TRUE(first.Set(60).ok());
  EXPECT_TRUE(second.Set(40).ok());
  EXPECT_EQ(second.Set(41), absl::ResourceExhaustedError(
                                "More than 100 bytes of unfinished messages on one connection"));
}

TEST(UnfinishedMessagesTest, CallThatGetsNoLargerHasNothingToAnswerFor) {
  UnfinishedMessages all(100);
  UnfinishedMessages::Share first(all);
  UnfinishedMessages::Share second(all);
  ASSERT_TRUE(first.Set(60).ok());
  ASSERT_FALSE(second.Set(70).ok());

  EXPECT_TRUE(first.Set(60).ok());
  EXPECT_TRUE(first.Set(50).ok());
}

TEST(UnfinishedMessagesTest, MessageThatEndsMakesRoom) {
  UnfinishedMessages all(100);
  UnfinishedMessages::Share first(all);
  UnfinishedMessages::Share second(all);
  ASSERT_TRUE(first.Set(100).ok());

  ASSERT_TRUE(first.Set(0).ok());

  EXPECT_TRUE(second.Set(100).ok());
}

TEST(UnfinishedMessagesTest, NothingIsLeftOfCallsThatAreGone) {
  UnfinishedMessages all(100);
  UnfinishedMessages::Share cleared(all);
  ASSERT_TRUE(cleared.Set(30).ok());
  {
    UnfinishedMessages::Share destroyed(all);
    ASSERT_TRUE(destroyed.Set(40).ok());
  }
  EXPECT_EQ(all.bytes(), 30u);

  cleared.Clear();

  EXPECT_EQ(all.bytes(), 0u);
}

}  // namespace
}  // namespace varnic::net
