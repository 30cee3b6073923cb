#include <gtest/gtest.h>

#include <string>

#include "core/common/rpc/allocation_count_test_support.h"
#include "core/common/rpc/stream/profile_streams_test_support.h"
#include "rpc/event_subscription.pb.h"

namespace varnic {
namespace {

using testing::AllocationCount;
using testing::Envelope;
using testing::NetworkStream;
using testing::Profile;
using testing::ServedStream;

// One object: an empty subscription, or an empty key. A key's text would be more.
class EventStreamAllocationTest : public testing::ProfileStreamsTest {
 protected:
  EventStreamAllocationTest() {
    stream_->Subscribe(Profile("warm up"));  // Leaves the registry's bucket array.
    stream_->Unsubscribe(Profile("warm up"));
  }

  static rpc::transport::StreamMessage WithEmptyKey(rpc::EventSubscription::Action action) {
    rpc::EventSubscription subscription;
    subscription.mutable_key();
    subscription.set_action(action);
    return Envelope(subscription.SerializeAsString());
  }

  ServedStream<NetworkStream> stream_{service_};
};

TEST_F(EventStreamAllocationTest, ASubscriptionMessageIsNeverFreed) {
  auto ignored = Envelope("");
  const AllocationCount count;

  for (int i = 0; i < 10; ++i) stream_->OnNext(&ignored);

  EXPECT_EQ(count.live(), 10);
}

TEST_F(EventStreamAllocationTest, AnIgnoredMessageKeepsItsKey) {
  auto ignored = WithEmptyKey(rpc::EventSubscription::ACTION_UNSPECIFIED);
  const AllocationCount count;

  stream_->OnNext(&ignored);

  EXPECT_EQ(count.live(), 2);
}

TEST_F(EventStreamAllocationTest, UnsubscribingAnUnknownKeyFreesTheKeyInTheMessage) {
  auto unsubscribe = WithEmptyKey(rpc::EventSubscription::UNSUBSCRIBE);
  const AllocationCount count;

  stream_->OnNext(&unsubscribe);

  EXPECT_EQ(count.live(), 1);
}

TEST_F(EventStreamAllocationTest, UnsubscribingAKnownKeyKeepsTheMessageWithItsKey) {
  auto unsubscribe = WithEmptyKey(rpc::EventSubscription::UNSUBSCRIBE);
  const AllocationCount count;
  stream_->Subscribe(ProfileId());

  stream_->OnNext(&unsubscribe);

  EXPECT_EQ(count.live(), 2);
  EXPECT_TRUE(NetworkStream::stream_map_.empty());
}

TEST_F(EventStreamAllocationTest, ARepeatedSubscriptionCopiesNothing) {
  const ProfileId key = Profile("work");
  stream_->Subscribe(key);
  const AllocationCount count;

  stream_->Subscribe(key);

  EXPECT_EQ(count.made(), 0);
}

TEST_F(EventStreamAllocationTest, ASecondStreamCostsOnlyItsPlaceInTheSet) {
  ServedStream<NetworkStream> second(service_);
  const ProfileId key = Profile("work");
  stream_->Subscribe(key);
  const AllocationCount count;

  second->Subscribe(key);
  EXPECT_EQ(count.made(), 1);
  second->Unsubscribe(key);

  EXPECT_EQ(count.made(), 1);
  EXPECT_EQ(count.live(), 0);
}

TEST_F(EventStreamAllocationTest, SubscribingAndUnsubscribingLeavesNothing) {
  const ProfileId key = Profile("a key with a text that is too long to be stored inline");
  const AllocationCount count;

  stream_->Subscribe(key);
  EXPECT_GT(count.live(), 0);
  stream_->Unsubscribe(key);

  EXPECT_EQ(count.live(), 0);
}

TEST_F(EventStreamAllocationTest, CompletionLeavesNothing) {
  const ProfileId work = Profile("work");
  const ProfileId home = Profile("home");
  const AllocationCount count;
  stream_->Subscribe(work);
  stream_->Subscribe(home);

  stream_->OnCompleted();

  EXPECT_GT(count.made(), 0);
  EXPECT_EQ(count.live(), 0);
}

}  // namespace
}  // namespace varnic
