#include "core/common/rpc/stream/callback_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/logging.h"
#include "core/common/rpc/completion_hook_test_support.h"
#include "core/common/rpc/observed_key_test_support.h"
#include "core/common/rpc/process_death_test_support.h"
#include "core/common/rpc/stream/profile_streams_test_support.h"
#include "core/common/rpc/virtual_slot_test_support.h"

namespace varnic {
namespace {

using google::protobuf::Message;
using testing::AuthenticationStream;
using testing::ChannelWithCompletionHook;
using ::testing::ElementsAre;
using testing::EndedByTrap;
using testing::FileAccessStream;
using ::testing::IsEmpty;
using testing::KeyLog;
using testing::ObservedKey;
using testing::Profile;
using testing::ProfileMethod;
using testing::ServedStream;
using ::testing::UnorderedElementsAre;
using testing::VirtualSlot;

using Events = std::vector<std::string>;

struct Warning {
  int severity;
  std::string file;
  int line;
  std::string text;
};

// Collects the log records of its scope.
class LogCapture {
 public:
  LogCapture() {
    Records().clear();
    logging::SetLogMessageHandler(&Take);
  }
  ~LogCapture() {
    logging::SetLogMessageHandler(nullptr);
    logging::SetMinLogLevel(logging::LOGGING_INFO);
  }
  const std::vector<Warning>& records() const { return Records(); }

 private:
  static std::vector<Warning>& Records() {
    static std::vector<Warning> records;
    return records;
  }
  static bool Take(int severity, const char* file, int line, std::size_t message_start,
                   const std::string& str) {
    Records().push_back({severity, file, line, str.substr(message_start)});
    return true;
  }
};

// A callable that records its runs, copies and end. A copy has the name of its source and a tick.
class Traced {
 public:
  Traced(std::string name, Events& events) : name_(std::move(name)), events_(&events) {}
  Traced(const Traced& other) : name_(other.name_ + "'"), events_(other.events_) {
    events_->push_back("copy " + other.name_);
  }
  Traced(Traced&& other) noexcept
      : name_(std::move(other.name_)), events_(std::exchange(other.events_, nullptr)) {}
  ~Traced() {
    if (events_ != nullptr) events_->push_back("destroy " + name_);
  }
  template <class Argument>
  void operator()(const Argument& /*argument*/) const {
    events_->push_back("run " + name_);
  }

 private:
  std::string name_;
  Events* events_;
};

template <class T>
class CallbackStreamTest : public testing::ProfileStreamsTest {
 protected:
  using Stream = CallbackStream<T>;
  using Call = typename Stream::StreamCall;

  static auto& Registry() { return Stream::stream_map_; }
  // The stream that answers for a key, as a host looks it up.
  static Stream* Answering(const std::string& profile) {
    const ProfileId probe = Profile(profile);
    const auto entry = Registry().find(&probe);
    return entry == Registry().end() ? nullptr : entry->second;
  }

  static T Control(const std::string& profile, bool subscribe) {
    T control;
    *control.mutable_profile_id() = Profile(profile);
    control.set_subscribe(subscribe);
    return control;
  }
  static T Answer(const std::string& profile) {
    T answer;
    *answer.mutable_profile_id() = Profile(profile);
    answer.mutable_response();
    return answer;
  }

  // What a host does before it sends a question.
  static void AddCall(Stream& stream, const Message& key, std::int64_t call_id, Call call) {
    auto entry = stream.pending_calls_.find(&key);
    if (entry == stream.pending_calls_.end()) {
      entry = stream.pending_calls_.try_emplace(CloneKey(key)).first;
    }
    entry->second.emplace(call_id, std::move(call));
  }
  // Records "<key>/<id> answered" or "<key>/<id> failed <code>".
  void AddRecordedCall(Stream& stream, const std::string& key, std::int64_t call_id) {
    const std::string name = key + "/" + std::to_string(call_id);
    AddCall(
        stream, Profile(key), call_id,
        {[this, name](const T&) { events_.push_back(name + " answered"); },
         [this, name](int code) { events_.push_back(name + " failed " + std::to_string(code)); }});
  }
  // How many calls are pending under a key; -1 if it has no entry.
  static int Pending(const Stream& stream, const std::string& key) {
    const ProfileId probe = Profile(key);
    const auto entry = stream.pending_calls_.find(&probe);
    return entry == stream.pending_calls_.end() ? -1 : static_cast<int>(entry->second.size());
  }

  KeyLog log_;
  Events events_;
};

template <class T>
using CallbackStreamDeathTest = CallbackStreamTest<T>;

struct MessageName {
  template <class T>
  static std::string GetName(int /*index*/) {
    return T::descriptor()->name();
  }
};
using CallbackMessages = ::testing::Types<rpc::CanAccessFile, rpc::Authenticate>;
TYPED_TEST_SUITE(CallbackStreamTest, CallbackMessages, MessageName);
TYPED_TEST_SUITE(CallbackStreamDeathTest, CallbackMessages, MessageName);

// Shape.

TYPED_TEST(CallbackStreamTest, VirtualOperationsStandInTheirAgreedOrder) {
  using TestedStream = CallbackStream<TypeParam>;

  EXPECT_TRUE((std::is_base_of_v<AbstractStream, TestedStream>));
  EXPECT_EQ(VirtualSlot(&TestedStream::OnNext), 2u);
  EXPECT_EQ(VirtualSlot(&TestedStream::OnError), 3u);
  EXPECT_EQ(VirtualSlot(&TestedStream::OnCompleted), 4u);
}

TYPED_TEST(CallbackStreamTest, TablesAreUnorderedMapsOverKeyContent) {
  using TestedStream = CallbackStream<TypeParam>;
  using Registry = std::unordered_map<const Message*, TestedStream*, MessageHash, MessageEqual>;
  using Table =
      std::unordered_map<const Message*, std::map<std::int64_t, typename TestedStream::StreamCall>,
                         MessageHash, MessageEqual>;

  EXPECT_TRUE((std::is_same_v<decltype(TestedStream::stream_map_), Registry>));
  EXPECT_TRUE((std::is_same_v<decltype(TestedStream::pending_calls_), Table>));
}

TYPED_TEST(CallbackStreamTest, MembersStandInTheirAgreedOrder) {
  const ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  const auto offset = [&](const auto& member) {
    return static_cast<std::size_t>(reinterpret_cast<const char*>(&member) -
                                    reinterpret_cast<const char*>(stream.get()));
  };

  EXPECT_EQ(offset(stream->service_), sizeof(AbstractStream));
  EXPECT_EQ(offset(stream->method_), sizeof(AbstractStream) + sizeof(void*));
  EXPECT_EQ(offset(stream->pending_calls_), sizeof(AbstractStream) + 2 * sizeof(void*));
}

TYPED_TEST(CallbackStreamTest, ANewStreamAnswersForNobody) {
  const ServedStream<CallbackStream<TypeParam>> stream(this->service_);

  EXPECT_TRUE(this->Registry().empty());
  EXPECT_TRUE(stream->pending_calls_.empty());
  EXPECT_EQ(stream->pending_calls_.max_load_factor(), 1.0f);
  EXPECT_EQ(stream->service_.get(), &this->service_);
  EXPECT_EQ(stream->method_->name(), "On" + TypeParam::descriptor()->name());
}

TYPED_TEST(CallbackStreamTest, ADestroyedStreamHasLetGoOfServiceAndMethod) {
  using TestedStream = CallbackStream<TypeParam>;
  testing::RecordingChannel recording;
  alignas(TestedStream) unsigned char storage[sizeof(TestedStream)];
  auto* stream = new (storage) TestedStream(&this->service_, ProfileMethod(10), recording.Open());
  auto* service = reinterpret_cast<std::uintptr_t volatile*>(&stream->service_);
  auto* method = reinterpret_cast<std::uintptr_t volatile*>(&stream->method_);
  ASSERT_EQ(*method, reinterpret_cast<std::uintptr_t>(ProfileMethod(10)));

  stream->~TestedStream();

  EXPECT_EQ(*service, 0u);
  EXPECT_EQ(*method, 0u);
}

using CallbackStreamRegistriesTest = testing::ProfileStreamsTest;

TEST_F(CallbackStreamRegistriesTest, TheTwoKindsOfStreamShareNoRegistry) {
  ServedStream<FileAccessStream> files(service_);
  ServedStream<AuthenticationStream> authentication(service_);

  files->Subscribe(Profile("work"));
  EXPECT_TRUE(AuthenticationStream::stream_map_.empty());
  authentication->Subscribe(Profile("work"));

  EXPECT_EQ(FileAccessStream::stream_map_.begin()->second, files.get());
  EXPECT_EQ(AuthenticationStream::stream_map_.begin()->second, authentication.get());
}

// Subscription.

TYPED_TEST(CallbackStreamTest, ASubscribedStreamIsFoundByAKeyOfEqualContent) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);

  stream.Receive(this->Control("work", true));

  EXPECT_EQ(this->Answering("work"), stream.get());
  EXPECT_EQ(this->Answering("home"), nullptr);
}

TYPED_TEST(CallbackStreamTest, ASubscriptionWithoutProfileIsForTheEmptyOne) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  TypeParam control;
  control.set_subscribe(true);

  stream.Receive(control);

  EXPECT_EQ(this->Answering(""), stream.get());
  control.set_subscribe(false);
  stream.Receive(control);
  EXPECT_TRUE(this->Registry().empty());
}

TYPED_TEST(CallbackStreamTest, StreamsWithoutProfileCompeteForOneEntry) {
  ServedStream<CallbackStream<TypeParam>> first(this->service_);
  ServedStream<CallbackStream<TypeParam>> second(this->service_);
  TypeParam without_profile;
  without_profile.set_subscribe(true);
  const LogCapture log;

  first.Receive(without_profile);
  second.Receive(without_profile);

  EXPECT_EQ(this->Registry().size(), 1u);
  EXPECT_EQ(this->Answering(""), second.get());
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].text, "The subscriber is already associated with another stream. \n");
}

TYPED_TEST(CallbackStreamTest, SubscribingTwiceLeavesOneEntryAndNoWarning) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  const LogCapture log;

  stream.Receive(this->Control("work", true));
  stream.Receive(this->Control("work", true));

  EXPECT_EQ(this->Registry().size(), 1u);
  EXPECT_EQ(this->Answering("work"), stream.get());
  EXPECT_THAT(log.records(), IsEmpty());
}

TYPED_TEST(CallbackStreamTest, OneStreamMayAnswerForSeveralKeys) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);

  stream.Receive(this->Control("work", true));
  stream.Receive(this->Control("home", true));

  EXPECT_EQ(this->Answering("work"), stream.get());
  EXPECT_EQ(this->Answering("home"), stream.get());
}

TYPED_TEST(CallbackStreamTest, OnlyTheFirstSubscriptionCopiesTheKey) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  auto key = std::make_unique<ObservedKey>(this->log_, Profile("work"));

  stream->Subscribe(*key);
  stream->Subscribe(*key);

  EXPECT_EQ(this->log_.clones, 1);
  EXPECT_EQ(this->log_.copies, 1);
  key.reset();
  EXPECT_EQ(this->Answering("work"), stream.get());
  EXPECT_EQ(this->log_.live, 1);
}

TYPED_TEST(CallbackStreamTest, TakingAKeyOverWarnsWithTheKeysText) {
  ServedStream<CallbackStream<TypeParam>> a(this->service_);
  ServedStream<CallbackStream<TypeParam>> b(this->service_);
  a.Receive(this->Control("work \"1\"", true));
  const LogCapture log;

  b.Receive(this->Control("work \"1\"", true));

  EXPECT_EQ(this->Answering("work \"1\""), b.get());
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].severity, logging::LOGGING_WARNING);
  EXPECT_EQ(log.records()[0].text,
            "The subscriber is already associated with another stream. "
            "value: \"work \\\"1\\\"\"\n");
  EXPECT_THAT(log.records()[0].file, ::testing::EndsWith("callback_stream.h"));
  EXPECT_GT(log.records()[0].line, 0);
}

TYPED_TEST(CallbackStreamTest, TakingAKeyOverIsSilentWhenWarningsAreOff) {
  ServedStream<CallbackStream<TypeParam>> a(this->service_);
  ServedStream<CallbackStream<TypeParam>> b(this->service_);
  a.Receive(this->Control("work", true));
  const LogCapture log;
  logging::SetMinLogLevel(logging::LOGGING_ERROR);

  b.Receive(this->Control("work", true));

  EXPECT_EQ(this->Answering("work"), b.get());
  EXPECT_THAT(log.records(), IsEmpty());
}

TYPED_TEST(CallbackStreamTest, TakingAKeyOverKeepsTheStoredKey) {
  ServedStream<CallbackStream<TypeParam>> a(this->service_);
  ServedStream<CallbackStream<TypeParam>> b(this->service_);
  a->Subscribe(ObservedKey(this->log_, Profile("work")));
  const Message* stored = this->Registry().begin()->first;
  const LogCapture log;

  b->Subscribe(Profile("work"));

  EXPECT_EQ(this->Registry().begin()->first, stored);
  EXPECT_EQ(this->log_.live, 1);
}

TYPED_TEST(CallbackStreamTest, ADisplacedStreamIsNotToldAndKeepsItsCalls) {
  ServedStream<CallbackStream<TypeParam>> a(this->service_);
  ServedStream<CallbackStream<TypeParam>> b(this->service_);
  const LogCapture log;
  a.Receive(this->Control("work", true));
  this->AddRecordedCall(*a, "work", 1);

  b.Receive(this->Control("work", true));

  EXPECT_THAT(this->events_, IsEmpty());
  EXPECT_THAT(a.recording().sent(), IsEmpty());
  EXPECT_TRUE(a.recording().open());
  EXPECT_EQ(this->Pending(*a, "work"), 1);
  a.Receive(this->Answer("work"), 1);
  EXPECT_THAT(this->events_, ElementsAre("work/1 answered"));
}

TYPED_TEST(CallbackStreamTest, ADisplacedStreamMayTakeItsKeyBack) {
  ServedStream<CallbackStream<TypeParam>> a(this->service_);
  ServedStream<CallbackStream<TypeParam>> b(this->service_);
  const LogCapture log;
  a.Receive(this->Control("work", true));
  b.Receive(this->Control("work", true));

  a.Receive(this->Control("work", true));

  EXPECT_EQ(this->Answering("work"), a.get());
  EXPECT_EQ(log.records().size(), 2u);
}

// Unsubscription.

TYPED_TEST(CallbackStreamTest, UnsubscribingRemovesTheEntryAndDeletesItsKeyOnce) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  stream->Subscribe(ObservedKey(this->log_, Profile("work")));
  const Message* stored = this->Registry().begin()->first;
  this->log_.deleted.clear();
  std::size_t size_at_deletion = 99;
  this->log_.on_delete = [&] { size_at_deletion = this->Registry().size(); };

  stream.Receive(this->Control("work", false));

  EXPECT_THAT(this->log_.deleted, ElementsAre(stored));
  EXPECT_EQ(size_at_deletion, 0u);
  EXPECT_EQ(this->Answering("work"), nullptr);
}

TYPED_TEST(CallbackStreamTest, UnsubscribingLeavesTheStreamsOtherKeysAndTheirCalls) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  stream.Receive(this->Control("work", true));
  stream.Receive(this->Control("home", true));
  this->AddRecordedCall(*stream, "home", 1);

  stream.Receive(this->Control("work", false));

  EXPECT_EQ(this->Answering("home"), stream.get());
  EXPECT_THAT(this->events_, IsEmpty());
}

TYPED_TEST(CallbackStreamTest, UnsubscribingAKeyOfAnotherStreamRemovesItsRegistration) {
  ServedStream<CallbackStream<TypeParam>> a(this->service_);
  ServedStream<CallbackStream<TypeParam>> b(this->service_);
  a.Receive(this->Control("work", true));
  this->AddRecordedCall(*a, "work", 1);
  this->AddRecordedCall(*b, "work", 2);

  b.Receive(this->Control("work", false));

  EXPECT_EQ(this->Answering("work"), nullptr);
  EXPECT_THAT(this->events_, ElementsAre("work/2 failed 1"));
  EXPECT_EQ(this->Pending(*a, "work"), 1);
  EXPECT_EQ(this->Pending(*b, "work"), -1);
}

TYPED_TEST(CallbackStreamTest, UnsubscribingAnUnknownKeyStillCancelsTheStreamsCalls) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddRecordedCall(*stream, "work", 4);

  stream.Receive(this->Control("work", false));

  EXPECT_THAT(this->events_, ElementsAre("work/4 failed 1"));
  EXPECT_EQ(this->Pending(*stream, "work"), -1);
}

TYPED_TEST(CallbackStreamTest, UnsubscribingAnUnknownKeyWithoutCallsDoesNothing) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  const LogCapture log;

  stream.Receive(this->Control("work", false));

  EXPECT_TRUE(this->Registry().empty());
  EXPECT_THAT(log.records(), IsEmpty());
  EXPECT_TRUE(stream.recording().open());
}

TYPED_TEST(CallbackStreamTest, TheRegistrationIsGoneWhenUnsubscribingCancelsTheCalls) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  stream.Receive(this->Control("work", true));
  std::size_t size_at_cancellation = 99;
  this->AddCall(*stream, Profile("work"), 1,
                {{}, [&](int) { size_at_cancellation = this->Registry().size(); }});

  stream.Receive(this->Control("work", false));

  EXPECT_EQ(size_at_cancellation, 0u);
}

// What is neither control nor answer.

TYPED_TEST(CallbackStreamDeathTest, AnEmptyPayloadTraps) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);

  EXPECT_EXIT(stream.ReceiveBytes(""), EndedByTrap, IsEmpty());
}

TYPED_TEST(CallbackStreamDeathTest, AMessageWithOnlyAProfileTraps) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  TypeParam message;
  *message.mutable_profile_id() = Profile("work");

  EXPECT_EXIT(stream.Receive(message), EndedByTrap, IsEmpty());
}

TYPED_TEST(CallbackStreamDeathTest, ARequestFromTheClientTraps) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  TypeParam message;
  message.mutable_request();

  EXPECT_EXIT(stream.Receive(message), EndedByTrap, IsEmpty());
}

TYPED_TEST(CallbackStreamDeathTest, GarbageTraps) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);

  EXPECT_EXIT(stream.ReceiveBytes("\xff\xff garbage"), EndedByTrap, ::testing::Eq(""));
}

TYPED_TEST(CallbackStreamTest, WhatWasReadBeforeTheParserFailedIsActedOn) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);

  stream.ReceiveBytes(this->Control("work", true).SerializeAsString() + "\xff");

  EXPECT_EQ(this->Answering("work"), stream.get());
}

TYPED_TEST(CallbackStreamTest, MessagesAreOfTheMethodsResponseType) {
  struct OnlyResponses : rpc::ProfileRpc {
    const Message& GetRequestPrototype(
        const google::protobuf::MethodDescriptor* /*method*/) const override {
      ++requests;
      return TypeParam::default_instance();
    }
    const Message& GetResponsePrototype(
        const google::protobuf::MethodDescriptor* method) const override {
      ++responses;
      return rpc::ProfileRpc::GetResponsePrototype(method);
    }
    mutable int requests = 0;
    mutable int responses = 0;
  } service;
  ServedStream<CallbackStream<TypeParam>> stream(service);

  stream.Receive(this->Control("work", true));
  stream.ReceiveError(this->Answer("work"));

  EXPECT_EQ(service.requests, 0);
  EXPECT_EQ(service.responses, 2);
}

// Answers.

TYPED_TEST(CallbackStreamTest, AnAnswerRunsItsCallOnceAndASecondOneIsDropped) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddRecordedCall(*stream, "work", 7);
  this->AddRecordedCall(*stream, "work", 8);

  stream.Receive(this->Answer("work"), 7);
  stream.Receive(this->Answer("work"), 7);

  EXPECT_THAT(this->events_, ElementsAre("work/7 answered"));
  EXPECT_EQ(this->Pending(*stream, "work"), 1);
}

TYPED_TEST(CallbackStreamTest, ACallableGetsTheWholeAnswer) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  TypeParam answer = this->Answer("work");
  answer.set_error("not an error on this path");
  TypeParam received;
  this->AddCall(*stream, Profile("work"), 7, {[&](const TypeParam& t) { received = t; }, {}});

  stream.Receive(answer, 7);

  EXPECT_EQ(received.SerializeAsString(), answer.SerializeAsString());
  EXPECT_TRUE(received.has_response());
}

TYPED_TEST(CallbackStreamTest, ACallIsInTheTableWhileItsAnswerIsDelivered) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  int pending = 0;
  this->AddCall(*stream, Profile("work"), 7,
                {[&](const TypeParam&) { pending = this->Pending(*stream, "work"); }, {}});

  stream.Receive(this->Answer("work"), 7);

  EXPECT_EQ(pending, 1);
  EXPECT_EQ(this->Pending(*stream, "work"), -1);
}

TYPED_TEST(CallbackStreamTest, AnAnsweredCallRunsInPlaceAndEndsErrorCallableFirst) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddCall(*stream, Profile("work"), 7,
                {Traced("response", this->events_), Traced("error", this->events_)});
  this->events_.clear();

  stream.Receive(this->Answer("work"), 7);

  EXPECT_THAT(this->events_, ElementsAre("run response", "destroy error", "destroy response"));
}

TYPED_TEST(CallbackStreamTest, TheLastAnswerRemovesTheEntryAndDeletesItsKeyOnce) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddCall(*stream, ObservedKey(this->log_, Profile("work")), 7,
                {[](const TypeParam&) {}, {}});
  const Message* stored = stream->pending_calls_.begin()->first;
  this->log_.deleted.clear();
  std::size_t size_at_deletion = 99;
  this->log_.on_delete = [&] { size_at_deletion = stream->pending_calls_.size(); };

  stream.Receive(this->Answer("work"), 7);
  stream.Receive(this->Answer("work"), 7);

  EXPECT_TRUE(stream->pending_calls_.empty());
  EXPECT_THAT(this->log_.deleted, ElementsAre(stored));
  EXPECT_EQ(size_at_deletion, 0u);
}

TYPED_TEST(CallbackStreamTest, AnAnswerWithAnUnknownIdIsDropped) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddRecordedCall(*stream, "work", 7);

  stream.Receive(this->Answer("work"), 8);

  EXPECT_THAT(this->events_, IsEmpty());
  EXPECT_EQ(this->Pending(*stream, "work"), 1);
}

TYPED_TEST(CallbackStreamTest, AnAnswerForAnUnknownKeyIsDroppedSilently) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddRecordedCall(*stream, "work", 7);
  const LogCapture log;

  stream.Receive(this->Answer("home"), 7);

  EXPECT_THAT(this->events_, IsEmpty());
  EXPECT_EQ(this->Pending(*stream, "work"), 1);
  EXPECT_THAT(log.records(), IsEmpty());
  EXPECT_THAT(stream.recording().sent(), IsEmpty());
}

TYPED_TEST(CallbackStreamTest, AnAnswerWithAnUnknownIdRemovesAnEmptyEntry) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  stream->pending_calls_.try_emplace(CloneKey(ObservedKey(this->log_, Profile("work"))));
  ASSERT_EQ(this->Pending(*stream, "work"), 0);

  stream.Receive(this->Answer("work"), 99);

  EXPECT_EQ(this->Pending(*stream, "work"), -1);
  EXPECT_EQ(this->log_.live, 0);
}

TYPED_TEST(CallbackStreamTest, TheSameIdUnderTwoKeysIsTwoCalls) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddRecordedCall(*stream, "work", 7);
  this->AddRecordedCall(*stream, "home", 7);

  stream.Receive(this->Answer("home"), 7);

  EXPECT_THAT(this->events_, ElementsAre("home/7 answered"));
  EXPECT_EQ(this->Pending(*stream, "work"), 1);
}

TYPED_TEST(CallbackStreamTest, AnAnswerWithoutProfileIsForTheEmptyOne) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddRecordedCall(*stream, "", -1);
  TypeParam answer;
  answer.mutable_response();

  stream.Receive(answer, -1);

  EXPECT_THAT(this->events_, ElementsAre("/-1 answered"));
}

TYPED_TEST(CallbackStreamTest, TheEnvelopesCallIdCountsAndNotTheMessages) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddRecordedCall(*stream, "work", 7);
  this->AddRecordedCall(*stream, "work", 8);
  TypeParam answer = this->Answer("work");
  answer.set_call_id(7);

  stream.Receive(answer, 8);

  EXPECT_THAT(this->events_, ElementsAre("work/8 answered"));
}

TYPED_TEST(CallbackStreamTest, AnAnswerNeedsNoSubscription) {
  ServedStream<CallbackStream<TypeParam>> registered(this->service_);
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  registered.Receive(this->Control("work", true));
  this->AddRecordedCall(*registered, "work", 1);
  this->AddRecordedCall(*stream, "work", 1);

  stream.Receive(this->Answer("work"), 1);

  EXPECT_THAT(this->events_, ElementsAre("work/1 answered"));
  EXPECT_EQ(this->Pending(*registered, "work"), 1);
}

TYPED_TEST(CallbackStreamTest, ACallableMayAddCallsUnderOtherKeys) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  const auto add_many = [&](const TypeParam&) {
    for (int i = 0; i < 100; ++i) this->AddRecordedCall(*stream, std::to_string(i), i);
  };
  this->AddCall(*stream, Profile("work"), 7, {add_many, {}});

  stream.Receive(this->Answer("work"), 7);

  EXPECT_EQ(stream->pending_calls_.size(), 100u);
  EXPECT_EQ(this->Pending(*stream, "work"), -1);
}

// Errors.

TYPED_TEST(CallbackStreamTest, AnErrorFailsItsCallOnceWithCodeTwo) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddRecordedCall(*stream, "work", 7);
  this->AddRecordedCall(*stream, "work", 8);

  stream.ReceiveError(this->Answer("work"), 7);
  stream.ReceiveError(this->Answer("work"), 7);

  EXPECT_THAT(this->events_, ElementsAre("work/7 failed 2"));
  EXPECT_EQ(this->Pending(*stream, "work"), 1);
}

TYPED_TEST(CallbackStreamTest, AnErrorsContentBesidesItsKeyDoesNotMatter) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  for (int id : {1, 2, 3, 4}) this->AddRecordedCall(*stream, "work", id);
  TypeParam only_key;
  *only_key.mutable_profile_id() = Profile("work");
  TypeParam request = only_key;
  request.mutable_request();

  stream.ReceiveError(only_key, 1);
  stream.ReceiveError(request, 2);
  stream.ReceiveError(this->Control("work", true), 3);
  stream.ReceiveError(this->Control("work", false), 4);

  EXPECT_THAT(this->events_, ElementsAre("work/1 failed 2", "work/2 failed 2", "work/3 failed 2",
                                         "work/4 failed 2"));
  EXPECT_TRUE(this->Registry().empty());
}

TYPED_TEST(CallbackStreamTest, AnErrorWithoutProfileFailsTheCallUnderTheEmptyOne) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddRecordedCall(*stream, "", 5);
  this->AddRecordedCall(*stream, "work", 5);

  stream.ReceiveError(TypeParam(), 5);

  EXPECT_THAT(this->events_, ElementsAre("/5 failed 2"));
  EXPECT_EQ(this->Pending(*stream, "work"), 1);
}

TYPED_TEST(CallbackStreamTest, AnErrorForNoPendingCallChangesNothing) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  stream.Receive(this->Control("work", true));
  this->AddRecordedCall(*stream, "work", 7);

  stream.ReceiveError(this->Answer("work"), 8);
  stream.ReceiveError(this->Answer("home"), 7);

  EXPECT_THAT(this->events_, IsEmpty());
  EXPECT_EQ(this->Pending(*stream, "work"), 1);
  EXPECT_EQ(this->Answering("work"), stream.get());
}

TYPED_TEST(CallbackStreamTest, AnErrorLeavesTheStreamOpenAndSubscribed) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  stream.Receive(this->Control("work", true));
  this->AddRecordedCall(*stream, "work", 7);

  stream.ReceiveError(this->Answer("work"), 7);

  EXPECT_EQ(this->Answering("work"), stream.get());
  EXPECT_TRUE(stream.recording().open());
  EXPECT_EQ(stream.recording().completions(), 0);
}

TYPED_TEST(CallbackStreamTest, AnErrorRunsItsCallInPlaceAndEndsErrorCallableFirst) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddCall(*stream, Profile("work"), 7,
                {Traced("response", this->events_), Traced("error", this->events_)});
  this->events_.clear();

  stream.ReceiveError(this->Answer("work"), 7);

  EXPECT_THAT(this->events_, ElementsAre("run error", "destroy error", "destroy response"));
}

TYPED_TEST(CallbackStreamTest, TheLastErrorRemovesTheEntryAndDeletesItsKey) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddCall(*stream, ObservedKey(this->log_, Profile("work")), 7, {{}, [](int) {}});
  ASSERT_EQ(this->log_.live, 1);

  stream.ReceiveError(this->Answer("work"), 7);

  EXPECT_TRUE(stream->pending_calls_.empty());
  EXPECT_EQ(this->log_.live, 0);
}

TYPED_TEST(CallbackStreamTest, AnErrorRemovesAnEmptyEntry) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  stream->pending_calls_.try_emplace(CloneKey(ObservedKey(this->log_, Profile("work"))));

  stream.ReceiveError(this->Answer("work"), 99);

  EXPECT_TRUE(stream->pending_calls_.empty());
  EXPECT_EQ(this->log_.live, 0);
}

TYPED_TEST(CallbackStreamTest, AnErrorThatDoesNotParseIsForWhatWasRead) {
  const ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddRecordedCall(*stream, "", 7);
  auto envelope = testing::Envelope("\xff garbage", 7);

  stream->OnError(&envelope);

  EXPECT_THAT(this->events_, ElementsAre("/7 failed 2"));
}

// Cancellation.

TYPED_TEST(CallbackStreamTest, CancellationFailsTheCallsInAscendingOrderOfTheirIds) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  for (int id : {7, 3, 5}) this->AddRecordedCall(*stream, "work", id);

  stream->CancelPendingRequests(Profile("work"));

  EXPECT_THAT(this->events_, ElementsAre("work/3 failed 1", "work/5 failed 1", "work/7 failed 1"));
  EXPECT_EQ(this->Pending(*stream, "work"), -1);
}

TYPED_TEST(CallbackStreamTest, IdsAreOrderedAsSignedNumbersOfSixtyFourBits) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  using Limits = std::numeric_limits<std::int64_t>;
  std::vector<std::int64_t> ids;
  for (std::int64_t id :
       {std::int64_t{0}, Limits::max(), std::int64_t{-1}, Limits::min(), std::int64_t{1} << 32}) {
    this->AddCall(*stream, Profile("work"), id, {{}, [&ids, id](int) { ids.push_back(id); }});
  }

  stream->CancelPendingRequests(Profile("work"));

  EXPECT_THAT(ids, ElementsAre(Limits::min(), -1, 0, std::int64_t{1} << 32, Limits::max()));
}

TYPED_TEST(CallbackStreamTest, CancellationRunsACopyOfEachCallAndDropsTheStoredOnesUnrun) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddCall(*stream, Profile("work"), 7,
                {Traced("response", this->events_), Traced("error", this->events_)});
  this->events_.clear();

  stream->CancelPendingRequests(Profile("work"));

  EXPECT_THAT(this->events_,
              ElementsAre("copy response", "copy error", "run error'", "destroy error'",
                          "destroy response'", "destroy error", "destroy response"));
}

TYPED_TEST(CallbackStreamTest, EachCopyIsGoneBeforeTheNextCallIsCancelled) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  for (int id : {5, 3}) {
    this->AddCall(*stream, Profile("work"), id, {{}, Traced(std::to_string(id), this->events_)});
  }
  this->events_.clear();

  stream->CancelPendingRequests(Profile("work"));

  this->events_.resize(6);
  EXPECT_THAT(this->events_,
              ElementsAre("copy 3", "run 3'", "destroy 3'", "copy 5", "run 5'", "destroy 5'"));
}

TYPED_TEST(CallbackStreamTest, TheStoredCallsStayInTheTableDuringACancellation) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  std::vector<int> pending;
  for (int id : {1, 2, 3}) {
    this->AddCall(*stream, Profile("work"), id,
                  {{}, [&](int) { pending.push_back(this->Pending(*stream, "work")); }});
  }

  stream->CancelPendingRequests(Profile("work"));

  EXPECT_THAT(pending, ElementsAre(3, 3, 3));
}

TYPED_TEST(CallbackStreamTest, CancellationConcernsOnlyItsKeyAndItsStream) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  ServedStream<CallbackStream<TypeParam>> other(this->service_);
  this->AddRecordedCall(*stream, "work", 1);
  this->AddRecordedCall(*stream, "home", 2);
  this->AddRecordedCall(*other, "work", 3);

  stream->CancelPendingRequests(Profile("work"));

  EXPECT_THAT(this->events_, ElementsAre("work/1 failed 1"));
  EXPECT_EQ(this->Pending(*stream, "home"), 1);
  EXPECT_EQ(this->Pending(*other, "work"), 1);
}

TYPED_TEST(CallbackStreamTest, CancellationLeavesTheRegistration) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  stream.Receive(this->Control("work", true));

  stream->CancelPendingRequests(Profile("work"));

  EXPECT_EQ(this->Answering("work"), stream.get());
}

TYPED_TEST(CallbackStreamTest, CancellationTakesTheStoredKeyItself) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddCall(*stream, ObservedKey(this->log_, Profile("work")), 1, {{}, [](int) {}});
  const Message* stored = stream->pending_calls_.begin()->first;
  this->log_.deleted.clear();
  std::size_t size_at_deletion = 99;
  this->log_.on_delete = [&] { size_at_deletion = stream->pending_calls_.size(); };

  stream->CancelPendingRequests(*stored);

  EXPECT_THAT(this->log_.deleted, ElementsAre(stored));
  EXPECT_EQ(size_at_deletion, 0u);
}

TYPED_TEST(CallbackStreamTest, CancellingAKeyWithoutCallsDoesNothing) {
  const ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  const ObservedKey key(this->log_, Profile("work"));

  stream->CancelPendingRequests(key);

  EXPECT_EQ(key.reads(), 0);  // The table is empty: not even a hash is taken.
  EXPECT_EQ(this->log_.clones, 0);
}

TYPED_TEST(CallbackStreamTest, ACancelledCallMayAddCallsUnderOtherKeys) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  const auto add_many = [&](int) {
    for (int i = 0; i < 100; ++i) this->AddRecordedCall(*stream, std::to_string(i), i);
  };
  this->AddCall(*stream, Profile("work"), 1, {{}, add_many});
  this->AddRecordedCall(*stream, "work", 2);

  stream->CancelPendingRequests(Profile("work"));

  EXPECT_THAT(this->events_, ElementsAre("work/2 failed 1"));
  EXPECT_EQ(stream->pending_calls_.size(), 100u);
}

// Completion and destruction.

TYPED_TEST(CallbackStreamTest, CompletionCancelsAllCallsAndReleasesOnlyItsOwnKeys) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  ServedStream<CallbackStream<TypeParam>> other(this->service_);
  stream.Receive(this->Control("work", true));
  stream.Receive(this->Control("home", true));
  other.Receive(this->Control("other", true));
  for (int id : {2, 1}) this->AddRecordedCall(*stream, "work", id);
  this->AddRecordedCall(*stream, "home", 3);

  stream->OnCompleted();

  EXPECT_THAT(this->events_,
              UnorderedElementsAre("work/1 failed 1", "work/2 failed 1", "home/3 failed 1"));
  EXPECT_LT(std::find(this->events_.begin(), this->events_.end(), "work/1 failed 1"),
            std::find(this->events_.begin(), this->events_.end(), "work/2 failed 1"));
  EXPECT_TRUE(stream->pending_calls_.empty());
  EXPECT_EQ(this->Registry().size(), 1u);
  EXPECT_EQ(this->Answering("other"), other.get());
  EXPECT_EQ(stream.recording().completions(), 1);
}

TYPED_TEST(CallbackStreamTest, CompletionDeletesTheKeysOfCallsAndRegistrations) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  for (const char* profile : {"work", "home", "club"}) {
    const ObservedKey key(this->log_, Profile(profile));
    stream->Subscribe(key);
    this->AddCall(*stream, key, 1, {{}, [](int) {}});
  }
  ASSERT_EQ(this->log_.live, 6);

  stream->OnCompleted();

  EXPECT_EQ(this->log_.live, 0);
}

TYPED_TEST(CallbackStreamTest, CompletionReleasesItsKeysInAscendingOrderOfAddress) {
  const ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  for (int i = 0; i < 20; ++i) {
    stream->Subscribe(ObservedKey(this->log_, Profile(std::to_string(i))));
  }
  this->log_.deleted.clear();

  stream->OnCompleted();

  EXPECT_EQ(this->log_.deleted.size(), 20u);
  EXPECT_TRUE(std::is_sorted(this->log_.deleted.begin(), this->log_.deleted.end()));
}

TYPED_TEST(CallbackStreamTest, CompletionLeavesAKeyThatAnotherStreamTookOver) {
  ServedStream<CallbackStream<TypeParam>> a(this->service_);
  ServedStream<CallbackStream<TypeParam>> b(this->service_);
  const LogCapture log;
  a.Receive(this->Control("work", true));
  b.Receive(this->Control("work", true));

  a->OnCompleted();

  EXPECT_EQ(this->Answering("work"), b.get());
}

TYPED_TEST(CallbackStreamTest, CallsAreCancelledBeforeTheRegistrationsAreReleased) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  stream.Receive(this->Control("work", true));
  CallbackStream<TypeParam>* answering = nullptr;
  this->AddCall(*stream, Profile("work"), 1,
                {{}, [&](int) { answering = this->Answering("work"); }});

  stream->OnCompleted();

  EXPECT_EQ(answering, stream.get());
}

TYPED_TEST(CallbackStreamTest, TheChannelIsCompletedLast) {
  std::size_t size_at_completion = 99;
  Events events;
  CallbackStream<TypeParam> stream(&this->service_, ProfileMethod(10),
                                   ChannelWithCompletionHook([&] {
                                     size_at_completion = this->Registry().size();
                                     events.push_back("completed");
                                   }));
  stream.Subscribe(Profile("work"));
  this->AddCall(stream, Profile("work"), 1, {{}, [&](int) { events.push_back("cancelled"); }});

  stream.OnCompleted();

  EXPECT_EQ(size_at_completion, 0u);
  EXPECT_THAT(events, ElementsAre("cancelled", "completed"));
}

TYPED_TEST(CallbackStreamTest, CompletionMayDestroyTheStream) {
  std::unique_ptr<CallbackStream<TypeParam>> stream;
  stream = std::make_unique<CallbackStream<TypeParam>>(
      &this->service_, ProfileMethod(10), ChannelWithCompletionHook([&] { stream.reset(); }));
  stream->Subscribe(Profile("work"));
  stream->Subscribe(Profile("home"));
  this->AddRecordedCall(*stream, "work", 1);

  stream->OnCompleted();

  EXPECT_EQ(stream, nullptr);
  EXPECT_TRUE(this->Registry().empty());
}

TYPED_TEST(CallbackStreamTest, CompletionWithoutSubscriptionsAndCallsOnlyCompletes) {
  ServedStream<CallbackStream<TypeParam>> other(this->service_);
  const ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  other.Receive(this->Control("work", true));

  stream->OnCompleted();

  EXPECT_EQ(stream.recording().completions(), 1);
  EXPECT_EQ(this->Answering("work"), other.get());
}

TYPED_TEST(CallbackStreamTest, CompletionAfterAnErrorCompletesOnce) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  stream.Receive(this->Control("work", true));
  this->AddRecordedCall(*stream, "work", 1);
  this->AddRecordedCall(*stream, "work", 2);
  stream.ReceiveError(this->Answer("work"), 1);

  stream->OnCompleted();

  EXPECT_THAT(this->events_, ElementsAre("work/1 failed 2", "work/2 failed 1"));
  EXPECT_EQ(stream.recording().completions(), 1);
}

TYPED_TEST(CallbackStreamTest, DestructionDropsPendingCallsUnrunErrorCallableFirst) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  this->AddCall(*stream, ObservedKey(this->log_, Profile("work")), 7,
                {Traced("response", this->events_), Traced("error", this->events_)});
  const std::unique_ptr<const Message> leaked(stream->pending_calls_.begin()->first);
  this->events_.clear();

  stream.Destroy();

  EXPECT_THAT(this->events_, ElementsAre("destroy error", "destroy response"));
}

TYPED_TEST(CallbackStreamTest, DestructionWithCallsLeftLeaksTheirKeys) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  std::vector<std::unique_ptr<const Message>> leaked;
  for (const char* profile : {"work", "home"}) {
    this->AddCall(*stream, ObservedKey(this->log_, Profile(profile)), 1, {});
  }
  for (const auto& entry : stream->pending_calls_) leaked.emplace_back(entry.first);
  ASSERT_EQ(this->log_.live, 2);

  stream.Destroy();

  EXPECT_EQ(this->log_.live, 2);
}

TYPED_TEST(CallbackStreamTest, DestructionWithoutCompletionLeavesTheRegistrations) {
  ServedStream<CallbackStream<TypeParam>> stream(this->service_);
  stream.Receive(this->Control("work", true));
  stream.Receive(this->Control("home", true));
  CallbackStream<TypeParam>* const address = stream.get();

  stream.Destroy();

  EXPECT_EQ(this->Answering("work"), address);
  EXPECT_EQ(this->Answering("home"), address);
  this->RemoveLeftovers(this->Registry());
}

}  // namespace
}  // namespace varnic
