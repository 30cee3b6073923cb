#include "core/common/rpc/testing/recording_channel.h"

#include <gtest/gtest.h>

#include <optional>

#include "core/common/rpc/process_death_test_support.h"
#include "core/common/rpc/stream_channel.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic::testing {
namespace {

rpc::transport::StreamMessage Envelope(int call_id) {
  rpc::transport::StreamMessage envelope;
  envelope.set_payload("payload");
  envelope.set_call_id(call_id);
  return envelope;
}

TEST(RecordingChannelTest, HasRecordedNothingAtFirst) {
  const RecordingChannel recording;

  EXPECT_FALSE(recording.open());
  EXPECT_EQ(recording.completions(), 0);
  EXPECT_TRUE(recording.sent().empty());
}

TEST(RecordingChannelTest, RecordsWholeEnvelopesInTheirOrder) {
  RecordingChannel recording;
  StreamChannel channel = recording.Open();

  EXPECT_TRUE(channel.Send(Envelope(1)));
  EXPECT_TRUE(channel.Send(Envelope(2)));

  ASSERT_EQ(recording.sent().size(), 2u);
  EXPECT_EQ(recording.sent()[0].payload(), "payload");
  EXPECT_EQ(recording.sent()[0].call_id(), 1);
  EXPECT_EQ(recording.sent()[1].call_id(), 2);
}

TEST(RecordingChannelTest, IsOpenUntilCompletion) {
  RecordingChannel recording;
  StreamChannel channel = recording.Open();
  EXPECT_TRUE(recording.open());
  EXPECT_TRUE(channel.IsPeerPresent());

  channel.Complete();

  EXPECT_FALSE(recording.open());
  EXPECT_FALSE(channel.IsPeerPresent());
}

TEST(RecordingChannelTest, CountsEveryCompletion) {
  RecordingChannel recording;
  StreamChannel channel = recording.Open();

  channel.Complete();
  channel.Complete();

  EXPECT_EQ(recording.completions(), 2);
}

TEST(RecordingChannelTest, KeepsItsRecordWhenTheChannelIsGone) {
  RecordingChannel recording;
  std::optional<StreamChannel> channel(recording.Open());
  EXPECT_TRUE(channel->Send(Envelope(3)));

  channel.reset();

  EXPECT_FALSE(recording.open());
  EXPECT_EQ(recording.completions(), 0);
  EXPECT_EQ(recording.sent().size(), 1u);
}

TEST(RecordingChannelTest, CanBeOpenedAgainWhenTheFirstChannelWasCompleted) {
  RecordingChannel recording;
  std::optional<StreamChannel> first(recording.Open());
  first->Complete();
  StreamChannel second = recording.Open();

  EXPECT_FALSE(first->Send(Envelope(1)));
  first.reset();

  EXPECT_TRUE(recording.open());
  EXPECT_TRUE(second.Send(Envelope(2)));
}

TEST(RecordingChannelDeathTest, OpeningASecondChannelAtATimeIsFatal) {
  RecordingChannel recording;
  const StreamChannel channel = recording.Open();
  int line = 0;

  EXPECT_DEATH((void)recording.Open(),
               FatalRecord("recording_channel.cc", "Check failed: !open()", line));
}

}  // namespace
}  // namespace varnic::testing
