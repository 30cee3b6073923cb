#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/common/rpc/allocation_count_test_support.h"
#include "core/common/rpc/shared_event.h"
#include "core/common/rpc/stream/callback_caller.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/common/rpc/stream/profile_streams_test_support.h"
#include "core/common/rpc/testing/fake_scheduler.h"
#include "rpc/event_subscription.pb.h"

namespace varnic {
namespace {

using testing::AllocationCount;
using testing::Envelope;
using testing::FakeScheduler;
using testing::FileAccessStream;
using testing::NetworkStream;
using testing::Profile;

constexpr int kRounds = 100'000;

// Takes everything and keeps nothing.
class Sink final : public StreamChannel::Transport {
 public:
  bool Send(const rpc::transport::StreamMessage& /*envelope*/) override { return true; }
  bool SendEvent(const SharedEvent& /*event*/) override { return true; }
  void Complete() override {}
  bool IsPeerPresent() const override { return true; }
};

class HostSideAllocationTest : public testing::ProfileStreamsTest {
 protected:
  template <class Stream>
  std::unique_ptr<Stream> Open() {
    return std::unique_ptr<Stream>(
        static_cast<Stream*>(service_.OpenStream(testing::ProfileMethod(testing::kMethodOf<Stream>),
                                                 StreamChannel(std::make_unique<Sink>()))));
  }

  const ProfileId key_ = Profile("a key with a text that is too long to be stored inline");
};

class PublisherAllocationTest : public HostSideAllocationTest {
 protected:
  PublisherAllocationTest() { stays_->Subscribe(key_); }
  ~PublisherAllocationTest() override { stays_->OnCompleted(); }

  rpc::transport::StreamMessage Subscription() const {
    rpc::EventSubscription subscription;
    *subscription.mutable_key() = key_;
    subscription.set_action(rpc::EventSubscription::SUBSCRIBE);
    return Envelope(subscription.SerializeAsString());
  }

  // What one publication to `subscribers` streams makes, once everything has grown.
  long MadeByPublishingTo(int subscribers) {
    std::vector<std::unique_ptr<NetworkStream>> streams;
    for (int i = 0; i < subscribers; ++i) {
      streams.push_back(Open<NetworkStream>());
      streams.back()->Subscribe(key_);
    }
    publisher_.Publish(key_, rpc::NetworkChanged());
    const AllocationCount count;
    publisher_.Publish(key_, rpc::NetworkChanged());
    const long made = count.made();
    EXPECT_EQ(count.live(), 0);
    for (const auto& stream : streams) stream->OnCompleted();
    return made;
  }

  EventPublisher<rpc::NetworkChanged> publisher_;
  std::unique_ptr<NetworkStream> stays_ = Open<NetworkStream>();
};

TEST_F(PublisherAllocationTest, ASubscriberMoreCostsNoAllocation) {
  EXPECT_EQ(MadeByPublishingTo(1000), MadeByPublishingTo(1));
}

TEST_F(PublisherAllocationTest, ConnectionsThatComeAndGoOnASharedKeyLeaveOnlyTheirMessages) {
  auto subscription = Subscription();
  const AllocationCount one;
  stays_->OnNext(&subscription);  // It is subscribed already, so this makes the message alone.
  const long message = one.live();
  EXPECT_GT(message, 0);
  const AllocationCount all;

  for (int i = 0; i < kRounds; ++i) {
    const auto stream = Open<NetworkStream>();
    stream->OnNext(&subscription);
    stream->OnCompleted();
  }

  EXPECT_EQ(all.live(), kRounds * message);
  EXPECT_EQ(NetworkStream::stream_map_.begin()->second.size(), 1u);
}

TEST_F(PublisherAllocationTest, StreamsThatAreDestroyedUncompletedLeaveNothing) {
  const ProfileId own_key = Profile("another key");
  Open<NetworkStream>()->Subscribe(own_key);
  const AllocationCount count;

  for (int i = 0; i < kRounds; ++i) {
    const auto stream = Open<NetworkStream>();
    stream->Subscribe(key_);
    stream->Subscribe(own_key);
  }

  EXPECT_EQ(count.live(), 0);
  EXPECT_EQ(NetworkStream::stream_map_.size(), 1u);
}

TEST_F(PublisherAllocationTest, TheEndOfAStreamAllocatesNothingOfItsOwn) {
  class Observer final : public AbstractStream::EndObserver {
   public:
    void OnStreamEnded(const AbstractStream* /*stream*/) override { made = count->made(); }
    const AllocationCount* count = nullptr;
    long made = -1;
  };
  auto stream = Open<NetworkStream>();
  stream->Subscribe(key_);
  Observer observer;  // Told after the publisher.
  const AllocationCount count;
  observer.count = &count;

  stream.reset();

  EXPECT_EQ(observer.made, 0);
}

class CallerAllocationTest : public HostSideAllocationTest {
 protected:
  CallId Ask(absl::Duration timeout = absl::Seconds(1)) {
    return caller_.Call(
        key_, rpc::CanAccessFile::Request(),
        [this](const rpc::CanAccessFile::Response&) { ++ends_; },
        [this](const absl::Status&) { ++ends_; }, timeout);
  }

  // Runs `round` until everything has grown, and then says what a thousand more leave.
  template <class Round>
  long LeftBy(const Round& round) {
    for (int i = 0; i < 1000; ++i) round();
    ends_ = 0;
    const AllocationCount count;
    for (int i = 0; i < 1000; ++i) round();
    EXPECT_EQ(ends_, 1000);
    return count.live();
  }

  int ends_ = 0;
  FakeScheduler scheduler_;
  CallbackCaller<rpc::CanAccessFile> caller_{scheduler_};
};

TEST_F(CallerAllocationTest, AnsweredCallsLeaveNothing) {
  const auto stream = Open<FileAccessStream>();
  stream->Subscribe(key_);
  rpc::CanAccessFile answer;
  *answer.mutable_profile_id() = key_;
  answer.mutable_response();
  auto envelope = Envelope(answer.SerializeAsString());

  EXPECT_EQ(LeftBy([&] {
              envelope.set_call_id(Ask());
              stream->OnNext(&envelope);
            }),
            0);

  stream->OnCompleted();
}

TEST_F(CallerAllocationTest, WithdrawnAndExpiredCallsLeaveNothing) {
  const auto stream = Open<FileAccessStream>();
  stream->Subscribe(key_);

  EXPECT_EQ(LeftBy([&] {
              caller_.Withdraw(Ask());
              scheduler_.RunPosted();
            }),
            0);
  EXPECT_EQ(LeftBy([&] {
              Ask();
              scheduler_.Advance(absl::Seconds(1));
            }),
            0);

  EXPECT_TRUE(stream->pending_calls_.empty());
  stream->OnCompleted();
}

TEST_F(CallerAllocationTest, CallsThatNobodyAnswersLeaveNothing) {
  EXPECT_EQ(LeftBy([&] {
              Ask();
              scheduler_.RunPosted();
            }),
            0);
}

TEST_F(CallerAllocationTest, StreamsThatComeAndGoWithTheirCallsLeaveNothing) {
  EXPECT_EQ(LeftBy([&] {
              const auto stream = Open<FileAccessStream>();
              stream->Subscribe(key_);
              Ask();
              stream->OnCompleted();
            }),
            0);
  EXPECT_EQ(LeftBy([&] {
              auto stream = Open<FileAccessStream>();
              stream->Subscribe(key_);
              Ask();
              const auto* key = stream->pending_calls_.begin()->first;
              stream.reset();
              delete key;  // The stream leaks it.
              scheduler_.RunPosted();
            }),
            0);
  EXPECT_TRUE(FileAccessStream::stream_map_.empty());
}

}  // namespace
}  // namespace varnic
