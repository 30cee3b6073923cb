#include "core/common/rpc/abstract_stream.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>
#include <utility>

#include "core/common/rpc/completion_hook_test_support.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "core/common/rpc/virtual_slot_test_support.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {
namespace {

using testing::ChannelWithCompletionHook;
using testing::RecordingChannel;
using testing::VirtualSlot;

// Only completes.
class PlainStream : public AbstractStream {
 public:
  using AbstractStream::AbstractStream;
  void OnNext(rpc::transport::StreamMessage* /*message*/) override {}
  void OnError(rpc::transport::StreamMessage* /*message*/) override {}
  void OnCompleted() override { Complete(); }
};

static_assert(std::has_virtual_destructor_v<AbstractStream>);
static_assert(!std::is_copy_constructible_v<PlainStream>);

TEST(AbstractStreamTest, VirtualOperationsStandInTheirAgreedOrder) {
  EXPECT_EQ(VirtualSlot(&AbstractStream::OnNext), 2u);
  EXPECT_EQ(VirtualSlot(&AbstractStream::OnError), 3u);
  EXPECT_EQ(VirtualSlot(&AbstractStream::OnCompleted), 4u);
}

TEST(AbstractStreamTest, HoldsTheOnlyLiveHandleOfItsChannel) {
  RecordingChannel recording;
  StreamChannel channel = recording.Open();

  PlainStream stream(std::move(channel));

  EXPECT_FALSE(channel);  // NOLINT(bugprone-use-after-move): it is empty by contract.
  EXPECT_TRUE(stream.channel());
  EXPECT_TRUE(recording.open());
}

TEST(AbstractStreamTest, WritesToTheClientOnItsChannel) {
  RecordingChannel recording;
  PlainStream stream(recording.Open());
  rpc::transport::StreamMessage envelope;
  envelope.set_call_id(7);

  EXPECT_TRUE(stream.channel().Send(envelope));

  ASSERT_EQ(recording.sent().size(), 1u);
  EXPECT_EQ(recording.sent()[0].call_id(), 7);
}

TEST(AbstractStreamTest, CompletingEndsTheChannelOnce) {
  RecordingChannel recording;
  PlainStream stream(recording.Open());

  stream.OnCompleted();

  EXPECT_EQ(recording.completions(), 1);
  EXPECT_FALSE(recording.open());
}

TEST(AbstractStreamTest, DestructionAfterCompletionIsNotASecondEnd) {
  RecordingChannel recording;
  auto stream = std::make_unique<PlainStream>(recording.Open());
  stream->OnCompleted();

  stream.reset();

  EXPECT_EQ(recording.completions(), 1);
}

TEST(AbstractStreamTest, DestructionWithoutCompletionEndsTheChannelUncompleted) {
  RecordingChannel recording;
  auto stream = std::make_unique<PlainStream>(recording.Open());

  stream.reset();

  EXPECT_FALSE(recording.open());
  EXPECT_EQ(recording.completions(), 0);
}

TEST(AbstractStreamTest, CompletionMayDestroyTheStream) {
  std::unique_ptr<AbstractStream> stream;
  int completions = 0;
  stream = std::make_unique<PlainStream>(ChannelWithCompletionHook([&] {
    ++completions;
    stream.reset();
  }));

  stream->OnCompleted();

  EXPECT_EQ(stream, nullptr);
  EXPECT_EQ(completions, 1);
}

}  // namespace
}  // namespace varnic
