#include "core/host/network_publisher.h"

#include <google/protobuf/descriptor.h>

#include <memory>
#include <string>
#include <vector>

#include "core/common/rpc/testing/recording_channel.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/profile/profile.rpc.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic::host {
namespace {

using rpc::EventSubscription;
using rpc::NetworkChanged;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

NetworkChanged Online(const std::string& address) {
  NetworkChanged state;
  state.set_online(true);
  state.add_interfaces()->add_addresses(address);
  return state;
}

// A client's stream.
struct Client {
  // What has come, as "KEY ADDRESS", or "KEY offline".
  std::vector<std::string> Events() const {
    std::vector<std::string> events;
    for (const auto& message : channel.sent()) {
      NetworkChanged event;
      EXPECT_TRUE(event.ParseFromString(message.payload()));
      EXPECT_TRUE(event.has_profile_id());
      const std::string what = event.online() ? event.interfaces(0).addresses(0) : "offline";
      events.push_back(event.profile_id().value() + " " + what);
    }
    return events;
  }

  void Send(const std::string& payload) {
    rpc::transport::StreamMessage message;
    message.set_payload(payload);
    stream->OnNext(&message);
  }
  void Send(const std::string& key, EventSubscription::Action action) {
    EventSubscription subscription;
    subscription.mutable_key()->set_value(key);
    subscription.set_action(action);
    Send(subscription.SerializeAsString());
  }
  void Subscribe(const std::string& key) { Send(key, EventSubscription::SUBSCRIBE); }
  void Unsubscribe(const std::string& key) { Send(key, EventSubscription::UNSUBSCRIBE); }

  ::varnic::testing::RecordingChannel channel;
  std::unique_ptr<EventStream<NetworkChanged>> stream;
};

class NetworkPublisherTest : public ::testing::Test {
 protected:
  ~NetworkPublisherTest() override {
    for (Client& client : clients_) {
      if (client.stream != nullptr) client.stream->OnCompleted();
    }
    EXPECT_THAT(EventStream<NetworkChanged>::stream_map_, IsEmpty());
  }

  Client& Open(int number = 0) {
    const auto* method = rpc::ProfileRpc::descriptor()->FindMethodByName("WhenNetworkChanged");
    Client& client = clients_[number];
    client.stream = publisher_.OpenStream(&service_, method, client.channel.Open());
    return client;
  }

  rpc::ProfileRpc service_;
  NetworkPublisher publisher_;
  Client clients_[2];
};

TEST_F(NetworkPublisherTest, NewSubscriberGetsTheStateAtOnce) {
  publisher_.Update(Online("a"));
  Client& client = Open();

  client.Subscribe("Other");

  EXPECT_THAT(client.Events(), ElementsAre("Other a"));
}

TEST_F(NetworkPublisherTest, AbsentKeyIsTheDefaultProfiles) {
  publisher_.Update(Online("a"));
  Client& client = Open();

  client.Send(std::string("\x10\x01", 2));  // Nothing but the action.

  EXPECT_THAT(client.Events(), ElementsAre(" a"));
}

TEST_F(NetworkPublisherTest, NewSubscriberWaitsForAStateThatIsNotKnownYet) {
  Client& client = Open();
  client.Subscribe("");
  EXPECT_THAT(client.Events(), IsEmpty());

  publisher_.Update(NetworkChanged());

  EXPECT_THAT(client.Events(), ElementsAre(" offline"));
}

TEST_F(NetworkPublisherTest, ChangeGoesToEverySubscriberUnderItsKeys) {
  publisher_.Update(Online("a"));
  Client& one = Open(0);
  Client& other = Open(1);
  one.Subscribe("");
  one.Subscribe("Other");
  other.Subscribe("Other");

  publisher_.Update(NetworkChanged());

  EXPECT_THAT(one.Events(),
              ::testing::UnorderedElementsAre(" a", "Other a", " offline", "Other offline"));
  EXPECT_THAT(other.Events(), ElementsAre("Other a", "Other offline"));
}

TEST_F(NetworkPublisherTest, SameStateIsNotPublishedAgain) {
  Client& client = Open();
  client.Subscribe("");

  publisher_.Update(Online("a"));
  publisher_.Update(Online("a"));
  publisher_.Update(Online("b"));
  publisher_.Update(Online("a"));

  EXPECT_THAT(client.Events(), ElementsAre(" a", " b", " a"));
}

TEST_F(NetworkPublisherTest, SecondSubscriptionToAKeySendsNothing) {
  publisher_.Update(Online("a"));
  Client& client = Open();

  client.Subscribe("");
  client.Subscribe("");
  EXPECT_THAT(client.Events(), ElementsAre(" a"));
  client.Unsubscribe("");
  client.Subscribe("");

  EXPECT_THAT(client.Events(), ElementsAre(" a", " a"));
}

TEST_F(NetworkPublisherTest, MessagesThatSubscribeToNothingSendNothing) {
  publisher_.Update(Online("a"));
  Client& client = Open();

  client.Unsubscribe("Other");
  client.Send("key", EventSubscription::ACTION_UNSPECIFIED);
  client.Send(std::string("\x10\x63", 2));
  client.Send("\xff");

  EXPECT_THAT(client.Events(), IsEmpty());
}

TEST_F(NetworkPublisherTest, StreamThatHasEndedGetsNothing) {
  Client& client = Open();
  client.Subscribe("");
  client.stream->OnCompleted();
  client.stream = nullptr;

  publisher_.Update(Online("a"));

  EXPECT_THAT(client.Events(), IsEmpty());
}

}  // namespace
}  // namespace varnic::host
