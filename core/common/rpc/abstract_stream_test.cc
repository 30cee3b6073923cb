#include "core/common/rpc/abstract_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/common/rpc/completion_hook_test_support.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "core/common/rpc/virtual_slot_test_support.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {
namespace {

using testing::ChannelWithCompletionHook;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
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

// A stream's address that may be used when the stream is gone.
std::uintptr_t Address(const AbstractStream* stream) {
  return reinterpret_cast<std::uintptr_t>(stream);
}

// What it was told, with what it found at that moment.
class RecordingObserver : public AbstractStream::EndObserver {
 public:
  void OnStreamEnded(const AbstractStream* stream) override {
    ended.push_back(Address(stream));
    was_live = AbstractStream::IsLive(stream);
    if (look) look();
  }

  std::vector<std::uintptr_t> ended;
  bool was_live = false;
  std::function<void()> look;
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

TEST(AbstractStreamTest, IsLiveUntilItCompletes) {
  RecordingChannel recording;
  PlainStream stream(recording.Open());
  EXPECT_TRUE(AbstractStream::IsLive(&stream));

  stream.OnCompleted();

  EXPECT_FALSE(AbstractStream::IsLive(&stream));
}

TEST(AbstractStreamTest, IsLiveUntilItIsDestroyed) {
  RecordingChannel recording;
  std::optional<PlainStream> stream(std::in_place, recording.Open());
  const AbstractStream* address = &*stream;
  EXPECT_TRUE(AbstractStream::IsLive(address));

  stream.reset();

  EXPECT_FALSE(AbstractStream::IsLive(address));
}

TEST(AbstractStreamTest, NoStreamLivesAtNull) {
  EXPECT_FALSE(AbstractStream::IsLive(nullptr));
}

TEST(AbstractStreamTest, ObserversAreToldOfACompletionBeforeTheChannelIs) {
  RecordingChannel recording;
  PlainStream stream(recording.Open());
  RecordingObserver observer;
  int completions = -1;
  observer.look = [&] { completions = recording.completions(); };

  stream.OnCompleted();

  EXPECT_THAT(observer.ended, ElementsAre(Address(&stream)));
  EXPECT_EQ(completions, 0);
  EXPECT_FALSE(observer.was_live);
}

TEST(AbstractStreamTest, ObserversAreToldOfADestructionBeforeTheMemoryIsFree) {
  RecordingChannel recording;
  auto stream = std::make_unique<PlainStream>(recording.Open());
  const std::uintptr_t address = Address(stream.get());
  RecordingObserver observer;
  bool was_open = false;
  observer.look = [&] { was_open = recording.open(); };  // The channel is a part of the stream.

  stream.reset();

  EXPECT_THAT(observer.ended, ElementsAre(address));
  EXPECT_TRUE(was_open);
}

TEST(AbstractStreamTest, ObserversAreToldOnceOfAStreamThatIsDestroyedAfterItsCompletion) {
  RecordingObserver observer;
  std::unique_ptr<AbstractStream> stream;
  stream = std::make_unique<PlainStream>(ChannelWithCompletionHook([&] { stream.reset(); }));
  const std::uintptr_t address = Address(stream.get());

  stream->OnCompleted();

  EXPECT_THAT(observer.ended, ElementsAre(address));
}

TEST(AbstractStreamTest, ObserversAreToldOfEachStreamAtAReusedAddress) {
  RecordingChannel recording;
  RecordingObserver observer;
  std::optional<PlainStream> stream(std::in_place, recording.Open());
  const std::uintptr_t address = Address(&*stream);
  stream.reset();

  stream.emplace(recording.Open());
  EXPECT_EQ(Address(&*stream), address);
  stream.reset();

  EXPECT_THAT(observer.ended, ElementsAre(address, address));
}

TEST(AbstractStreamTest, AnObserverThatIsGoneIsNotTold) {
  RecordingChannel recording;
  PlainStream stream(recording.Open());
  RecordingObserver stays;
  std::optional<RecordingObserver> goes(std::in_place);
  RecordingObserver stays_too;

  goes.reset();
  stream.OnCompleted();

  EXPECT_THAT(stays.ended, ElementsAre(Address(&stream)));
  EXPECT_THAT(stays_too.ended, ElementsAre(Address(&stream)));
}

TEST(AbstractStreamTest, ANewObserverIsNotToldOfWhatEndedBefore) {
  RecordingChannel recording;
  PlainStream stream(recording.Open());
  stream.OnCompleted();

  RecordingObserver observer;

  EXPECT_THAT(observer.ended, IsEmpty());
}

}  // namespace
}  // namespace varnic
