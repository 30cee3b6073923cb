#include "core/common/rpc/stream/event_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/common/rpc/completion_hook_test_support.h"
#include "core/common/rpc/observed_key_test_support.h"
#include "core/common/rpc/stream/profile_streams_test_support.h"
#include "core/common/rpc/virtual_slot_test_support.h"
#include "rpc/event_subscription.pb.h"

namespace varnic {
namespace {

using google::protobuf::Message;
using testing::ChannelWithCompletionHook;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::KeyLog;
using testing::NetworkStream;
using testing::ObservedKey;
using testing::Profile;
using testing::ProfileMethod;
using testing::ServedStream;
using ::testing::UnorderedElementsAre;
using testing::VirtualSlot;

constexpr int kSubscribe = 1;
constexpr int kUnsubscribe = 2;

static_assert(std::is_base_of_v<AbstractStream, NetworkStream>);
static_assert(std::is_same_v<decltype(NetworkStream::stream_map_),
                             std::unordered_map<const Message*, std::set<NetworkStream*>,
                                                MessageHash, MessageEqual>>);

rpc::EventSubscription WithoutKey(int action) {
  rpc::EventSubscription subscription;
  subscription.set_action(static_cast<rpc::EventSubscription::Action>(action));
  return subscription;
}

rpc::EventSubscription Subscription(int action, const std::string& key) {
  rpc::EventSubscription subscription = WithoutKey(action);
  *subscription.mutable_key() = Profile(key);
  return subscription;
}

// Counts who asks for which prototype.
class CountingService : public rpc::ProfileRpc {
 public:
  const Message& GetRequestPrototype(
      const google::protobuf::MethodDescriptor* method) const override {
    requests.push_back(method);
    return rpc::ProfileRpc::GetRequestPrototype(method);
  }
  const Message& GetResponsePrototype(
      const google::protobuf::MethodDescriptor* method) const override {
    responses.push_back(method);
    return rpc::ProfileRpc::GetResponsePrototype(method);
  }

  mutable std::vector<const google::protobuf::MethodDescriptor*> requests;
  mutable std::vector<const google::protobuf::MethodDescriptor*> responses;
};

class EventStreamTest : public testing::ProfileStreamsTest {
 protected:
  static auto& Registry() { return NetworkStream::stream_map_; }
  // As a host looks them up, with a key that it made itself.
  static std::set<NetworkStream*> Subscribers(const std::string& key) {
    const ProfileId probe = Profile(key);
    const auto entry = Registry().find(&probe);
    return entry == Registry().end() ? std::set<NetworkStream*>() : entry->second;
  }
  static const Message* StoredKey(const std::string& key) {
    const ProfileId probe = Profile(key);
    const auto entry = Registry().find(&probe);
    return entry == Registry().end() ? nullptr : entry->first;
  }

  KeyLog log_;
};

TEST_F(EventStreamTest, VirtualOperationsStandInTheirAgreedOrder) {
  EXPECT_EQ(VirtualSlot(&NetworkStream::OnNext), 2u);
  EXPECT_EQ(VirtualSlot(&NetworkStream::OnError), 3u);
  EXPECT_EQ(VirtualSlot(&NetworkStream::OnCompleted), 4u);
}

TEST_F(EventStreamTest, TheServiceAndTheMethodAreItsOnlyMembersInThatOrder) {
  const ServedStream<NetworkStream> stream(service_);
  const auto* service = reinterpret_cast<const char*>(&stream->service_);

  EXPECT_EQ(service - reinterpret_cast<const char*>(stream.get()),
            static_cast<std::ptrdiff_t>(sizeof(AbstractStream)));
  EXPECT_EQ(reinterpret_cast<const char*>(&stream->method_) - service,
            static_cast<std::ptrdiff_t>(sizeof(void*)));
  EXPECT_EQ(sizeof(NetworkStream), sizeof(AbstractStream) + 2 * sizeof(void*));
}

TEST_F(EventStreamTest, ANewStreamIsSubscribedToNothing) {
  const ServedStream<NetworkStream> stream(service_);

  EXPECT_TRUE(Registry().empty());
  EXPECT_EQ(stream->service_.get(), &service_);
  EXPECT_EQ(stream->method_.get(), ProfileMethod(9));
}

TEST_F(EventStreamTest, ADestroyedStreamHasLetGoOfServiceAndMethod) {
  testing::RecordingChannel recording;
  alignas(NetworkStream) unsigned char storage[sizeof(NetworkStream)];
  auto* stream = new (storage) NetworkStream(&service_, ProfileMethod(9), recording.Open());
  auto* service = reinterpret_cast<std::uintptr_t volatile*>(&stream->service_);
  auto* method = reinterpret_cast<std::uintptr_t volatile*>(&stream->method_);
  ASSERT_EQ(*method, reinterpret_cast<std::uintptr_t>(ProfileMethod(9)));

  stream->~EventStream();

  EXPECT_EQ(*service, 0u);
  EXPECT_EQ(*method, 0u);
}

TEST_F(EventStreamTest, EachEventTypeHasARegistryOfItsOwn) {
  const void* other = &EventStream<rpc::CanAccessFile>::stream_map_;

  EXPECT_NE(static_cast<const void*>(&NetworkStream::stream_map_), other);
  EXPECT_TRUE(EventStream<rpc::CanAccessFile>::stream_map_.empty());
}

TEST_F(EventStreamTest, ASubscribedStreamIsFoundByAKeyOfEqualContent) {
  ServedStream<NetworkStream> stream(service_);

  stream.Receive(Subscription(kSubscribe, "work"));

  EXPECT_THAT(Subscribers("work"), ElementsAre(stream.get()));
  EXPECT_THAT(Subscribers("home"), IsEmpty());
}

TEST_F(EventStreamTest, SubscribingTwiceLeavesOneMembershipThatOneUnsubscribeUndoes) {
  ServedStream<NetworkStream> stream(service_);

  stream.Receive(Subscription(kSubscribe, "work"));
  stream.Receive(Subscription(kSubscribe, "work"));
  EXPECT_EQ(Registry().size(), 1u);
  EXPECT_THAT(Subscribers("work"), ElementsAre(stream.get()));

  stream.Receive(Subscription(kUnsubscribe, "work"));
  EXPECT_TRUE(Registry().empty());
}

TEST_F(EventStreamTest, TheUnsubscribeThatEmptiesAnEntryDeletesItsKeyCopyOnce) {
  ServedStream<NetworkStream> stream(service_);
  stream->Subscribe(ObservedKey(log_, Profile("work")));
  stream->Subscribe(ObservedKey(log_, Profile("work")));
  const Message* stored = StoredKey("work");
  log_.deleted.clear();
  std::size_t size_at_deletion = 99;
  log_.on_delete = [&] { size_at_deletion = Registry().size(); };

  stream.Receive(Subscription(kUnsubscribe, "work"));

  EXPECT_THAT(log_.deleted, ElementsAre(stored));
  EXPECT_EQ(log_.live, 0);
  EXPECT_EQ(size_at_deletion, 0u);
}

TEST_F(EventStreamTest, TheFirstSubscriptionCopiesTheCallersKey) {
  ServedStream<NetworkStream> stream(service_);
  auto key = std::make_unique<ObservedKey>(log_, Profile("work"));

  stream->Subscribe(*key);

  EXPECT_EQ(log_.clones, 1);
  EXPECT_EQ(log_.copies, 1);
  EXPECT_NE(StoredKey("work"), key.get());
  key.reset();
  EXPECT_THAT(Subscribers("work"), ElementsAre(stream.get()));
}

TEST_F(EventStreamTest, StreamsWithKeysOfEqualContentShareTheEntryOfTheFirst) {
  ServedStream<NetworkStream> first(service_);
  ServedStream<NetworkStream> second(service_);
  first->Subscribe(ObservedKey(log_, Profile("work")));
  const Message* stored = StoredKey("work");

  second->Subscribe(ObservedKey(log_, Profile("work")));

  EXPECT_EQ(Registry().size(), 1u);
  EXPECT_EQ(StoredKey("work"), stored);
  EXPECT_EQ(log_.clones, 1);
  EXPECT_EQ(log_.live, 1);
  EXPECT_THAT(Subscribers("work"), UnorderedElementsAre(first.get(), second.get()));
  first.Receive(Subscription(kUnsubscribe, "work"));
  second.Receive(Subscription(kUnsubscribe, "work"));
}

TEST_F(EventStreamTest, OneStreamMayHoldSeveralKeys) {
  ServedStream<NetworkStream> stream(service_);

  stream.Receive(Subscription(kSubscribe, "work"));
  stream.Receive(Subscription(kSubscribe, "home"));
  stream.Receive(Subscription(kUnsubscribe, "work"));

  EXPECT_THAT(Subscribers("work"), IsEmpty());
  EXPECT_THAT(Subscribers("home"), ElementsAre(stream.get()));
}

TEST_F(EventStreamTest, UnsubscribingLeavesTheOtherStreamsOfTheKey) {
  ServedStream<NetworkStream> first(service_);
  ServedStream<NetworkStream> second(service_);
  first.Receive(Subscription(kSubscribe, "work"));
  second.Receive(Subscription(kSubscribe, "work"));

  first.Receive(Subscription(kUnsubscribe, "work"));

  EXPECT_THAT(Subscribers("work"), ElementsAre(second.get()));
}

TEST_F(EventStreamTest, UnsubscribingFromAKeyThatOnlyOthersHoldChangesNothing) {
  ServedStream<NetworkStream> holder(service_);
  ServedStream<NetworkStream> stranger(service_);
  holder->Subscribe(ObservedKey(log_, Profile("work")));

  stranger.Receive(Subscription(kUnsubscribe, "work"));

  EXPECT_THAT(Subscribers("work"), ElementsAre(holder.get()));
  EXPECT_EQ(log_.live, 1);
}

TEST_F(EventStreamTest, UnsubscribingAnUnknownKeyDeletesTheCallersKey) {
  ServedStream<NetworkStream> stream(service_);
  auto* key = new ObservedKey(log_, Profile("unknown"));
  std::size_t size_at_deletion = 99;
  log_.on_delete = [&] { size_at_deletion = Registry().size(); };

  stream->Unsubscribe(*key);

  EXPECT_THAT(log_.deleted, ElementsAre(key));
  EXPECT_EQ(log_.clones, 0);
  EXPECT_EQ(size_at_deletion, 0u);
  EXPECT_TRUE(Registry().empty());
}

TEST_F(EventStreamTest, AnUnsubscribeMessageForAnUnknownKeyLeavesTheRegistryEmpty) {
  ServedStream<NetworkStream> stream(service_);

  stream.Receive(Subscription(kUnsubscribe, "never subscribed"));

  EXPECT_TRUE(Registry().empty());
}

TEST_F(EventStreamTest, OtherActionsChangeNothing) {
  ServedStream<NetworkStream> stream(service_);
  stream.Receive(Subscription(kSubscribe, "work"));

  for (int action :
       {0, 3, 4, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
    stream.Receive(Subscription(action, "work"));
    stream.Receive(Subscription(action, "home"));
  }

  EXPECT_EQ(Registry().size(), 1u);
  EXPECT_THAT(Subscribers("work"), ElementsAre(stream.get()));
}

TEST_F(EventStreamTest, AnAbsentKeyIsTheEmptyKey) {
  ServedStream<NetworkStream> without(service_);
  ServedStream<NetworkStream> with_empty(service_);

  without.Receive(WithoutKey(kSubscribe));
  with_empty.Receive(Subscription(kSubscribe, ""));

  EXPECT_EQ(Registry().size(), 1u);
  EXPECT_THAT(Subscribers(""), UnorderedElementsAre(without.get(), with_empty.get()));
  with_empty.Receive(WithoutKey(kUnsubscribe));
  EXPECT_THAT(Subscribers(""), ElementsAre(without.get()));
}

TEST_F(EventStreamTest, UnsubscribingAnAbsentKeyThatIsUnknownIsHarmless) {
  ServedStream<NetworkStream> stream(service_);

  stream.Receive(WithoutKey(kUnsubscribe));
  stream.Receive(WithoutKey(kUnsubscribe));

  EXPECT_TRUE(Registry().empty());
  EXPECT_EQ(ProfileId::default_instance().value(), "");
}

TEST_F(EventStreamTest, AnEmptyPayloadIsIgnored) {
  ServedStream<NetworkStream> stream(service_);

  stream.ReceiveBytes("");

  EXPECT_TRUE(Registry().empty());
  EXPECT_TRUE(stream.recording().open());
}

TEST_F(EventStreamTest, GarbageIsIgnored) {
  ServedStream<NetworkStream> stream(service_);

  ::testing::internal::CaptureStderr();
  stream.ReceiveBytes("\xff\xff\xff garbage");
  const std::string output = ::testing::internal::GetCapturedStderr();

  EXPECT_TRUE(Registry().empty());
  EXPECT_TRUE(stream.recording().open());
  EXPECT_EQ(output, "");
}

TEST_F(EventStreamTest, WhatWasReadBeforeTheParserFailedIsActedOn) {
  ServedStream<NetworkStream> stream(service_);
  const std::string subscription = Subscription(kSubscribe, "work").SerializeAsString();

  stream.ReceiveBytes(subscription + "\xff");

  EXPECT_THAT(Subscribers("work"), ElementsAre(stream.get()));
}

TEST_F(EventStreamTest, MessagesAreOfTheMethodsRequestType) {
  CountingService service;
  ServedStream<NetworkStream> stream(service);

  stream.Receive(Subscription(kSubscribe, "work"));

  EXPECT_THAT(service.requests, ElementsAre(ProfileMethod(9)));
  EXPECT_THAT(service.responses, IsEmpty());
}

TEST_F(EventStreamTest, TheEnvelopeStaysAsItIs) {
  const ServedStream<NetworkStream> stream(service_);
  auto envelope = testing::Envelope(Subscription(kSubscribe, "work").SerializeAsString(), 7);
  const std::string before = envelope.SerializeAsString();

  stream->OnNext(&envelope);

  EXPECT_EQ(envelope.SerializeAsString(), before);
}

TEST_F(EventStreamTest, AnErrorChangesNothing) {
  ServedStream<NetworkStream> stream(service_);
  stream.Receive(Subscription(kSubscribe, "work"));

  stream.ReceiveError(Subscription(kUnsubscribe, "work"));
  stream.ReceiveError(Subscription(kSubscribe, "home"));

  EXPECT_EQ(Registry().size(), 1u);
  EXPECT_THAT(Subscribers("work"), ElementsAre(stream.get()));
  EXPECT_TRUE(stream.recording().open());
  EXPECT_EQ(stream.recording().completions(), 0);
}

TEST_F(EventStreamTest, CompletionAfterAnErrorCleansUpAndCompletesOnce) {
  ServedStream<NetworkStream> stream(service_);
  stream.Receive(Subscription(kSubscribe, "work"));
  stream.ReceiveError(Subscription(kSubscribe, "work"));

  stream->OnCompleted();

  EXPECT_TRUE(Registry().empty());
  EXPECT_EQ(stream.recording().completions(), 1);
}

TEST_F(EventStreamTest, CompletionRemovesTheKeysThatTheStreamHoldsAloneAndOnlyThose) {
  ServedStream<NetworkStream> a(service_);
  ServedStream<NetworkStream> b(service_);
  a->Subscribe(ObservedKey(log_, Profile("alone")));
  a.Receive(Subscription(kSubscribe, "shared"));
  b.Receive(Subscription(kSubscribe, "shared"));
  ASSERT_EQ(log_.live, 1);

  a->OnCompleted();

  EXPECT_EQ(log_.live, 0);
  EXPECT_EQ(Registry().size(), 1u);
  EXPECT_THAT(Subscribers("shared"), UnorderedElementsAre(a.get(), b.get()));
  EXPECT_EQ(a.recording().completions(), 1);
  RemoveLeftovers(Registry());
}

TEST_F(EventStreamTest, ASharedSetKeepsACompletedStreamEvenAfterItsEnd) {
  ServedStream<NetworkStream> a(service_);
  ServedStream<NetworkStream> b(service_);
  a.Receive(Subscription(kSubscribe, "shared"));
  b.Receive(Subscription(kSubscribe, "shared"));
  NetworkStream* const address = a.get();
  a->OnCompleted();

  a.Destroy();
  b->OnCompleted();

  EXPECT_THAT(Subscribers("shared"), UnorderedElementsAre(address, b.get()));
  RemoveLeftovers(Registry());
}

TEST_F(EventStreamTest, CompletionOfAStreamThatNeverSubscribedLeavesTheOthers) {
  ServedStream<NetworkStream> subscribed(service_);
  const ServedStream<NetworkStream> stranger(service_);
  subscribed.Receive(Subscription(kSubscribe, "work"));

  stranger->OnCompleted();

  EXPECT_THAT(Subscribers("work"), ElementsAre(subscribed.get()));
  EXPECT_EQ(stranger.recording().completions(), 1);
}

TEST_F(EventStreamTest, CompletionWithAnEmptyRegistryOnlyCompletes) {
  const ServedStream<NetworkStream> stream(service_);

  stream->OnCompleted();

  EXPECT_EQ(stream.recording().completions(), 1);
  EXPECT_TRUE(Registry().empty());
}

TEST_F(EventStreamTest, CompletionAlsoRemovesAKeyThatNobodyHolds) {
  const ServedStream<NetworkStream> stranger(service_);
  Registry().emplace(CloneKey(Profile("nobody's")), std::set<NetworkStream*>());

  stranger->OnCompleted();

  EXPECT_TRUE(Registry().empty());
}

TEST_F(EventStreamTest, CompletionDeletesItsKeysInAscendingOrderOfAddress) {
  const ServedStream<NetworkStream> stream(service_);
  for (int i = 0; i < 20; ++i) stream->Subscribe(ObservedKey(log_, Profile(std::to_string(i))));
  log_.deleted.clear();

  stream->OnCompleted();

  EXPECT_EQ(log_.deleted.size(), 20u);
  EXPECT_TRUE(std::is_sorted(log_.deleted.begin(), log_.deleted.end()));
  EXPECT_EQ(log_.live, 0);
}

TEST_F(EventStreamTest, TheRegistryIsLeftBeforeTheChannelIsCompleted) {
  std::size_t size_at_completion = 99;
  NetworkStream stream(&service_, ProfileMethod(9),
                       ChannelWithCompletionHook([&] { size_at_completion = Registry().size(); }));
  stream.Subscribe(Profile("work"));

  stream.OnCompleted();

  EXPECT_EQ(size_at_completion, 0u);
}

TEST_F(EventStreamTest, CompletionMayDestroyTheStream) {
  std::unique_ptr<NetworkStream> stream;
  stream = std::make_unique<NetworkStream>(&service_, ProfileMethod(9),
                                           ChannelWithCompletionHook([&] { stream.reset(); }));
  stream->Subscribe(Profile("work"));
  stream->Subscribe(Profile("home"));

  stream->OnCompleted();

  EXPECT_EQ(stream, nullptr);
  EXPECT_TRUE(Registry().empty());
}

TEST_F(EventStreamTest, DestructionWithoutCompletionLeavesThePointerInEverySet) {
  ServedStream<NetworkStream> stream(service_);
  ServedStream<NetworkStream> other(service_);
  stream.Receive(Subscription(kSubscribe, "alone"));
  stream.Receive(Subscription(kSubscribe, "shared"));
  other.Receive(Subscription(kSubscribe, "shared"));
  NetworkStream* const address = stream.get();

  stream.Destroy();

  EXPECT_THAT(Subscribers("alone"), ElementsAre(address));
  EXPECT_THAT(Subscribers("shared"), UnorderedElementsAre(address, other.get()));
  RemoveLeftovers(Registry());
}

TEST_F(EventStreamTest, AnEmptyRegistryIsLookedUpWithoutHashing) {
  const ServedStream<NetworkStream> stream(service_);
  const ObservedKey probe(log_, Profile("work"));

  EXPECT_EQ(Registry().find(&probe), Registry().end());

  EXPECT_EQ(probe.reads(), 0);
}

}  // namespace
}  // namespace varnic
