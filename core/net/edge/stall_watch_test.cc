#include "core/net/edge/stall_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace varnic::net {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr LoopClock::time_point At(int seconds) {
  return LoopClock::time_point(std::chrono::seconds(seconds));
}

TEST(ProgressMarkTest, CountsTheTimeInWhichNothingMoves) {
  ProgressMark mark;

  EXPECT_EQ(mark.Look(At(0), 100, 5000), absl::ZeroDuration());
  EXPECT_EQ(mark.Look(At(15), 100, 6000), absl::Seconds(15));
  EXPECT_EQ(mark.Look(At(60), 100, 7000), absl::Seconds(60));
}

TEST(ProgressMarkTest, SingleBytesAreNoProgress) {
  ProgressMark mark;
  mark.Look(At(0), 100, 5000);

  EXPECT_EQ(mark.Look(At(15), 101, 5000), absl::Seconds(15));
  EXPECT_EQ(mark.Look(At(60), 100 + 1023, 5000), absl::Seconds(60));
  EXPECT_EQ(mark.Look(At(75), 100 + 1024, 5000), absl::ZeroDuration());
}

TEST(ProgressMarkTest, AllThatWaitedIsProgressHoweverLittle) {
  ProgressMark mark;
  mark.Look(At(0), 100, 3);

  EXPECT_EQ(mark.Look(At(59), 103, 3), absl::ZeroDuration());
}

TEST(ProgressMarkTest, ClearedItBeginsAnew) {
  ProgressMark mark;
  mark.Look(At(0), 100, 5000);

  mark.Clear();

  EXPECT_EQ(mark.Look(At(60), 100, 5000), absl::ZeroDuration());
}

// A connection with ten streams open.
class StallWatchTest : public ::testing::Test {
 protected:
  StallWatchTest() { output_.open_streams = 10; }

  void LetWait(std::int32_t id, std::size_t bytes, bool window_closed = true) {
    output_.streams.push_back({id, 0, bytes, window_closed});
    output_.queued += bytes;
  }

  // After the first look.
  StallWatch::Verdict LookAfter(int seconds) {
    watch_.Look(At(0), output_);
    return watch_.Look(At(seconds), output_);
  }

  WaitingOutput output_;
  StallWatch watch_{absl::Seconds(60)};
};

TEST_F(StallWatchTest, QuietConnectionIsNeverStalled) {
  const StallWatch::Verdict verdict = LookAfter(100'000);

  EXPECT_FALSE(verdict.connection);
  EXPECT_THAT(verdict.streams, IsEmpty());
}

TEST_F(StallWatchTest, StreamWhoseWindowStaysClosedIsStalledAlone) {
  LetWait(5, 100);
  LetWait(7, 100, /*window_closed=*/false);

  EXPECT_THAT(LookAfter(59).streams, IsEmpty());
  const StallWatch::Verdict verdict = LookAfter(60);

  EXPECT_THAT(verdict.streams, ElementsAre(5));
  EXPECT_FALSE(verdict.connection);
}

TEST_F(StallWatchTest, StreamWhoseWindowOpensInTimeIsNotStalled) {
  LetWait(5, 5000);
  LookAfter(45);

  output_.streams[0].sent = 2000;

  EXPECT_THAT(watch_.Look(At(60), output_).streams, IsEmpty());
  EXPECT_THAT(watch_.Look(At(119), output_).streams, IsEmpty());
  EXPECT_THAT(watch_.Look(At(120), output_).streams, ElementsAre(5));
}

TEST_F(StallWatchTest, StreamForWhichNothingWaitsAnyMoreIsForgotten) {
  LetWait(5, 100);
  LookAfter(45);
  output_.streams.clear();
  watch_.Look(At(50), output_);

  LetWait(5, 100);

  EXPECT_THAT(watch_.Look(At(60), output_).streams, IsEmpty());
}

TEST_F(StallWatchTest, ConnectionWithNoStreamThatCouldMoveIsStalled) {
  output_.open_streams = 2;
  LetWait(5, 100);
  LetWait(7, 100);

  EXPECT_TRUE(LookAfter(60).connection);
}

TEST_F(StallWatchTest, ConnectionWhoseWindowStaysClosedIsStalled) {
  LetWait(5, 100, /*window_closed=*/false);
  output_.window_closed = true;

  EXPECT_FALSE(LookAfter(59).connection);
  EXPECT_TRUE(LookAfter(60).connection);
}

TEST_F(StallWatchTest, ConnectionOfWhichAnythingMovesIsNotStalled) {
  LetWait(5, 5000, /*window_closed=*/false);
  output_.window_closed = true;
  LookAfter(59);

  output_.sent = 1024;

  EXPECT_FALSE(watch_.Look(At(60), output_).connection);
}

TEST_F(StallWatchTest, SocketThatTakesNothingIsStalled) {
  output_.unwritten = 100;

  EXPECT_FALSE(LookAfter(59).connection);
  EXPECT_TRUE(LookAfter(60).connection);
}

TEST_F(StallWatchTest, SocketThatTakesSingleBytesIsStalled) {
  output_.unwritten = 5000;
  LookAfter(59);

  output_.written = 10;

  EXPECT_TRUE(watch_.Look(At(60), output_).connection);
}

TEST_F(StallWatchTest, StreamsThatWaitForASlowSocketAreNotBlamed) {
  LetWait(5, 100, /*window_closed=*/false);
  output_.unwritten = 5000;
  LookAfter(59);

  output_.written = 2000;
  const StallWatch::Verdict verdict = watch_.Look(At(60), output_);

  EXPECT_FALSE(verdict.connection);
  EXPECT_THAT(verdict.streams, IsEmpty());
}

}  // namespace
}  // namespace varnic::net
