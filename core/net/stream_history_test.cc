#include "core/net/stream_history.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace varnic::net {
namespace {

using State = StreamHistory::State;

TEST(StreamHistoryTest, EveryStreamIsNewAtFirst) {
  const StreamHistory history;

  EXPECT_EQ(history.Find(1), State::kNew);
  EXPECT_EQ(history.Find(std::numeric_limits<int32_t>::max()), State::kNew);
}

TEST(StreamHistoryTest, AStreamMayGoOnUntilTheClientEndsIt) {
  StreamHistory history;

  history.OnOpened(1);

  EXPECT_EQ(history.Find(1), State::kMayGoOn);
  EXPECT_EQ(history.Find(3), State::kNew);
}

TEST(StreamHistoryTest, AStreamThatTheClientHasEndedStaysEnded) {
  StreamHistory history;
  history.OnOpened(1);
  history.OnOpened(3);

  history.OnEnded(1);

  EXPECT_EQ(history.Find(1), State::kEnded);
  EXPECT_EQ(history.Find(3), State::kMayGoOn);
}

TEST(StreamHistoryTest, TheEndOfAStreamThatIsNotThereIsNoEndOfAnother) {
  StreamHistory history;
  history.OnOpened(1);

  history.OnEnded(0);             // The connection, in the same place as 1.
  history.OnEnded(2 * 1024 + 1);  // Not yet opened, in the same place.
  history.OnEnded(3);
  history.OnOpened(3);

  EXPECT_EQ(history.Find(1), State::kMayGoOn);
  EXPECT_EQ(history.Find(3), State::kMayGoOn);
}

TEST(StreamHistoryTest, StreamsThatAreLeftOutCanNeverBeOpened) {
  StreamHistory history;
  history.OnOpened(3);

  history.OnOpened(9);

  EXPECT_EQ(history.Find(1), State::kLeftOut);
  EXPECT_EQ(history.Find(5), State::kLeftOut);
  EXPECT_EQ(history.Find(7), State::kLeftOut);
  EXPECT_EQ(history.Find(11), State::kNew);
}

TEST(StreamHistoryTest, BelievesTheBestOfWhatItHasForgotten) {
  StreamHistory history;
  for (int32_t stream_id = 1; stream_id < 4 * 1024; stream_id += 2) {
    history.OnOpened(stream_id);
    history.OnEnded(stream_id);
  }

  EXPECT_EQ(history.Find(1), State::kMayGoOn);
  EXPECT_EQ(history.Find(2 * 1024 - 1), State::kMayGoOn);
  EXPECT_EQ(history.Find(2 * 1024 + 1), State::kEnded);
  EXPECT_EQ(history.Find(4 * 1024 - 1), State::kEnded);
}

TEST(StreamHistoryTest, AnEndThatComesLongAfterwardsIsNotTakenForAnother) {
  StreamHistory history;
  history.OnOpened(1);
  history.OnOpened(2 * 1024 + 1);  // In the place of the first.

  history.OnEnded(1);

  EXPECT_EQ(history.Find(2 * 1024 + 1), State::kMayGoOn);
}

TEST(StreamHistoryTest, TheLargestGapIsLeftOutAtOnce) {
  StreamHistory history;
  constexpr int32_t kLargest = std::numeric_limits<int32_t>::max();
  history.OnOpened(1);

  history.OnOpened(kLargest);

  EXPECT_EQ(history.Find(kLargest), State::kMayGoOn);
  EXPECT_EQ(history.Find(kLargest - 2), State::kLeftOut);
  EXPECT_EQ(history.Find(kLargest - 2 * 1023), State::kLeftOut);
  EXPECT_EQ(history.Find(kLargest - 2 * 1024), State::kMayGoOn);
}

}  // namespace
}  // namespace varnic::net
