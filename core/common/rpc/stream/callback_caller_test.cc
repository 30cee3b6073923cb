#include "core/common/rpc/stream/callback_caller.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/logging.h"
#include "core/common/rpc/process_death_test_support.h"
#include "core/common/rpc/stream/profile_streams_test_support.h"
#include "core/common/rpc/testing/fake_scheduler.h"

namespace varnic {
namespace {

using testing::AuthenticationStream;
using ::testing::ElementsAre;
using testing::FakeScheduler;
using testing::FileAccessStream;
using ::testing::IsEmpty;
using testing::NetworkStream;
using testing::Profile;
using testing::ServedStream;
using ::testing::UnorderedElementsAre;

using FileCaller = CallbackCaller<rpc::CanAccessFile>;
using FileStream = ServedStream<FileAccessStream>;

constexpr absl::Duration kTimeout = absl::Seconds(30);

rpc::CanAccessFile Message(const rpc::transport::StreamMessage& envelope) {
  rpc::CanAccessFile message;
  EXPECT_TRUE(message.ParseFromString(envelope.payload()));
  return message;
}

rpc::CanAccessFile Control(const std::string& profile, bool subscribe) {
  rpc::CanAccessFile control;
  *control.mutable_profile_id() = Profile(profile);
  control.set_subscribe(subscribe);
  return control;
}

rpc::CanAccessFile Answer(const std::string& profile, bool allow = true) {
  rpc::CanAccessFile answer;
  *answer.mutable_profile_id() = Profile(profile);
  answer.mutable_response()->set_allow(allow);
  return answer;
}

// What a stream's client was sent, as text.
std::vector<std::string> Sent(const testing::RecordingChannel& recording) {
  std::vector<std::string> sent;
  for (const auto& envelope : recording.sent()) {
    const auto message = Message(envelope);
    EXPECT_EQ(message.call_id(), envelope.call_id());
    const bool is_error = envelope.kind() == rpc::transport::StreamMessage::ERROR;
    EXPECT_EQ(is_error, !message.error().empty());
    sent.push_back(is_error ? message.error() : message.request().path());
  }
  return sent;
}
std::vector<std::string> Sent(const FileStream& stream) {
  return Sent(stream.recording());
}

// A channel whose transport runs `on_send` for each envelope and returns what that returns. The
// stream may be gone afterwards.
StreamChannel ChannelThatRuns(std::function<bool(const rpc::transport::StreamMessage&)> on_send) {
  class Transport final : public StreamChannel::Transport {
   public:
    explicit Transport(std::function<bool(const rpc::transport::StreamMessage&)> on_send)
        : on_send_(std::move(on_send)) {}
    bool Send(const rpc::transport::StreamMessage& envelope) override {
      const auto on_send = on_send_;
      return on_send(envelope);
    }
    void Complete() override {}
    bool IsPeerPresent() const override { return true; }

   private:
    const std::function<bool(const rpc::transport::StreamMessage&)> on_send_;
  };
  return StreamChannel(std::make_unique<Transport>(std::move(on_send)));
}

// Streams of which each stands in the memory of the one before it.
class StreamAtOnePlace : public FileAccessStream {
 public:
  using FileAccessStream::FileAccessStream;
  static void* operator new(std::size_t /*size*/) { return memory_; }
  static void operator delete(void* /*memory*/) {}

 private:
  static inline char* const memory_ = new char[sizeof(FileAccessStream)];
};
static_assert(sizeof(StreamAtOnePlace) == sizeof(FileAccessStream));

class CallbackCallerTest : public testing::ProfileStreamsTest {
 protected:
  CallbackCallerTest() { logging::SetMinLogLevel(logging::LOGGING_ERROR); }
  ~CallbackCallerTest() override { logging::SetMinLogLevel(logging::LOGGING_INFO); }

  // Asks about the file `name`, and notes how that ends, for which `then` runs as well.
  CallId Ask(
      FileCaller& caller, const std::string& profile, const std::string& name,
      const std::function<void()>& then = [] {}, absl::Duration timeout = kTimeout) {
    rpc::CanAccessFile::Request request;
    request.set_path(name);
    return caller.Call(
        Profile(profile), request,
        [this, name, then](const rpc::CanAccessFile::Response& response) {
          ends_.push_back(name + (response.allow() ? " allowed" : " denied"));
          then();
        },
        [this, name, then](const absl::Status& status) {
          EXPECT_FALSE(status.message().empty());
          ends_.push_back(name + " " + absl::StatusCodeToString(status.code()));
          then();
        },
        timeout);
  }

  static void ExpectNoCalls(const FileStream& stream) {
    EXPECT_TRUE(stream->pending_calls_.empty());
  }

  std::vector<std::string> ends_;
  FakeScheduler scheduler_;
};

// With a caller, and a stream that answers for "work".
class CallbackCallerWithStreamTest : public CallbackCallerTest {
 protected:
  CallbackCallerWithStreamTest() { stream_.Receive(Control("work", true)); }
  // Every test sees to it that no call, timer or task is left.
  ~CallbackCallerWithStreamTest() override {
    caller_.reset();
    scheduler_.RunPosted();
    ExpectNoCalls(stream_);
    EXPECT_EQ(scheduler_.timers(), 0u);
  }

  CallId Ask(
      const std::string& name, const std::function<void()>& then = [] {}) {
    return CallbackCallerTest::Ask(*caller_, "work", name, then);
  }

  std::optional<FileCaller> caller_{std::in_place, scheduler_};
  FileStream stream_{service_};
};

TEST_F(CallbackCallerWithStreamTest, QuestionWithTextThatIsNoUtf8IsNotSent) {
  Ask("/tmp/\xff");
  EXPECT_THAT(ends_, IsEmpty());  // Not inside the call.
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("/tmp/\xff INVALID_ARGUMENT"));
  EXPECT_THAT(Sent(stream_), IsEmpty());
}

TEST_F(CallbackCallerWithStreamTest, SendsTheQuestionWithItsKeyAndItsId) {
  rpc::CanAccessFile::Request request;
  request.set_path("/etc/hosts");
  request.set_origin("https://example.org");

  const CallId id = caller_->Call(
      Profile("work"), request, [](const rpc::CanAccessFile::Response&) {},
      [](const absl::Status&) {}, kTimeout);

  EXPECT_NE(id, 0);
  ASSERT_EQ(stream_.recording().sent().size(), 1u);
  const auto& envelope = stream_.recording().sent()[0];
  EXPECT_EQ(envelope.call_id(), id);
  EXPECT_EQ(envelope.kind(), rpc::transport::StreamMessage::MESSAGE);
  const auto message = Message(envelope);
  EXPECT_EQ(message.profile_id().value(), "work");
  EXPECT_EQ(message.call_id(), id);
  EXPECT_EQ(message.request().SerializeAsString(), request.SerializeAsString());
}

TEST_F(CallbackCallerWithStreamTest, AnAnswerEndsTheCallOnce) {
  const CallId id = Ask("file");
  EXPECT_EQ(caller_->open_calls(), 1u);

  stream_.Receive(Answer("work"), id);
  stream_.Receive(Answer("work", false), id);
  scheduler_.Advance(absl::Hours(1));

  EXPECT_THAT(ends_, ElementsAre("file allowed"));
  EXPECT_EQ(caller_->open_calls(), 0u);
  EXPECT_THAT(Sent(stream_), ElementsAre("file"));
}

TEST_F(CallbackCallerWithStreamTest, AnswersMayComeInAnyOrder) {
  const CallId first = Ask("first");
  const CallId second = Ask("second");

  stream_.Receive(Answer("work", false), second);
  stream_.Receive(Answer("work"), first);

  EXPECT_THAT(Sent(stream_), ElementsAre("first", "second"));
  EXPECT_THAT(ends_, ElementsAre("second denied", "first allowed"));
}

TEST_F(CallbackCallerWithStreamTest, AClientsErrorAborts) {
  const CallId id = Ask("file");

  stream_.ReceiveError(Answer("work"), id);

  EXPECT_THAT(ends_, ElementsAre("file ABORTED"));
  ExpectNoCalls(stream_);
}

TEST_F(CallbackCallerWithStreamTest, AnUnsubscriptionCancelsInTheOrderOfTheCalls) {
  Ask("first");
  Ask("second");

  stream_.Receive(Control("work", false));

  EXPECT_THAT(ends_, ElementsAre("first CANCELLED", "second CANCELLED"));
  EXPECT_THAT(Sent(stream_), ElementsAre("first", "second"));
}

TEST_F(CallbackCallerWithStreamTest, ACompletionCancels) {
  Ask("file");

  stream_->OnCompleted();

  EXPECT_THAT(ends_, ElementsAre("file CANCELLED"));
}

TEST_F(CallbackCallerTest, AStreamThatIsDestroyedUncompletedEndsItsCallsThroughTheScheduler) {
  FileCaller caller(scheduler_);
  FileStream stream(service_);
  stream.Receive(Control("work", true));
  Ask(caller, "work", "file");
  const google::protobuf::Message* key = stream->pending_calls_.begin()->first;

  stream.Destroy();
  EXPECT_THAT(ends_, IsEmpty());
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("file UNAVAILABLE"));
  EXPECT_EQ(scheduler_.timers(), 0u);
  EXPECT_TRUE(FileAccessStream::stream_map_.empty());
  delete key;  // The stream leaks it.
}

TEST_F(CallbackCallerWithStreamTest, ACallThatIsErasedFromTheTableByHandIsUnavailable) {
  Ask("file");

  RemoveLeftovers(stream_->pending_calls_);
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("file UNAVAILABLE"));
}

TEST_F(CallbackCallerTest, ACallableThatOutlivesItsStreamKeepsNoCallOpen) {
  FileCaller caller(scheduler_);
  FileStream stream(service_);
  stream.Receive(Control("work", true));
  const CallId id = Ask(caller, "work", "file");
  const auto& [key, calls] = *stream->pending_calls_.begin();
  const std::unique_ptr<const google::protobuf::Message> leaked_key(key);
  const FileAccessStream::StreamCall copy = calls.at(id);

  stream.Destroy();
  EXPECT_FALSE(caller.Withdraw(id));
  scheduler_.RunPosted();
  copy.on_error(FileAccessStream::kCancelled);

  EXPECT_THAT(ends_, ElementsAre("file UNAVAILABLE"));
}

TEST_F(CallbackCallerTest, AStreamThatIsCompletedByHandEndsItsCalls) {
  FileCaller caller(scheduler_);
  FileStream stream(service_);
  stream.Receive(Control("work", true));
  const CallId id = Ask(caller, "work", "file");

  stream->Complete();
  scheduler_.RunPosted();
  stream.Receive(Answer("work"), id);

  EXPECT_THAT(ends_, ElementsAre("file UNAVAILABLE"));
  EXPECT_TRUE(FileAccessStream::stream_map_.empty());
  ExpectNoCalls(stream);
}

TEST_F(CallbackCallerWithStreamTest, NobodyAnswersForAnUnknownKey) {
  const CallId id = CallbackCallerTest::Ask(*caller_, "home", "file");
  EXPECT_NE(id, 0);
  EXPECT_THAT(ends_, IsEmpty());  // Never inside Call().

  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("file NOT_FOUND"));
  EXPECT_THAT(Sent(stream_), IsEmpty());
  EXPECT_EQ(scheduler_.timers(), 0u);
}

TEST_F(CallbackCallerTest, NobodyAnswersOnceTheStreamHasCompletedOrIsDestroyed) {
  FileCaller caller(scheduler_);
  FileStream completed(service_);
  FileStream destroyed(service_);
  completed.Receive(Control("work", true));
  destroyed.Receive(Control("home", true));
  completed->OnCompleted();
  destroyed.Destroy();

  Ask(caller, "work", "first");
  Ask(caller, "home", "second");
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("first NOT_FOUND", "second NOT_FOUND"));
}

TEST_F(CallbackCallerTest, NobodyAnswersAtAReusedAddress) {
  FileCaller caller(scheduler_);
  testing::RecordingChannel recording;
  const auto open = [&] {
    return std::make_unique<StreamAtOnePlace>(&service_, testing::ProfileMethod(10),
                                              recording.Open());
  };
  std::unique_ptr<StreamAtOnePlace> stream(open());
  const AbstractStream* address = stream.get();
  stream->Subscribe(Profile("work"));
  stream.reset();

  stream = open();
  ASSERT_EQ(stream.get(), address);
  Ask(caller, "work", "file");
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("file NOT_FOUND"));
  EXPECT_THAT(recording.sent(), IsEmpty());
  EXPECT_TRUE(stream->pending_calls_.empty());
  stream->OnCompleted();
}

TEST_F(CallbackCallerTest, ALateEndOfACallDoesNotTouchAStreamAtTheReusedAddress) {
  FileCaller caller(scheduler_);
  testing::RecordingChannel recording;
  const auto open = [&] {
    return std::make_unique<StreamAtOnePlace>(&service_, testing::ProfileMethod(10),
                                              recording.Open());
  };
  std::unique_ptr<StreamAtOnePlace> stream(open());
  stream->Subscribe(Profile("work"));
  const CallId id = Ask(caller, "work", "first");
  stream->OnCompleted();
  stream.reset();
  stream = open();
  stream->Subscribe(Profile("work"));
  Ask(caller, "work", "second");

  EXPECT_FALSE(caller.Withdraw(id));
  auto answer = testing::Envelope(Answer("work").SerializeAsString(), id);
  stream->OnNext(&answer);

  EXPECT_THAT(ends_, ElementsAre("first CANCELLED"));
  EXPECT_THAT(Sent(recording), ElementsAre("first", "second"));
  stream->OnCompleted();
}

TEST_F(CallbackCallerTest, DropsThePointersOfGoneStreamsThatItFinds) {
  FileStream stays(service_);
  FileStream destroyed(service_);
  stays.Receive(Control("work", true));
  destroyed.Receive(Control("home", true));
  destroyed.Destroy();
  ASSERT_EQ(FileAccessStream::stream_map_.size(), 2u);

  FileCaller caller(scheduler_);

  ASSERT_EQ(FileAccessStream::stream_map_.size(), 1u);
  EXPECT_EQ(FileAccessStream::stream_map_.begin()->second, stays.get());
}

TEST_F(CallbackCallerTest, AnUnwritableStreamIsUnavailable) {
  FileCaller caller(scheduler_);
  FileAccessStream stream(&service_, testing::ProfileMethod(10),
                          ChannelThatRuns([](const auto&) { return false; }));
  stream.Subscribe(Profile("work"));

  Ask(caller, "work", "file");
  EXPECT_THAT(ends_, IsEmpty());
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("file UNAVAILABLE"));
  EXPECT_TRUE(stream.pending_calls_.empty());
  stream.OnCompleted();
}

TEST_F(CallbackCallerTest, AStreamWithTooManyOpenCallsGetsNoMore) {
  CallbackCallerOptions options;
  options.max_open_calls_per_stream = 2;
  FileCaller caller(scheduler_, options);
  FileStream stream(service_);
  FileStream other(service_);
  stream.Receive(Control("work", true));
  stream.Receive(Control("home", true));
  other.Receive(Control("school", true));
  const CallId first = Ask(caller, "work", "first");
  Ask(caller, "home", "second");

  Ask(caller, "work", "third");
  Ask(caller, "school", "other");
  EXPECT_THAT(ends_, IsEmpty());
  scheduler_.RunPosted();
  stream.Receive(Answer("work"), first);
  Ask(caller, "work", "fourth");

  EXPECT_THAT(ends_, ElementsAre("third RESOURCE_EXHAUSTED", "first allowed"));
  EXPECT_THAT(Sent(stream), ElementsAre("first", "second", "fourth"));
  EXPECT_THAT(Sent(other), ElementsAre("other"));
}

TEST_F(CallbackCallerWithStreamTest, ADeadlineEndsTheCallAndTellsTheClient) {
  const CallId id = Ask("file");

  scheduler_.Advance(kTimeout - absl::Nanoseconds(1));
  EXPECT_THAT(ends_, IsEmpty());
  scheduler_.Advance(absl::Nanoseconds(1));

  EXPECT_THAT(ends_, ElementsAre("file DEADLINE_EXCEEDED"));
  EXPECT_THAT(Sent(stream_), ElementsAre("file", "withdrawn"));
  EXPECT_EQ(stream_.recording().sent()[1].call_id(), id);
  EXPECT_EQ(Message(stream_.recording().sent()[1]).profile_id().value(), "work");
  ExpectNoCalls(stream_);
}

TEST_F(CallbackCallerWithStreamTest, ALateAnswerIsDropped) {
  const CallId id = Ask("file");
  scheduler_.Advance(kTimeout);

  stream_.Receive(Answer("work"), id);

  EXPECT_THAT(ends_, ElementsAre("file DEADLINE_EXCEEDED"));
}

TEST_F(CallbackCallerWithStreamTest, ADeadlineLeavesTheOtherCallsOfTheKey) {
  Ask("first");
  scheduler_.Advance(kTimeout / 2);
  const CallId second = Ask("second");

  scheduler_.Advance(kTimeout / 2);
  EXPECT_EQ(stream_->pending_calls_.size(), 1u);
  stream_.Receive(Answer("work"), second);

  EXPECT_THAT(ends_, ElementsAre("first DEADLINE_EXCEEDED", "second allowed"));
}

TEST_F(CallbackCallerWithStreamTest, AnInfiniteTimeoutSetsNoTimer) {
  const CallId id = CallbackCallerTest::Ask(
      *caller_, "work", "file", [] {}, absl::InfiniteDuration());
  EXPECT_EQ(scheduler_.timers(), 0u);

  scheduler_.Advance(absl::Hours(1'000'000));
  EXPECT_THAT(ends_, IsEmpty());
  stream_.Receive(Answer("work"), id);

  EXPECT_THAT(ends_, ElementsAre("file allowed"));
}

TEST_F(CallbackCallerWithStreamTest, AWithdrawalEndsTheCallAndTellsTheClient) {
  const CallId id = Ask("file");

  EXPECT_TRUE(caller_->Withdraw(id));
  EXPECT_THAT(ends_, IsEmpty());  // Never inside Withdraw().
  EXPECT_FALSE(caller_->Withdraw(id));
  stream_.Receive(Answer("work"), id);
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("file CANCELLED"));
  EXPECT_THAT(Sent(stream_), ElementsAre("file", "withdrawn"));
  EXPECT_EQ(stream_.recording().sent()[1].call_id(), id);
  ExpectNoCalls(stream_);
}

TEST_F(CallbackCallerWithStreamTest, OnlyAnOpenCallCanBeWithdrawn) {
  const CallId answered = Ask("file");
  stream_.Receive(Answer("work"), answered);

  EXPECT_FALSE(caller_->Withdraw(answered));
  EXPECT_FALSE(caller_->Withdraw(0));
  EXPECT_FALSE(caller_->Withdraw(answered + 1));

  EXPECT_THAT(ends_, ElementsAre("file allowed"));
}

TEST_F(CallbackCallerWithStreamTest, AWithdrawalReachesTheStreamThatWasAskedAfterATakeover) {
  const CallId id = Ask("file");
  FileStream other(service_);
  other.Receive(Control("work", true));

  caller_->Withdraw(id);
  Ask("next");

  EXPECT_THAT(Sent(stream_), ElementsAre("file", "withdrawn"));
  EXPECT_THAT(Sent(other), ElementsAre("next"));
}

TEST_F(CallbackCallerWithStreamTest, TheDestructorEndsEveryCallAndCleansTheTables) {
  FileStream other(service_);
  other.Receive(Control("home", true));
  Ask("first");
  CallbackCallerTest::Ask(*caller_, "home", "second");
  CallbackCallerTest::Ask(*caller_, "nobody", "third");

  caller_.reset();

  EXPECT_THAT(ends_, ElementsAre("third NOT_FOUND", "first CANCELLED", "second CANCELLED"));
  EXPECT_THAT(Sent(stream_), ElementsAre("first", "withdrawn"));
  EXPECT_THAT(Sent(other), ElementsAre("second", "withdrawn"));
  ExpectNoCalls(stream_);
  ExpectNoCalls(other);
  scheduler_.Advance(absl::Hours(1));
  EXPECT_EQ(ends_.size(), 3u);
}

TEST_F(CallbackCallerWithStreamTest, ACallMadeByTheDestructorsCallbacksEndsLater) {
  Ask("first", [this] { Ask("second"); });

  // Not reset(), which empties the optional first.
  caller_->~FileCaller();
  EXPECT_THAT(ends_, ElementsAre("first CANCELLED"));
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("first CANCELLED", "second CANCELLED"));
  EXPECT_THAT(Sent(stream_), ElementsAre("first", "withdrawn"));
  new (&*caller_) FileCaller(scheduler_);
}

TEST_F(CallbackCallerWithStreamTest, ACallbackMayAskAgainForTheSameKey) {
  const CallId first = Ask("first", [this] { Ask("second"); });

  stream_.Receive(Answer("work"), first);
  EXPECT_THAT(Sent(stream_), ElementsAre("first"));
  EXPECT_EQ(caller_->open_calls(), 1u);
  scheduler_.RunPosted();

  ASSERT_THAT(Sent(stream_), ElementsAre("first", "second"));
  stream_.Receive(Answer("work"), stream_.recording().sent()[1].call_id());
  EXPECT_THAT(ends_, ElementsAre("first allowed", "second allowed"));
}

TEST_F(CallbackCallerWithStreamTest, WhatWasAskedInACallbackMayBeWithdrawnBeforeItIsSent) {
  const CallId first = Ask("first", [this] { caller_->Withdraw(Ask("second")); });

  stream_.Receive(Answer("work"), first);
  scheduler_.RunPosted();

  EXPECT_THAT(Sent(stream_), ElementsAre("first"));
  EXPECT_THAT(ends_, ElementsAre("first allowed", "second CANCELLED"));
}

TEST_F(CallbackCallerWithStreamTest, EveryCancelledCallMayAskAgain) {
  for (const char* name : {"first", "second", "third"}) {
    Ask(name, [this, name] { Ask(std::string("again ") + name); });
  }

  stream_.Receive(Control("work", false));
  stream_.Receive(Control("work", true));
  EXPECT_THAT(ends_, ElementsAre("first CANCELLED", "second CANCELLED", "third CANCELLED"));
  scheduler_.RunPosted();

  EXPECT_THAT(Sent(stream_), ElementsAre("first", "second", "third", "again first", "again second",
                                         "again third"));
  EXPECT_EQ(caller_->open_calls(), 3u);
}

TEST_F(CallbackCallerWithStreamTest, WhatIsAskedWhileTheStreamCompletesFindsNobody) {
  stream_.Receive(Control("home", true));
  Ask("file", [this] {
    Ask("same key");
    CallbackCallerTest::Ask(*caller_, "home", "other key");
  });

  stream_->OnCompleted();
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("file CANCELLED", "same key NOT_FOUND", "other key NOT_FOUND"));
  EXPECT_THAT(Sent(stream_), ElementsAre("file"));
}

TEST_F(CallbackCallerWithStreamTest, ACallbackMayWithdrawTheNextCallOfTheWalk) {
  CallId second = 0;
  Ask("first", [&] { EXPECT_TRUE(caller_->Withdraw(second)); });
  second = Ask("second");
  Ask("third");

  stream_.Receive(Control("work", false));
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("first CANCELLED", "third CANCELLED", "second CANCELLED"));
  EXPECT_THAT(Sent(stream_), ElementsAre("first", "second", "third"));  // The client knows.
}

TEST_F(CallbackCallerWithStreamTest, ACallbackMayWithdrawAnotherCallOfItsKey) {
  CallId second = 0;
  const CallId first = Ask("first", [&] { EXPECT_TRUE(caller_->Withdraw(second)); });
  second = Ask("second");

  stream_.Receive(Answer("work"), first);
  EXPECT_EQ(stream_->pending_calls_.size(), 1u);
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("first allowed", "second CANCELLED"));
  EXPECT_THAT(Sent(stream_), ElementsAre("first", "second", "withdrawn"));
  ExpectNoCalls(stream_);
}

TEST_F(CallbackCallerWithStreamTest, ACallbackMayWithdrawACallOfAKeyThatItsStreamCancelsNext) {
  stream_.Receive(Control("home", true));
  CallId work = 0;
  CallId home = 0;
  work = Ask("work", [&] { caller_->Withdraw(home); });
  home = CallbackCallerTest::Ask(*caller_, "home", "home", [&] { caller_->Withdraw(work); });

  stream_->OnCompleted();
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, UnorderedElementsAre("work CANCELLED", "home CANCELLED"));
}

TEST_F(CallbackCallerWithStreamTest, ADeadlineMayPassInsideACallback) {
  const CallId first = Ask("first", [&] { scheduler_.Advance(kTimeout); });
  Ask("second");

  stream_.Receive(Answer("work"), first);
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("first allowed", "second DEADLINE_EXCEEDED"));
  EXPECT_THAT(Sent(stream_), ElementsAre("first", "second", "withdrawn"));
  ExpectNoCalls(stream_);
}

TEST_F(CallbackCallerWithStreamTest, PutOffWorkWaitsForTheWholeWalk) {
  // The second callback runs what the first one had posted, while the walk goes on.
  Ask("first", [this] { Ask("again"); });
  Ask("second", [this] { scheduler_.RunPosted(); });
  Ask("third");

  stream_.Receive(Control("work", false));
  EXPECT_THAT(ends_, ElementsAre("first CANCELLED", "second CANCELLED", "third CANCELLED"));
  stream_.Receive(Control("work", true));
  scheduler_.RunPosted();

  EXPECT_THAT(Sent(stream_), ElementsAre("first", "second", "third", "again"));
}

TEST_F(CallbackCallerWithStreamTest, AnAnswerThatComesWhileTheTakingOutWaitsIsDropped) {
  CallId second = 0;
  const CallId first = Ask("first", [&] { caller_->Withdraw(second); });
  second = Ask("second");
  Ask("third");

  stream_.Receive(Answer("work"), first);
  stream_.Receive(Answer("work"), second);
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("first allowed", "second CANCELLED"));
  EXPECT_THAT(Sent(stream_), ElementsAre("first", "second", "third"));
}

TEST_F(CallbackCallerTest, PutOffWorkForAStreamThatIsGoneIsForgotten) {
  FileCaller caller(scheduler_);
  FileStream stream(service_);
  stream.Receive(Control("work", true));
  CallId second = 0;
  const CallId first = Ask(caller, "work", "first", [&] {
    caller.Withdraw(second);
    Ask(caller, "work", "third");
  });
  second = Ask(caller, "work", "second");
  stream.Receive(Answer("work"), first);
  const google::protobuf::Message* key = stream->pending_calls_.begin()->first;

  stream.Destroy();
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, UnorderedElementsAre("first allowed", "second CANCELLED", "third NOT_FOUND"));
  delete key;  // The stream leaks it.
}

TEST_F(CallbackCallerWithStreamTest, ACallbackMayDestroyTheCallerWhileAnAnswerIsDelivered) {
  const CallId first = Ask("first", [this] { caller_.reset(); });
  Ask("second");

  stream_.Receive(Answer("work"), first);
  EXPECT_THAT(ends_, ElementsAre("first allowed", "second CANCELLED"));
  scheduler_.RunPosted();

  EXPECT_THAT(Sent(stream_), ElementsAre("first", "second", "withdrawn"));
  ExpectNoCalls(stream_);
}

TEST_F(CallbackCallerWithStreamTest, ACallbackMayDestroyTheCallerWhileTheStreamCompletes) {
  Ask("first", [this] { caller_.reset(); });
  Ask("second");

  stream_->OnCompleted();
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("first CANCELLED", "second CANCELLED"));
}

// Nothing is put off, which would keep what the caller has.
TEST_F(CallbackCallerWithStreamTest, TheOnlyCallsCallbackMayDestroyTheCaller) {
  const std::function<void(CallId)> ends[] = {
      [this](CallId id) { stream_.Receive(Answer("work"), id); },
      [this](CallId id) { stream_.ReceiveError(Answer("work"), id); },
      [this](CallId /*id*/) { stream_.Receive(Control("work", false)); },
  };
  for (const auto& end : ends) {
    caller_.emplace(scheduler_);
    stream_.Receive(Control("work", true));
    const CallId id = Ask("file", [this] { caller_.reset(); });

    end(id);

    EXPECT_FALSE(caller_.has_value());
    ExpectNoCalls(stream_);
  }
  EXPECT_THAT(ends_, ElementsAre("file allowed", "file ABORTED", "file CANCELLED"));
}

TEST_F(CallbackCallerWithStreamTest, ACallbackMayDestroyTheCallerAtADeadline) {
  Ask("first", [this] { caller_.reset(); });
  scheduler_.Advance(kTimeout / 2);
  Ask("second");

  scheduler_.Advance(kTimeout);

  EXPECT_THAT(ends_, ElementsAre("first DEADLINE_EXCEEDED", "second CANCELLED"));
}

TEST_F(CallbackCallerWithStreamTest, APostedCallbackMayDestroyTheCaller) {
  CallbackCallerTest::Ask(*caller_, "nobody", "first", [this] { caller_.reset(); });
  CallbackCallerTest::Ask(*caller_, "nobody", "second");
  Ask("third");

  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("first NOT_FOUND", "second NOT_FOUND", "third CANCELLED"));
}

TEST_F(CallbackCallerTest, AStreamMayCompleteWhileItIsAsked) {
  FileCaller caller(scheduler_);
  std::unique_ptr<FileAccessStream> stream;
  stream = std::make_unique<FileAccessStream>(&service_, testing::ProfileMethod(10),
                                              ChannelThatRuns([&](const auto&) {
                                                stream->OnCompleted();
                                                stream.reset();
                                                return false;
                                              }));
  stream->Subscribe(Profile("work"));

  const CallId id = Ask(caller, "work", "file");
  EXPECT_THAT(ends_, IsEmpty());
  EXPECT_FALSE(caller.Withdraw(id));
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("file CANCELLED"));
}

TEST_F(CallbackCallerTest, AnAnswerThatComesWhileTheQuestionIsSentIsDeliveredLater) {
  FileCaller caller(scheduler_);
  std::unique_ptr<FileAccessStream> stream;
  stream = std::make_unique<FileAccessStream>(
      &service_, testing::ProfileMethod(10), ChannelThatRuns([&](const auto& question) {
        auto answer = testing::Envelope(Answer("work").SerializeAsString(), question.call_id());
        stream->OnNext(&answer);
        return true;
      }));
  stream->Subscribe(Profile("work"));

  Ask(caller, "work", "file");
  EXPECT_THAT(ends_, IsEmpty());
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("file allowed"));
  stream->OnCompleted();
}

TEST_F(CallbackCallerTest, StreamsMayCompleteWhileTheDestructorTellsThem) {
  std::optional<FileCaller> caller(std::in_place, scheduler_);
  std::vector<std::unique_ptr<FileAccessStream>> streams;
  const auto on_send = [&](const rpc::transport::StreamMessage& envelope) {
    if (envelope.kind() != rpc::transport::StreamMessage::ERROR) return true;
    for (const auto& stream : std::exchange(streams, {})) stream->OnCompleted();
    return false;
  };
  for (const char* key : {"work", "home"}) {
    streams.push_back(std::make_unique<FileAccessStream>(&service_, testing::ProfileMethod(10),
                                                         ChannelThatRuns(on_send)));
    streams.back()->Subscribe(Profile(key));
    Ask(*caller, key, key);
  }

  caller.reset();

  EXPECT_THAT(ends_, UnorderedElementsAre("work CANCELLED", "home CANCELLED"));
  EXPECT_TRUE(streams.empty());
}

TEST_F(CallbackCallerWithStreamTest, TwoCallersShareAStreamAndKeepTheirCallsApart) {
  std::optional<FileCaller> other(std::in_place, scheduler_);
  const CallId first = Ask("first");
  const CallId second = CallbackCallerTest::Ask(*other, "work", "second");
  EXPECT_NE(first, second);

  EXPECT_FALSE(caller_->Withdraw(second));
  stream_.Receive(Answer("work"), second);
  other.reset();
  stream_.Receive(Answer("work"), first);

  EXPECT_THAT(ends_, ElementsAre("second allowed", "first allowed"));
}

TEST_F(CallbackCallerWithStreamTest, ACallbackOfOneCallerMayUseAnotherForTheSameKey) {
  FileCaller other(scheduler_);
  const CallId withdrawn = CallbackCallerTest::Ask(other, "work", "withdrawn by the first");
  const CallId first = Ask("first", [&] {
    other.Withdraw(withdrawn);
    CallbackCallerTest::Ask(other, "work", "next");
  });

  stream_.Receive(Answer("work"), first);
  EXPECT_EQ(stream_->pending_calls_.begin()->second.size(), 1u);  // Nothing added or removed.
  scheduler_.RunPosted();

  EXPECT_THAT(Sent(stream_), ElementsAre("withdrawn by the first", "first", "withdrawn", "next"));
  EXPECT_EQ(stream_->pending_calls_.begin()->second.size(), 1u);
}

TEST_F(CallbackCallerWithStreamTest, TwoCallersMayEachDestroyTheOther) {
  std::optional<FileCaller> other(std::in_place, scheduler_);
  Ask("first", [&] { other.reset(); });
  CallbackCallerTest::Ask(*other, "work", "second", [&] { caller_.reset(); });

  stream_->OnCompleted();
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("first CANCELLED", "second CANCELLED"));
}

TEST_F(CallbackCallerTest, CallersOfTwoQuestionsDoNotMeet) {
  CallbackCaller<rpc::Authenticate> authentication(scheduler_);
  FileCaller files(scheduler_);
  ServedStream<AuthenticationStream> stream(service_);
  stream->Subscribe(Profile("work"));
  std::string username;
  const CallId id = authentication.Call(
      Profile("work"), rpc::Authenticate::Request(),
      [&](const rpc::Authenticate::Response& response) { username = response.username(); },
      [](const absl::Status&) { ADD_FAILURE(); }, kTimeout);
  Ask(files, "work", "file");
  rpc::Authenticate answer;
  *answer.mutable_profile_id() = Profile("work");
  answer.mutable_response()->set_username("somebody");

  stream.Receive(answer, id);
  scheduler_.RunPosted();

  EXPECT_EQ(username, "somebody");
  EXPECT_THAT(ends_, ElementsAre("file NOT_FOUND"));
}

TEST_F(CallbackCallerWithStreamTest, AnIdThatIsPendingUnderTheKeyIsPassedOver) {
  const CallId last = NextCallId();
  const auto* key = CloneKey(Profile("work"));
  auto& calls = stream_->pending_calls_.try_emplace(key).first->second;
  int cancelled = 0;
  for (CallId id = last + 1; id <= last + 3; ++id) {
    calls[id] = {[](const rpc::CanAccessFile&) {}, [&](int /*code*/) { ++cancelled; }};
  }

  Ask("file");

  ASSERT_EQ(stream_.recording().sent().size(), 1u);
  const auto& question = stream_.recording().sent()[0];
  EXPECT_EQ(question.call_id(), last + 4);
  EXPECT_EQ(Message(question).call_id(), last + 4);
  stream_.Receive(Answer("work"), last + 4);
  EXPECT_THAT(ends_, ElementsAre("file allowed"));
  stream_.Receive(Control("work", false));
  EXPECT_EQ(cancelled, 3);
}

TEST_F(CallbackCallerWithStreamTest, AnIdThatIsTakenWhileTheCallIsPutOffIsPassedOver) {
  CallId second = 0;
  const CallId first = Ask("first", [&] { second = Ask("second"); });
  stream_.Receive(Answer("work"), first);
  auto& calls = stream_->pending_calls_.try_emplace(CloneKey(Profile("work"))).first->second;
  int cancelled = 0;
  calls[second] = {[](const rpc::CanAccessFile&) {}, [&](int /*code*/) { ++cancelled; }};

  scheduler_.RunPosted();

  ASSERT_EQ(stream_.recording().sent().size(), 2u);
  const CallId sent = stream_.recording().sent()[1].call_id();
  EXPECT_NE(sent, second);
  stream_.Receive(Answer("work"), sent);
  EXPECT_THAT(ends_, ElementsAre("first allowed", "second allowed"));
  stream_.Receive(Control("work", false));
  EXPECT_EQ(cancelled, 1);
}

TEST_F(CallbackCallerWithStreamTest, ACallWhoseIdWasPassedOverIsWithdrawnByItsOwnName) {
  const CallId last = NextCallId();
  auto& calls = stream_->pending_calls_.try_emplace(CloneKey(Profile("work"))).first->second;
  int cancelled = 0;
  calls[last + 1] = {[](const rpc::CanAccessFile&) {}, [&](int /*code*/) { ++cancelled; }};
  const CallId id = Ask("file");

  EXPECT_TRUE(caller_->Withdraw(id));
  scheduler_.RunPosted();

  EXPECT_THAT(ends_, ElementsAre("file CANCELLED"));
  EXPECT_THAT(Sent(stream_), ElementsAre("file", "withdrawn"));
  EXPECT_EQ(stream_.recording().sent()[1].call_id(), stream_.recording().sent()[0].call_id());
  EXPECT_EQ(calls.size(), 1u);
  stream_.Receive(Control("work", false));
  EXPECT_EQ(cancelled, 1);
}

TEST_F(CallbackCallerTest, TheStreamsMayGoFirstWhenTheHostShutsDown) {
  std::optional<FileCaller> caller(std::in_place, scheduler_);
  {
    FileStream stream(service_);
    stream.Receive(Control("work", true));
    Ask(*caller, "work", "file");
    stream->OnCompleted();
  }

  caller.reset();

  EXPECT_THAT(ends_, ElementsAre("file CANCELLED"));
}

TEST_F(CallbackCallerTest, NothingThatTheSchedulerDropsIsLostWhenTheHostShutsDown) {
  std::optional<FakeScheduler> scheduler(std::in_place);
  std::optional<FileCaller> caller(std::in_place, *scheduler);
  FileStream stream(service_);
  stream.Receive(Control("work", true));
  CallId second = 0;
  const CallId first = Ask(*caller, "work", "first", [&] {
    caller->Withdraw(second);
    Ask(*caller, "work", "third");
  });
  second = Ask(*caller, "work", "second");
  stream.Receive(Answer("work"), first);

  caller.reset();
  scheduler.reset();  // With the put-off work unrun.
  stream->OnCompleted();

  EXPECT_THAT(ends_, ElementsAre("first allowed", "second CANCELLED", "third CANCELLED"));
  ExpectNoCalls(stream);
}

using CallbackCallerDeathTest = CallbackCallerTest;

TEST_F(CallbackCallerDeathTest, ACallNeedsBothCallbacks) {
  FileCaller caller(scheduler_);
  int line = 0;

  EXPECT_DEATH(
      caller.Call(
          Profile("work"), {}, nullptr, [](const absl::Status&) {}, kTimeout),
      testing::FatalRecord("callback_caller.h",
                           "Check failed: on_response != nullptr && on_error != nullptr", line));
}

}  // namespace
}  // namespace varnic
