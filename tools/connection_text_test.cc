#include "tools/connection_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

TEST(ConnectionTextTest, LossSaysWhyAndWhenItIsTriedAgain) {
  const Happening lost =
      DescribeDown(absl::UnavailableError("reset by peer"), absl::Milliseconds(1600), true, "");

  EXPECT_EQ(lost.for_people, "connection lost: reset by peer (UNAVAILABLE); trying again in 1.6 s");
  EXPECT_EQ(lost.fields["error"]["code"], 14);
  EXPECT_EQ(lost.fields["error"]["status"], "UNAVAILABLE");
  EXPECT_EQ(lost.fields["error"]["message"], "reset by peer");
  EXPECT_EQ(lost.fields["retryInSeconds"], 1.6);
}

TEST(ConnectionTextTest, ConnectionThatNeverWasIsNotLost) {
  EXPECT_EQ(DescribeDown(absl::UnavailableError("x"), absl::ZeroDuration(), false, "Is it on?")
                .for_people,
            "no connection: x (UNAVAILABLE); trying again now\nIs it on?");
}

TEST(ConnectionTextTest, ComingBackIsToldFromTheFirstTime) {
  EXPECT_EQ(DescribeUp(false).for_people, "connected");
  EXPECT_EQ(DescribeUp(true).for_people, "connected again");
  EXPECT_EQ(DescribeUp(true).type, "up");
}

TEST(ConnectionTextTest, TextOfTheHostDoesNothingToTheTerminal) {
  const Happening lost =
      DescribeDown(absl::UnavailableError("\x1b[2J\n"), absl::Seconds(1), true, "");

  EXPECT_THAT(lost.for_people, HasSubstr("\\x1b[2J\\n"));
  EXPECT_THAT(lost.for_people, Not(HasSubstr("\x1b")));
}

}  // namespace
}  // namespace varnic::tools
