#include "core/common/rpc/stream_channel.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "core/common/rpc/completion_hook_test_support.h"
#include "core/common/rpc/shared_event.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {
namespace {

using testing::ChannelWithCompletionHook;
using testing::RecordingChannel;

static_assert(std::is_nothrow_move_constructible_v<StreamChannel>);
static_assert(!std::is_copy_constructible_v<StreamChannel>);
static_assert(!std::is_copy_assignable_v<StreamChannel>);

rpc::transport::StreamMessage Envelope(const std::string& payload) {
  rpc::transport::StreamMessage envelope;
  envelope.set_payload(payload);
  return envelope;
}

TEST(StreamChannelTest, MovingHandsTheStreamOn) {
  RecordingChannel recording;
  StreamChannel first = recording.Open();

  StreamChannel second(std::move(first));

  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): it is empty by contract.
  EXPECT_TRUE(second);
  EXPECT_TRUE(second.Send(Envelope("hello")));
  ASSERT_EQ(recording.sent().size(), 1u);
  EXPECT_EQ(recording.sent()[0].payload(), "hello");
}

TEST(StreamChannelTest, OperationsOnAMovedFromHandleDoNothing) {
  RecordingChannel recording;
  StreamChannel first = recording.Open();
  StreamChannel second(std::move(first));

  EXPECT_FALSE(first.Send(Envelope("lost")));  // NOLINT(bugprone-use-after-move)
  EXPECT_FALSE(first.IsPeerPresent());
  first.Complete();

  EXPECT_TRUE(recording.open());
  EXPECT_EQ(recording.completions(), 0);
  EXPECT_TRUE(recording.sent().empty());
}

TEST(StreamChannelTest, NobodyIsKnownWhereTheTransportKnowsNobody) {
  RecordingChannel recording;
  StreamChannel first = recording.Open();
  const StreamChannel second(std::move(first));

  EXPECT_EQ(second.peer(), nullptr);
  EXPECT_EQ(second.role(), "");
  EXPECT_EQ(first.peer(), nullptr);  // NOLINT(bugprone-use-after-move): it is empty by contract.
  EXPECT_EQ(first.role(), "");
}

TEST(StreamChannelTest, MovingFromAMovedFromHandleGivesAnEmptyOne) {
  RecordingChannel recording;
  StreamChannel first = recording.Open();
  const StreamChannel second(std::move(first));

  const StreamChannel third(std::move(first));  // NOLINT(bugprone-use-after-move)

  EXPECT_FALSE(third);
  EXPECT_TRUE(second);
}

TEST(StreamChannelTest, DestroyingAMovedFromHandleLeavesTheStreamOpen) {
  RecordingChannel recording;
  std::optional<StreamChannel> first(recording.Open());
  const StreamChannel second(std::move(*first));

  first.reset();

  EXPECT_TRUE(recording.open());
  EXPECT_TRUE(second.IsPeerPresent());
}

TEST(StreamChannelTest, DestroyingTheLastLiveHandleEndsTheStreamUncompleted) {
  RecordingChannel recording;
  std::optional<StreamChannel> channel(recording.Open());

  channel.reset();

  EXPECT_FALSE(recording.open());
  EXPECT_EQ(recording.completions(), 0);
}

TEST(StreamChannelTest, NothingCanBeSentAfterCompletion) {
  RecordingChannel recording;
  StreamChannel channel = recording.Open();

  channel.Complete();

  EXPECT_FALSE(channel.Send(Envelope("too late")));
  EXPECT_FALSE(channel.IsPeerPresent());
  EXPECT_TRUE(channel);
  EXPECT_TRUE(recording.sent().empty());
}

TEST(StreamChannelTest, CompletionMayDestroyTheHandle) {
  std::optional<StreamChannel> channel;
  int completions = 0;
  channel.emplace(ChannelWithCompletionHook([&] {
    ++completions;
    channel.reset();
  }));

  channel->Complete();

  EXPECT_EQ(completions, 1);
  EXPECT_FALSE(channel.has_value());
}

TEST(StreamChannelTest, AnEventGoesAsAnEnvelopeWithItsPayloadByDefault) {
  RecordingChannel recording;
  StreamChannel channel = recording.Open();
  const SharedEvent event(Envelope("content"), Envelope("key"));

  EXPECT_TRUE(channel.SendEvent(event));

  ASSERT_EQ(recording.sent().size(), 1u);
  EXPECT_EQ(recording.sent()[0].payload(), event.payload());
  EXPECT_EQ(recording.sent()[0].call_id(), 0);
}

TEST(StreamChannelTest, NoEventIsTakenAfterCompletionNorByAMovedFromHandle) {
  RecordingChannel recording;
  StreamChannel first = recording.Open();
  StreamChannel second(std::move(first));
  const SharedEvent event(Envelope("content"), Envelope("key"));
  second.Complete();

  EXPECT_FALSE(first.SendEvent(event));  // NOLINT(bugprone-use-after-move)
  EXPECT_FALSE(second.SendEvent(event));

  EXPECT_TRUE(recording.sent().empty());
}

}  // namespace
}  // namespace varnic
