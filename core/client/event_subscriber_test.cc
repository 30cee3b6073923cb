#include "core/client/event_subscriber.h"

#include <gmock/gmock.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/client/testing/scripted_server.h"
#include "core/client/testing/stream_test.h"
#include "core/net/frame_message.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::Key;
using testing::ScriptedServer;
using Subscriber = EventSubscriber<rpc::NetworkChanged>;

class EventSubscriberTest : public testing::StreamTest {
 protected:
  // Events are heard as "event KEY".
  void Open(StreamListeners listeners, std::function<void()> on_event = nullptr) {
    subscriber_ = std::make_unique<Subscriber>(
        *client_, Method("WhenNetworkChanged"),
        [this, on_event = std::move(on_event)](const rpc::NetworkChanged& event) {
          heard_.push_back("event " + event.profile_id().value());
          if (on_event != nullptr) on_event();
        },
        std::move(listeners));
  }
  void Open() { Open(Listeners()); }
  // A stream that is about to end: the server takes one key of two.
  void OpenToItsEnd(StreamListeners listeners) {
    ServerOptions options;
    options.streams.subscriptions.max_subscriptions = 1;
    Serve(options);
    Open(std::move(listeners));
    subscriber_->Subscribe(Key("P"));
    subscriber_->Subscribe(Key("Q"));
  }
  // On which nothing was heard but that it is up.
  void OpenAndSettle() {
    Open();
    Settle();
    heard_.clear();
  }
  std::size_t Publish(const std::string& key) {
    const std::size_t taken = served_->Publish(key);
    Settle();
    return taken;
  }

  std::unique_ptr<Subscriber> subscriber_;
};

TEST_F(EventSubscriberTest, HearsEventsOfItsKeysAlone) {
  Serve();
  Open();
  subscriber_->Subscribe(Key("P"));
  Settle();

  EXPECT_EQ(Publish("P"), 1U);
  EXPECT_EQ(Publish("Q"), 0U);

  EXPECT_THAT(heard_, ElementsAre("up", "event P"));
}

TEST_F(EventSubscriberTest, KeysMayComeAndGoWhileItIsUp) {
  Serve();
  OpenAndSettle();

  subscriber_->Subscribe(Key("P"));
  Settle();
  EXPECT_EQ(Publish("P"), 1U);

  subscriber_->Unsubscribe(Key("P"));
  Settle();
  EXPECT_EQ(Publish("P"), 0U);
  EXPECT_THAT(heard_, ElementsAre("event P"));
}

TEST_F(EventSubscriberTest, DefaultProfileIsAKeyLikeAnyOther) {
  Serve();
  Open();
  subscriber_->Subscribe(ProfileId());
  Settle();

  EXPECT_EQ(Publish(""), 1U);
}

TEST_F(EventSubscriberTest, SubscribingTwiceIsSubscribingOnce) {
  ServerOptions options;
  options.streams.subscriptions.max_messages = 2;
  Serve(options);
  OpenAndSettle();
  for (int i = 0; i < 10; ++i) subscriber_->Subscribe(Key("P"));
  subscriber_->Unsubscribe(Key("never subscribed"));
  Settle();

  EXPECT_EQ(Publish("P"), 1U);
  EXPECT_THAT(heard_, ElementsAre("event P"));

  subscriber_->Unsubscribe(Key("P"));
  Settle();
  EXPECT_EQ(Publish("P"), 0U);
  EXPECT_THAT(heard_, ElementsAre("event P"));
}

TEST_F(EventSubscriberTest, ServerHasBeenToldOfEveryKeyWhenTheStreamIsUp) {
  Serve();
  std::size_t taken = 0;
  StreamListeners listeners;
  listeners.on_up = [&] {
    served_->Turn();
    taken = served_->Publish("P") + served_->Publish("Q");
  };
  Open(std::move(listeners));
  subscriber_->Subscribe(Key("P"));
  subscriber_->Subscribe(Key("Q"));

  Settle();

  EXPECT_EQ(taken, 2U);
}

TEST_F(EventSubscriberTest, SubscribesAgainAtTheNextServer) {
  Serve();
  Open();
  for (const char* key : {"P", "Q", "R"}) subscriber_->Subscribe(Key(key));
  Settle();
  subscriber_->Unsubscribe(Key("Q"));
  Settle();

  served_ = nullptr;
  Settle();
  Serve();
  subscriber_->Subscribe(Key("S"));
  Advance(absl::Seconds(1));

  EXPECT_EQ(Publish("P") + Publish("R") + Publish("S"), 3U);
  EXPECT_EQ(Publish("Q"), 0U);
  EXPECT_THAT(heard_, ElementsAre("up", "down in 1s", "up", "event P", "event R", "event S"));
}

TEST_F(EventSubscriberTest, ServerThatComesLateIsFound) {
  Open();
  subscriber_->Subscribe(Key("P"));
  Settle();
  Advance(absl::Seconds(1));
  EXPECT_THAT(heard_, ElementsAre("down in 1s", "down in 1.6s"));

  Serve();
  Advance(absl::Seconds(1.6));

  EXPECT_EQ(Publish("P"), 1U);
  EXPECT_EQ(heard_.back(), "event P");
}

TEST_F(EventSubscriberTest, ServerThatRestartsAgainAndAgainIsAlwaysFound) {
  Open();
  subscriber_->Subscribe(Key("P"));
  for (int i = 0; i < 20; ++i) {
    Serve();
    Advance(absl::Seconds(120));
    EXPECT_EQ(Publish("P"), 1U) << i;
    served_ = nullptr;
    Settle();
  }
}

TEST_F(EventSubscriberTest, ServerThatDrainsIsUnavailableAndItsSuccessorIsFound) {
  Serve();
  Open();
  subscriber_->Subscribe(Key("P"));
  Settle();
  Advance(absl::Seconds(10));

  served_->server().Drain(absl::Seconds(60));
  Settle();
  EXPECT_THAT(heard_, ElementsAre("up", "down in 0", "down in 1s"));
  EXPECT_EQ(why_.code(), absl::StatusCode::kUnavailable);

  served_ = nullptr;
  Serve();
  Advance(absl::Seconds(1));
  EXPECT_EQ(Publish("P"), 1U);
}

TEST_F(EventSubscriberTest, MethodThatTheServerDoesNotHaveIsTheEnd) {
  google::protobuf::FileDescriptorProto file;
  file.set_name("newer.proto");
  file.set_package("newer");
  file.add_message_type()->set_name("Anything");
  google::protobuf::ServiceDescriptorProto& service = *file.add_service();
  service.set_name("Profile");
  google::protobuf::MethodDescriptorProto& method = *service.add_method();
  method.set_name("WhenMoved");
  method.set_input_type(".newer.Anything");
  method.set_output_type(".newer.Anything");
  google::protobuf::DescriptorPool pool;
  Serve();

  const Subscriber subscriber(*client_, *pool.BuildFile(file)->service(0)->method(0), nullptr,
                              Listeners());
  Settle();
  Advance(absl::Hours(1));

  EXPECT_THAT(heard_, ElementsAre(HasSubstr("end UNIMPLEMENTED")));
}

TEST_F(EventSubscriberTest, ManyKeysAreAllToldAndToldAgain) {
  Serve();
  Open();
  for (int i = 0; i < 256; ++i) subscriber_->Subscribe(Key(absl::StrCat("profile ", i)));
  Settle();

  for (int life = 0; life < 2; ++life) {
    std::size_t taken = 0;
    for (int i = 0; i < 256; ++i) taken += served_->Publish(absl::StrCat("profile ", i));
    EXPECT_EQ(taken, 256U);
    served_ = nullptr;
    Serve();
    Settle();
    Advance(absl::Seconds(120));
  }
}

TEST_F(EventSubscriberTest, KeyThatIsOneTooManyIsTheEnd) {
  Serve();
  OpenAndSettle();

  for (int i = 0; i < 257; ++i) subscriber_->Subscribe(Key(absl::StrCat("profile ", i)));
  Settle();
  Advance(absl::Hours(1));

  ASSERT_EQ(heard_.size(), 1U);
  EXPECT_THAT(heard_[0], HasSubstr("end RESOURCE_EXHAUSTED"));
}

TEST_F(EventSubscriberTest, EventWithTextThatIsNoUtf8IsNotSentAndTheNextOneIs) {
  Serve();
  Open();
  subscriber_->Subscribe(Key("P"));
  Settle();
  rpc::NetworkChanged unreadable;
  unreadable.add_interfaces()->set_name("eth\xff");

  EXPECT_EQ(served_->Publish("P", unreadable), 0U);
  EXPECT_EQ(served_->Publish("P"), 1U);
  Settle();

  EXPECT_THAT(heard_, ElementsAre("up", "event P"));
}

TEST_F(EventSubscriberTest, ChangesOfKeysWithoutEndCostTheStreamNoMoreThanAnInterruption) {
  ServerOptions options;
  options.streams.subscriptions.max_messages = 10;
  Serve(options);
  Open();
  Settle();

  for (int i = 0; i < 6; ++i) {
    subscriber_->Subscribe(Key(absl::StrCat("profile ", i)));
    subscriber_->Unsubscribe(Key(absl::StrCat("profile ", i)));
  }
  subscriber_->Subscribe(Key("P"));
  Settle();
  Advance(absl::Seconds(1));

  EXPECT_THAT(heard_, ElementsAre("up", "down in 1s", "up"));
  EXPECT_THAT(why_.ToString(), HasSubstr("RESOURCE_EXHAUSTED"));
  EXPECT_EQ(Publish("P"), 1U);
}

TEST_F(EventSubscriberTest, SubscribingAfterTheEndDoesNothing) {
  OpenToItsEnd(Listeners());
  Settle();
  ASSERT_THAT(heard_.back(), HasSubstr("end RESOURCE_EXHAUSTED"));
  heard_.clear();

  subscriber_->Subscribe(Key("R"));
  subscriber_->Unsubscribe(Key("P"));
  Settle();

  EXPECT_THAT(heard_, IsEmpty());
}

TEST_F(EventSubscriberTest, DestroyedSubscriberLeavesNothingAtTheServer) {
  Serve();
  Open();
  subscriber_->Subscribe(Key("P"));
  Settle();
  ASSERT_EQ(served_->open_streams(), 1U);

  subscriber_ = nullptr;
  Settle();

  EXPECT_EQ(served_->open_streams(), 0U);
  EXPECT_EQ(Publish("P"), 0U);
  EXPECT_THAT(heard_, ElementsAre("up"));
}

TEST_F(EventSubscriberTest, MayBeDestroyedByAnEventWithMoreOnTheirWay) {
  Serve();
  Open(Listeners(), [this] { subscriber_ = nullptr; });
  subscriber_->Subscribe(Key("P"));
  Settle();

  for (int i = 0; i < 10; ++i) served_->Publish("P");
  Settle();

  EXPECT_THAT(heard_, ElementsAre("up", "event P"));
  EXPECT_EQ(served_->open_streams(), 0U);
}

TEST_F(EventSubscriberTest, MayBeDestroyedByEachOfItsListeners) {
  for (const std::string where : {"up", "down", "end"}) {
    heard_.clear();
    OpenToItsEnd(Listeners([&](const std::string& what) {
      if (what == where) subscriber_ = nullptr;
    }));
    if (where == "down") served_ = nullptr;
    Settle();
    Advance(absl::Seconds(10));

    EXPECT_TRUE(subscriber_ == nullptr) << where;
    ASSERT_FALSE(heard_.empty());
    EXPECT_EQ(heard_.back().substr(0, where.size()), where);
    served_ = nullptr;
    Settle();
  }
}

TEST_F(EventSubscriberTest, MayBeReplacedByAnotherInItsOwnCallback) {
  OpenToItsEnd(Listeners([&](const std::string& what) {
    if (what == "end") Open();
  }));
  Settle();
  subscriber_->Subscribe(Key("P"));
  Settle();

  EXPECT_EQ(Publish("P"), 1U);
  EXPECT_EQ(heard_.back(), "event P");
}

TEST_F(EventSubscriberTest, CallbackMaySubscribeAndCall) {
  Serve();
  google::protobuf::StringValue path;
  bool answered = false;
  Open(Listeners([&](const std::string& /*what*/) {
    subscriber_->Subscribe(Key("Q"));
    client_->Call(Method("Path"), Key("Q"), path, absl::InfiniteDuration(),
                  [&](const absl::Status& status) { answered = status.ok(); });
  }));

  Settle();

  EXPECT_TRUE(answered);
  EXPECT_EQ(Publish("Q"), 1U);
}

TEST_F(EventSubscriberTest, NobodyNeedsToListen) {
  Serve();
  subscriber_ = std::make_unique<Subscriber>(*client_, Method("WhenNetworkChanged"), nullptr);
  subscriber_->Subscribe(Key("P"));
  Settle();
  EXPECT_EQ(Publish("P"), 1U);

  served_ = nullptr;
  Settle();
  Serve();
  Advance(absl::Seconds(1));
  EXPECT_EQ(Publish("P"), 1U);

  served_->server().Drain(absl::ZeroDuration());
  Settle();
}

// What a server sends that is no event.
class EventSubscriberGarbageTest : public EventSubscriberTest {
 protected:
  void HearFrom(const std::string& message) {
    ScriptedServer server(loop_, address_);
    server.on_open = [&](net::Http2Session& session, net::StreamId stream_id) {
      ScriptedServer::SendHeaders(session, stream_id);
      const net::MessagePrefix prefix =
          net::MakeMessagePrefix(static_cast<uint32_t>(message.size()));
      session.SendData(stream_id, std::string(prefix.data(), prefix.size()) + message,
                       /*end_stream=*/false);
    };
    Open();
    Settle();
    EXPECT_EQ(server.opened, 1);
  }
};

TEST_F(EventSubscriberGarbageTest, WhatIsNoEnvelopeIsTheEnd) {
  HearFrom("\xff");

  EXPECT_THAT(heard_, ElementsAre("up",
                                  "end INTERNAL: what the server sent is not a serialised "
                                  "rpc.transport.StreamMessage"));
}

TEST_F(EventSubscriberGarbageTest, EnvelopeWithoutAnEventIsDroppedAndTheStreamGoesOn) {
  rpc::transport::StreamMessage envelope;
  envelope.set_payload("\xff");
  HearFrom(envelope.SerializeAsString());

  EXPECT_THAT(heard_, ElementsAre("up"));
}

}  // namespace
}  // namespace varnic
