#include "core/common/rpc/stream/event_publisher.h"

#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/common/rpc/observed_key_test_support.h"
#include "core/common/rpc/process_death_test_support.h"
#include "core/common/rpc/shared_event.h"
#include "core/common/rpc/stream/profile_streams_test_support.h"

namespace varnic {
namespace {

using ::testing::ElementsAre;
using testing::FileAccessStream;
using ::testing::IsEmpty;
using testing::KeyLog;
using testing::NetworkStream;
using testing::ObservedKey;
using testing::Profile;
using testing::ServedStream;
using ::testing::UnorderedElementsAre;

using NetworkPublisher = EventPublisher<rpc::NetworkChanged>;

rpc::NetworkChanged Online() {
  rpc::NetworkChanged event;
  event.set_online(true);
  return event;
}

rpc::NetworkChanged Received(const rpc::transport::StreamMessage& envelope) {
  rpc::NetworkChanged event;
  EXPECT_TRUE(event.ParseFromString(envelope.payload()));
  return event;
}

// The keys of the events that a stream got.
template <class Stream>
std::vector<std::string> Keys(const ServedStream<Stream>& stream) {
  std::vector<std::string> keys;
  for (const auto& envelope : stream.recording().sent()) {
    keys.push_back(Received(envelope).profile_id().value());
  }
  return keys;
}

// Streams of which each stands in the memory of the one before it.
class StreamAtOnePlace : public NetworkStream {
 public:
  using NetworkStream::NetworkStream;
  static void* operator new(std::size_t /*size*/) { return memory_; }
  static void operator delete(void* /*memory*/) {}

 private:
  static inline char* const memory_ = new char[sizeof(NetworkStream)];
};
static_assert(sizeof(StreamAtOnePlace) == sizeof(NetworkStream));

// A stream with a transport that calls a hook for each event, and takes it or not.
class HookedStream {
 public:
  using Hook = std::function<bool(const SharedEvent&)>;

  HookedStream(Service& service, Hook hook)
      : stream_(std::make_unique<NetworkStream>(
            &service, testing::ProfileMethod(9),
            StreamChannel(std::make_unique<Transport>(std::move(hook))))) {}

  NetworkStream* operator->() { return stream_.get(); }
  NetworkStream* get() const { return stream_.get(); }
  void Destroy() { stream_.reset(); }

 private:
  class Transport final : public StreamChannel::Transport {
   public:
    explicit Transport(Hook hook) : hook_(std::move(hook)) {}
    bool Send(const rpc::transport::StreamMessage& /*envelope*/) override { return false; }
    bool SendEvent(const SharedEvent& event) override {
      const Hook hook = hook_;  // It may destroy the stream.
      return hook(event);
    }
    void Complete() override {}
    bool IsPeerPresent() const override { return true; }

   private:
    const Hook hook_;
  };

  std::unique_ptr<NetworkStream> stream_;
};

class EventPublisherTest : public testing::ProfileStreamsTest {};

TEST_F(EventPublisherTest, SendsToTheSubscribersOfAKeyOfEqualContent) {
  NetworkPublisher publisher;
  ServedStream<NetworkStream> first(service_);
  ServedStream<NetworkStream> second(service_);
  ServedStream<NetworkStream> other(service_);
  first->Subscribe(Profile("work"));
  second->Subscribe(Profile("work"));
  other->Subscribe(Profile("home"));

  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 2u);

  EXPECT_THAT(Keys(first), ElementsAre("work"));
  EXPECT_THAT(Keys(second), ElementsAre("work"));
  EXPECT_THAT(Keys(other), IsEmpty());
  EXPECT_TRUE(Received(first.recording().sent()[0]).online());

  first->OnCompleted();
  second->OnCompleted();
}

TEST_F(EventPublisherTest, EventWithTextThatIsNoUtf8IsSentToNobody) {
  NetworkPublisher publisher;
  ServedStream<NetworkStream> stream(service_);
  stream->Subscribe(Profile("work"));
  rpc::NetworkChanged event;
  event.add_interfaces()->set_name("eth\xff");

  EXPECT_EQ(publisher.Publish(Profile("work"), event), 0u);

  EXPECT_THAT(Keys(stream), IsEmpty());
  stream->OnCompleted();
}

TEST_F(EventPublisherTest, ReachesNobodyWhereNobodySubscribed) {
  NetworkPublisher publisher;
  ServedStream<NetworkStream> stream(service_);

  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 0u);
  EXPECT_EQ(publisher.PublishToEveryKey(Online()), 0u);

  EXPECT_THAT(stream.recording().sent(), IsEmpty());
}

TEST_F(EventPublisherTest, PutsTheKeyIntoWhatItSendsAndLeavesTheEventAlone) {
  NetworkPublisher publisher;
  ServedStream<NetworkStream> stream(service_);
  stream->Subscribe(Profile("work"));
  rpc::NetworkChanged event = Online();
  *event.mutable_profile_id() = Profile("something else");

  publisher.Publish(Profile("work"), event);

  EXPECT_THAT(Keys(stream), ElementsAre("work"));
  EXPECT_EQ(event.profile_id().value(), "something else");
}

TEST_F(EventPublisherTest, AKeyOfAnotherTypeIsNotPutIntoTheEvent) {
  NetworkPublisher publisher;
  ServedStream<NetworkStream> stream(service_);
  BrowserId key;
  key.set_value(7);
  stream->Subscribe(key);

  EXPECT_EQ(publisher.Publish(key, Online()), 1u);

  EXPECT_FALSE(Received(stream.recording().sent()[0]).has_profile_id());
}

TEST_F(EventPublisherTest, AnEventWithoutAPlaceForTheKeyIsSentAsItIs) {
  EventPublisher<google::protobuf::StringValue> publisher;
  testing::RecordingChannel recording;
  EventStream<google::protobuf::StringValue> stream(&service_, testing::ProfileMethod(9),
                                                    recording.Open());
  stream.Subscribe(Profile("work"));
  google::protobuf::StringValue event;
  event.set_value("text");

  EXPECT_EQ(publisher.Publish(Profile("work"), event), 1u);

  ASSERT_EQ(recording.sent().size(), 1u);
  EXPECT_EQ(recording.sent()[0].payload(), event.SerializeAsString());
  stream.OnCompleted();
}

TEST_F(EventPublisherTest, SharesTheBytesBetweenAllSubscribers) {
  NetworkPublisher publisher;
  std::vector<const char*> bytes;
  std::vector<std::string> keys;
  const auto note = [&](const SharedEvent& event) {
    bytes.push_back(event.payload().data());
    keys.push_back(event.conflation_key());
    return true;
  };
  HookedStream first(service_, note);
  HookedStream second(service_, note);
  first->Subscribe(Profile("work"));
  second->Subscribe(Profile("work"));

  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 2u);

  ASSERT_EQ(bytes.size(), 2u);
  EXPECT_EQ(bytes[0], bytes[1]);
  EXPECT_THAT(
      keys, ElementsAre(Profile("work").SerializeAsString(), Profile("work").SerializeAsString()));
  first->OnCompleted();
  second->OnCompleted();
}

TEST_F(EventPublisherTest, KeepsTheBytesOnlyForATransportThatKeepsThem) {
  NetworkPublisher publisher;
  std::optional<SharedEvent> waiting;
  HookedStream stream(service_, [&](const SharedEvent& event) {
    waiting = event;
    return true;
  });
  stream->Subscribe(Profile("work"));

  publisher.Publish(Profile("work"), Online());
  stream->OnCompleted();
  stream.Destroy();

  ASSERT_TRUE(waiting.has_value());
  rpc::NetworkChanged event;
  EXPECT_TRUE(event.ParseFromString(waiting->payload()));
  EXPECT_EQ(event.profile_id().value(), "work");
}

TEST_F(EventPublisherTest, CountsOnlyTheStreamsThatTookTheEvent) {
  NetworkPublisher publisher;
  HookedStream refuses(service_, [](const SharedEvent&) { return false; });
  ServedStream<NetworkStream> takes(service_);
  refuses->Subscribe(Profile("work"));
  takes->Subscribe(Profile("work"));

  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 1u);

  refuses->OnCompleted();
}

TEST_F(EventPublisherTest, PublishesUnderEveryKeyWithThatKey) {
  NetworkPublisher publisher;
  ServedStream<NetworkStream> first(service_);
  ServedStream<NetworkStream> second(service_);
  first->Subscribe(Profile("work"));
  first->Subscribe(Profile("home"));
  second->Subscribe(Profile(""));

  EXPECT_EQ(publisher.PublishToEveryKey(Online()), 3u);

  EXPECT_THAT(Keys(first), UnorderedElementsAre("work", "home"));
  EXPECT_THAT(Keys(second), ElementsAre(""));
}

TEST_F(EventPublisherTest, AStreamGetsTheEventsOfOneKeyInTheirOrder) {
  NetworkPublisher publisher;
  ServedStream<NetworkStream> stream(service_);
  stream->Subscribe(Profile("work"));

  for (int i = 1; i <= 3; ++i) {
    rpc::NetworkChanged event;
    event.set_max_downlink_mbps(i);
    publisher.Publish(Profile("work"), event);
  }

  ASSERT_EQ(stream.recording().sent().size(), 3u);
  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(Received(stream.recording().sent()[i - 1]).max_downlink_mbps(), i);
  }
}

TEST_F(EventPublisherTest, ACompletedStreamLeavesTheSetsThatItSharedAndGetsNothing) {
  NetworkPublisher publisher;
  ServedStream<NetworkStream> completes(service_);
  ServedStream<NetworkStream> stays(service_);
  completes->Subscribe(Profile("work"));
  stays->Subscribe(Profile("work"));

  completes->OnCompleted();

  ASSERT_EQ(NetworkStream::stream_map_.size(), 1u);
  EXPECT_THAT(NetworkStream::stream_map_.begin()->second, ElementsAre(stays.get()));
  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 1u);
  EXPECT_THAT(Keys(completes), IsEmpty());
}

TEST_F(EventPublisherTest, AStreamThatIsDestroyedUncompletedLeavesEverySet) {
  NetworkPublisher publisher;
  ServedStream<NetworkStream> destroyed(service_);
  ServedStream<NetworkStream> stays(service_);
  destroyed->Subscribe(Profile("work"));
  destroyed->Subscribe(Profile("home"));
  stays->Subscribe(Profile("work"));

  destroyed.Destroy();

  ASSERT_EQ(NetworkStream::stream_map_.size(), 1u);
  EXPECT_THAT(NetworkStream::stream_map_.begin()->second, ElementsAre(stays.get()));
  EXPECT_EQ(publisher.PublishToEveryKey(Online()), 1u);
}

TEST_F(EventPublisherTest, AnEntryThatAnEndEmptiesGoesWithItsKey) {
  KeyLog log;
  NetworkPublisher publisher;
  std::optional<ServedStream<NetworkStream>> stream(std::in_place, service_);
  {
    const ObservedKey key(log, Profile("work"));
    (*stream)->Subscribe(key);
  }
  EXPECT_EQ(log.live, 1);

  stream->Destroy();

  EXPECT_TRUE(NetworkStream::stream_map_.empty());
  EXPECT_EQ(log.live, 0);
}

TEST_F(EventPublisherTest, AStreamAtTheAddressOfACompletedOneGetsNothing) {
  NetworkPublisher publisher;
  ServedStream<NetworkStream> stays(service_);
  stays->Subscribe(Profile("work"));
  testing::RecordingChannel recording;
  const auto open = [&] {
    return std::make_unique<StreamAtOnePlace>(&service_, testing::ProfileMethod(9),
                                              recording.Open());
  };
  std::unique_ptr<StreamAtOnePlace> stream(open());
  const AbstractStream* address = stream.get();
  stream->Subscribe(Profile("work"));
  stream->OnCompleted();
  stream.reset();

  stream = open();
  ASSERT_EQ(stream.get(), address);
  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 1u);

  EXPECT_THAT(recording.sent(), IsEmpty());
  EXPECT_THAT(Keys(stays), ElementsAre("work"));
  stream->OnCompleted();
}

TEST_F(EventPublisherTest, AStreamAtTheAddressOfADestroyedOneGetsNothing) {
  NetworkPublisher publisher;
  testing::RecordingChannel recording;
  const auto open = [&] {
    return std::make_unique<StreamAtOnePlace>(&service_, testing::ProfileMethod(9),
                                              recording.Open());
  };
  std::unique_ptr<StreamAtOnePlace> stream(open());
  const AbstractStream* address = stream.get();
  stream->Subscribe(Profile("work"));
  stream.reset();

  stream = open();
  ASSERT_EQ(stream.get(), address);
  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 0u);

  EXPECT_THAT(recording.sent(), IsEmpty());
  stream->OnCompleted();
}

TEST_F(EventPublisherTest, AStreamAtTheAddressOfACompletedOneLeavesItsSetsWhenItIsDestroyed) {
  NetworkPublisher publisher;
  testing::RecordingChannel recording;
  const auto open = [&] {
    return std::make_unique<StreamAtOnePlace>(&service_, testing::ProfileMethod(9),
                                              recording.Open());
  };
  std::unique_ptr<StreamAtOnePlace> stream(open());
  const AbstractStream* address = stream.get();
  stream->Subscribe(Profile("work"));
  stream->OnCompleted();  // From every set.
  stream.reset();

  stream = open();
  ASSERT_EQ(stream.get(), address);
  stream->Subscribe(Profile("work"));
  stream.reset();

  EXPECT_TRUE(NetworkStream::stream_map_.empty());
}

TEST_F(EventPublisherTest, AStreamThatHasLeftEverySetIsNotLookedForAgain) {
  NetworkPublisher publisher;
  ServedStream<NetworkStream> stays(service_);
  ServedStream<NetworkStream> idle(service_);
  stays->Subscribe(Profile("work"));
  const std::uint64_t changes = NetworkStream::changes_;

  idle->OnCompleted();

  EXPECT_EQ(NetworkStream::changes_, changes);
  stays->OnCompleted();
}

TEST_F(EventPublisherTest, AStreamAtAReusedAddressGetsWhatItSubscribedItself) {
  NetworkPublisher publisher;
  testing::RecordingChannel recording;
  const auto open = [&] {
    return std::make_unique<StreamAtOnePlace>(&service_, testing::ProfileMethod(9),
                                              recording.Open());
  };
  std::unique_ptr<StreamAtOnePlace> stream(open());
  stream->Subscribe(Profile("work"));
  stream.reset();

  stream = open();
  stream->Subscribe(Profile("home"));
  EXPECT_EQ(publisher.PublishToEveryKey(Online()), 1u);

  ASSERT_EQ(recording.sent().size(), 1u);
  EXPECT_EQ(Received(recording.sent()[0]).profile_id().value(), "home");
  stream->OnCompleted();
}

TEST_F(EventPublisherTest, AStreamOfAnotherClassAtTheAddressGetsNothing) {
  NetworkPublisher publisher;
  alignas(FileAccessStream) alignas(NetworkStream) char memory[sizeof(FileAccessStream)];
  static_assert(sizeof(FileAccessStream) >= sizeof(NetworkStream));
  testing::RecordingChannel recording;
  auto* gone = new (memory) NetworkStream(&service_, testing::ProfileMethod(9), recording.Open());
  gone->Subscribe(Profile("work"));
  gone->~NetworkStream();

  auto* files =
      new (memory) FileAccessStream(&service_, testing::ProfileMethod(10), recording.Open());
  EXPECT_EQ(publisher.PublishToEveryKey(Online()), 0u);

  EXPECT_THAT(recording.sent(), IsEmpty());
  files->OnCompleted();
  files->~FileAccessStream();
}

TEST_F(EventPublisherTest, DropsThePointersOfGoneStreamsThatItFinds) {
  ServedStream<NetworkStream> completes(service_);
  ServedStream<NetworkStream> destroyed(service_);
  ServedStream<NetworkStream> stays(service_);
  for (const auto* stream : {&completes, &destroyed, &stays}) {
    (*stream)->Subscribe(Profile("work"));
  }
  destroyed->Subscribe(Profile("home"));
  completes->OnCompleted();
  destroyed.Destroy();
  ASSERT_EQ(NetworkStream::stream_map_.size(), 2u);

  NetworkPublisher publisher;

  ASSERT_EQ(NetworkStream::stream_map_.size(), 1u);
  EXPECT_THAT(NetworkStream::stream_map_.begin()->second, ElementsAre(stays.get()));
  EXPECT_EQ(publisher.PublishToEveryKey(Online()), 1u);
}

TEST_F(EventPublisherTest, OnceItIsGoneTheRegistryIsAsTheStreamsLeaveIt) {
  ServedStream<NetworkStream> completes(service_);
  ServedStream<NetworkStream> stays(service_);
  completes->Subscribe(Profile("work"));
  stays->Subscribe(Profile("work"));
  std::optional<NetworkPublisher> publisher(std::in_place);

  publisher.reset();
  completes->OnCompleted();

  ASSERT_EQ(NetworkStream::stream_map_.size(), 1u);
  EXPECT_EQ(NetworkStream::stream_map_.begin()->second.size(), 2u);
  RemoveLeftovers(NetworkStream::stream_map_);
}

TEST_F(EventPublisherTest, AStreamThatCompletesWhileAnotherIsSentToGetsNothing) {
  NetworkPublisher publisher;
  std::vector<HookedStream*> reached;
  std::optional<HookedStream> first;
  std::optional<HookedStream> second;
  first.emplace(service_, [&](const SharedEvent&) {
    reached.push_back(&*first);
    (*second)->OnCompleted();
    return true;
  });
  second.emplace(service_, [&](const SharedEvent&) {
    reached.push_back(&*second);
    (*first)->OnCompleted();
    return true;
  });
  (*first)->Subscribe(Profile("work"));
  (*second)->Subscribe(Profile("work"));

  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 1u);

  ASSERT_EQ(reached.size(), 1u);
  (*reached[0])->OnCompleted();
}

TEST_F(EventPublisherTest, StreamsMayBeDestroyedWhileOneOfThemIsSentTo) {
  NetworkPublisher publisher;
  int reached = 0;
  std::vector<std::unique_ptr<HookedStream>> streams;
  for (int i = 0; i < 3; ++i) {
    streams.push_back(std::make_unique<HookedStream>(service_, [&](const SharedEvent&) {
      ++reached;
      streams.clear();
      return true;
    }));
    (*streams.back())->Subscribe(Profile("work"));
  }

  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 1u);

  EXPECT_EQ(reached, 1);
}

TEST_F(EventPublisherTest, AStreamThatIsUnsubscribedWhileAnotherIsSentToGetsNothing) {
  NetworkPublisher publisher;
  int reached = 0;
  std::vector<std::unique_ptr<HookedStream>> streams;
  const auto hook = [&](const SharedEvent&) {
    ++reached;
    for (const auto& stream : streams) (*stream)->Unsubscribe(Profile("work"));
    return true;
  };
  for (int i = 0; i < 2; ++i) {
    streams.push_back(std::make_unique<HookedStream>(service_, hook));
    (*streams.back())->Subscribe(Profile("work"));
  }

  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 1u);

  EXPECT_EQ(reached, 1);
  for (const auto& stream : streams) (*stream)->OnCompleted();
}

TEST_F(EventPublisherTest, AStreamThatSubscribesMeanwhileWaitsForTheNextEvent) {
  NetworkPublisher publisher;
  std::vector<std::unique_ptr<ServedStream<NetworkStream>>> late;
  HookedStream stream(service_, [&](const SharedEvent&) {
    late.push_back(std::make_unique<ServedStream<NetworkStream>>(service_));
    (*late.back())->Subscribe(Profile("work"));
    return true;
  });
  stream->Subscribe(Profile("work"));

  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 1u);
  EXPECT_THAT(Keys(*late[0]), IsEmpty());
  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 2u);

  EXPECT_THAT(Keys(*late[0]), ElementsAre("work"));
  stream->OnCompleted();
}

TEST_F(EventPublisherTest, AKeyThatGoesWhileEveryKeyIsPublishedIsPassedOver) {
  NetworkPublisher publisher;
  int reached = 0;
  std::vector<std::unique_ptr<HookedStream>> streams;
  for (const char* key : {"work", "home", "school"}) {
    streams.push_back(std::make_unique<HookedStream>(service_, [&](const SharedEvent&) {
      ++reached;
      streams.clear();
      return true;
    }));
    (*streams.back())->Subscribe(Profile(key));
  }

  EXPECT_EQ(publisher.PublishToEveryKey(Online()), 1u);

  EXPECT_EQ(reached, 1);
}

TEST_F(EventPublisherTest, MayPublishAgainWhileItPublishes) {
  NetworkPublisher publisher;
  std::size_t inner = 0;
  ServedStream<NetworkStream> listener(service_);
  HookedStream stream(service_, [&](const SharedEvent&) {
    if (listener.recording().sent().size() < 4)
      inner += publisher.Publish(Profile("home"), Online());
    return true;
  });
  listener->Subscribe(Profile("home"));
  listener->Subscribe(Profile("work"));
  stream->Subscribe(Profile("work"));

  EXPECT_EQ(publisher.Publish(Profile("work"), Online()), 2u);

  EXPECT_EQ(inner, 1u);
  EXPECT_THAT(Keys(listener), UnorderedElementsAre("home", "work"));
  stream->OnCompleted();
}

TEST_F(EventPublisherTest, TwoPublishersShareTheStreams) {
  NetworkPublisher first;
  std::optional<NetworkPublisher> second(std::in_place);
  ServedStream<NetworkStream> completes(service_);
  ServedStream<NetworkStream> stays(service_);
  completes->Subscribe(Profile("work"));
  stays->Subscribe(Profile("work"));

  EXPECT_EQ(second->Publish(Profile("work"), Online()), 2u);
  completes->OnCompleted();
  second.reset();

  EXPECT_EQ(first.Publish(Profile("work"), Online()), 1u);
}

using EventPublisherDeathTest = EventPublisherTest;

TEST_F(EventPublisherDeathTest, ItMustNotBeDestroyedWhileItPublishes) {
  int line = 0;
  std::optional<NetworkPublisher> publisher(std::in_place);
  HookedStream stream(service_, [&](const SharedEvent&) {
    publisher.reset();
    return true;
  });
  stream->Subscribe(Profile("work"));

  EXPECT_DEATH(publisher->Publish(Profile("work"), Online()),
               testing::FatalRecord("event_publisher.h", "Check failed: publishing_ == 0", line));
  stream->OnCompleted();
}

}  // namespace
}  // namespace varnic
