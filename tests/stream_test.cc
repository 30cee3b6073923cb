// Streams from a client's socket to the host's publisher and caller, and back.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "core/common/rpc/stream/callback_caller.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "rpc/profile/profile.rpc.h"
#include "tests/served_host.h"
#include "tests/stream_peer.h"

namespace varnic {
namespace {

using FileStream = CallbackStream<rpc::CanAccessFile>;
using NetworkStream = EventStream<rpc::NetworkChanged>;
using Stream = std::unique_ptr<StreamPeer::Stream>;

// The answer of a client to `question`.
rpc::CanAccessFile Answer(const rpc::CanAccessFile& question, bool allow) {
  rpc::CanAccessFile answer;
  *answer.mutable_profile_id() = question.profile_id();
  answer.set_call_id(question.call_id());
  answer.mutable_response()->set_allow(allow);
  return answer;
}

template <class T>
T Parse(const std::string& bytes) {
  T message;
  EXPECT_TRUE(message.ParseFromString(bytes));
  return message;
}

// A host with a publisher and a caller, and one client. What the peer has sent is known to have
// arrived when a later unary call of the same connection is answered; the tests wait for the host's
// own state instead, which comes to the same.
class StreamTest : public ::testing::TestWithParam<const char*> {
 protected:
  StreamTest() : StreamTest(ServerOptions()) {}
  explicit StreamTest(const ServerOptions& options) : served_(GetParam(), options) {
    OnServer([this] {
      publisher_ = std::make_unique<EventPublisher<rpc::NetworkChanged>>();
      caller_ = std::make_unique<CallbackCaller<rpc::CanAccessFile>>(served_.server().scheduler());
    });
    peer_ = std::make_unique<StreamPeer>(served_.address());
  }
  ~StreamTest() override {
    // Only a publisher takes streams that end out of sets that they share; and the caller's last
    // calls end through the server's scheduler.
    peer_ = nullptr;
    WaitForOpenStreams(0);
    OnServer([this] {
      caller_ = nullptr;
      publisher_ = nullptr;
    });
    served_.Stop();
    EXPECT_TRUE(NetworkStream::stream_map_.empty());
    EXPECT_TRUE(FileStream::stream_map_.empty());
  }

  void OnServer(const std::function<void()>& task) { served_.RunOnServer(task); }

  // Asks on the RPC thread, again and again, until it holds; meanwhile the clients do what is to be
  // done.
  void WaitUntil(const std::function<bool()>& holds, StreamPeer* other = nullptr) {
    bool held = false;
    while (!held) {
      if (peer_ != nullptr) peer_->Pump();
      if (other != nullptr) other->Pump();
      OnServer([&] { held = holds(); });
    }
  }
  void WaitForSubscribers(const std::string& key, std::size_t count, StreamPeer* other = nullptr) {
    WaitUntil(
        [&] {
          const ProfileId probe = MakeProfileId(key);
          const auto entry = NetworkStream::stream_map_.find(&probe);
          return (entry == NetworkStream::stream_map_.end() ? 0 : entry->second.size()) == count;
        },
        other);
  }
  void WaitForAnswerer(const std::string& key, bool is_there) {
    WaitUntil([&] { return (AnswererOf(key) != nullptr) == is_there; });
  }
  static FileStream* AnswererOf(const std::string& key) {
    const ProfileId probe = MakeProfileId(key);
    const auto entry = FileStream::stream_map_.find(&probe);
    return entry == FileStream::stream_map_.end() ? nullptr : entry->second;
  }
  void WaitForOpenStreams(std::size_t count) {
    WaitUntil([&] { return served_.server().streams().open_streams() == count; });
  }

  std::size_t Publish(const std::string& key, bool online = true) {
    std::size_t taken = 0;
    OnServer([&] {
      rpc::NetworkChanged event;
      event.set_online(online);
      taken = publisher_->Publish(MakeProfileId(key), event);
    });
    return taken;
  }

  // Asks whether `path` may be read; how it ends is recorded in `ends_`.
  void Ask(const std::string& key, const std::string& path,
           absl::Duration timeout = absl::InfiniteDuration()) {
    OnServer([&] { AskNow(key, path, timeout); });
  }
  void AskNow(const std::string& key, const std::string& path, absl::Duration timeout) {
    rpc::CanAccessFile::Request request;
    request.set_path(path);
    caller_->Call(
        MakeProfileId(key), request,
        [this](const rpc::CanAccessFile::Response& response) {
          ends_.push_back(response.allow() ? "allowed" : "refused");
        },
        [this](const absl::Status& status) {
          ends_.push_back(absl::StatusCodeToString(status.code()));
        },
        timeout);
  }
  std::vector<std::string> WaitForEnds(std::size_t count) {
    std::vector<std::string> ends;
    WaitUntil([&] {
      ends = ends_;
      return ends.size() >= count;
    });
    return ends;
  }

  Stream SubscribeToFiles(const std::string& key) {
    Stream stream = peer_->Open("OnCanAccessFile");
    stream->Send(FileAnswerer(key));
    return stream;
  }

  ServedHost served_;
  std::unique_ptr<EventPublisher<rpc::NetworkChanged>> publisher_;
  std::unique_ptr<CallbackCaller<rpc::CanAccessFile>> caller_;
  std::unique_ptr<StreamPeer> peer_;
  std::vector<std::string> ends_;  // RPC thread only.
};

INSTANTIATE_TEST_SUITE_P(Sockets, StreamTest, ::testing::Values("unix", "127.0.0.1:0"),
                         [](const auto& socket) {
                           return std::string(socket.param) == "unix" ? "Unix" : "Tcp";
                         });

TEST_P(StreamTest, EventReachesTheClientThatSubscribed) {
  const Stream stream = peer_->Open("WhenNetworkChanged");
  stream->Send(Subscription("P"));
  WaitForSubscribers("P", 1);

  EXPECT_EQ(Publish("P"), 1U);
  EXPECT_EQ(Publish("Q"), 0U);

  const auto event = Parse<rpc::NetworkChanged>(stream->Receive());
  EXPECT_TRUE(event.online());
  EXPECT_EQ(event.profile_id().value(), "P");
}

TEST_P(StreamTest, UnsubscribedClientGetsNoMoreEvents) {
  const Stream stream = peer_->Open("WhenNetworkChanged");
  stream->Send(Subscription("P"));
  stream->Send(Subscription("P", /*subscribe=*/false));
  stream->Send(Subscription("R"));
  WaitForSubscribers("R", 1);

  EXPECT_EQ(Publish("P"), 0U);
}

TEST_P(StreamTest, EventInAnEnvelopeForAClientThatAsksForOne) {
  const Stream stream = peer_->Open("WhenNetworkChanged", StreamFraming::kEnvelope);
  rpc::transport::StreamMessage subscribe;
  subscribe.set_payload(Subscription("P"));
  stream->Send(subscribe.SerializeAsString());
  WaitForSubscribers("P", 1);

  Publish("P");

  const auto envelope = Parse<rpc::transport::StreamMessage>(stream->Receive());
  EXPECT_TRUE(Parse<rpc::NetworkChanged>(envelope.payload()).online());
}

TEST_P(StreamTest, QuestionIsAnswered) {
  const Stream stream = SubscribeToFiles("P");
  WaitForAnswerer("P", true);

  Ask("P", "/etc/motd");
  const auto question = Parse<rpc::CanAccessFile>(stream->Receive());
  EXPECT_EQ(question.request().path(), "/etc/motd");
  EXPECT_EQ(question.profile_id().value(), "P");
  EXPECT_NE(question.call_id(), 0);
  stream->Send(Answer(question, true).SerializeAsString());

  EXPECT_EQ(WaitForEnds(1), std::vector<std::string>{"allowed"});
}

TEST_P(StreamTest, QuestionAndAnswerInEnvelopes) {
  const Stream stream = peer_->Open("OnCanAccessFile", StreamFraming::kEnvelope);
  rpc::transport::StreamMessage message;
  message.set_payload(FileAnswerer("P"));
  stream->Send(message.SerializeAsString());
  WaitForAnswerer("P", true);

  Ask("P", "/etc/motd");
  const auto envelope = Parse<rpc::transport::StreamMessage>(stream->Receive());
  const auto question = Parse<rpc::CanAccessFile>(envelope.payload());
  EXPECT_EQ(question.request().path(), "/etc/motd");
  message.set_payload(Answer(question, false).SerializeAsString());
  message.set_call_id(envelope.call_id());
  stream->Send(message.SerializeAsString());

  EXPECT_EQ(WaitForEnds(1), std::vector<std::string>{"refused"});
}

TEST_P(StreamTest, ErrorOfTheClientFailsItsQuestion) {
  const Stream stream = SubscribeToFiles("P");
  WaitForAnswerer("P", true);

  Ask("P", "/etc/motd");
  auto error = Answer(Parse<rpc::CanAccessFile>(stream->Receive()), true);
  error.set_error("no such page");
  stream->Send(error.SerializeAsString());

  EXPECT_EQ(WaitForEnds(1), std::vector<std::string>{"ABORTED"});
}

TEST_P(StreamTest, ErrorTextInAnEnvelopeThatIsNotMarkedFailsItsQuestion) {
  const Stream stream = peer_->Open("OnCanAccessFile", StreamFraming::kEnvelope);
  rpc::transport::StreamMessage message;
  message.set_payload(FileAnswerer("P"));
  stream->Send(message.SerializeAsString());
  WaitForAnswerer("P", true);

  Ask("P", "/etc/motd");
  message.set_call_id(Parse<rpc::transport::StreamMessage>(stream->Receive()).call_id());
  rpc::CanAccessFile error;
  *error.mutable_profile_id() = MakeProfileId("P");
  error.set_error("no such page");
  message.set_payload(error.SerializeAsString());
  stream->Send(message.SerializeAsString());

  EXPECT_EQ(WaitForEnds(1), std::vector<std::string>{"ABORTED"});
}

TEST_P(StreamTest, QuestionThatNobodyAnswersForEndsAtOnce) {
  Ask("P", "/etc/motd");

  EXPECT_EQ(WaitForEnds(1), std::vector<std::string>{"NOT_FOUND"});
}

TEST_P(StreamTest, QuestionWhoseTimeIsUpIsWithdrawn) {
  const Stream stream = SubscribeToFiles("P");
  WaitForAnswerer("P", true);

  Ask("P", "/etc/motd", absl::Milliseconds(1));
  const auto question = Parse<rpc::CanAccessFile>(stream->Receive());
  const auto withdrawal = Parse<rpc::CanAccessFile>(stream->Receive());

  EXPECT_EQ(WaitForEnds(1), std::vector<std::string>{"DEADLINE_EXCEEDED"});
  EXPECT_EQ(withdrawal.call_id(), question.call_id());
  EXPECT_EQ(withdrawal.error(), "withdrawn");
}

TEST_P(StreamTest, LastOfTwoClientsForOneProfileAnswers) {
  const Stream first = SubscribeToFiles("P");
  WaitForAnswerer("P", true);
  StreamPeer other(served_.address());
  const Stream second = other.Open("OnCanAccessFile");
  const FileStream* before = nullptr;
  OnServer([&] { before = AnswererOf("P"); });
  second->Send(FileAnswerer("P"));
  other.Pump();
  WaitUntil([&] { return AnswererOf("P") != before; }, &other);

  Ask("P", "/etc/motd");

  EXPECT_EQ(Parse<rpc::CanAccessFile>(second->Receive()).request().path(), "/etc/motd");
}

TEST_P(StreamTest, HalfCloseCompletesTheStreamWithStatusOk) {
  const Stream stream = SubscribeToFiles("P");
  WaitForAnswerer("P", true);
  Ask("P", "/etc/motd");
  stream->Receive();

  stream->HalfClose();

  EXPECT_EQ(stream->Finish(), absl::OkStatus());
  EXPECT_EQ(WaitForEnds(1), std::vector<std::string>{"CANCELLED"});
  WaitForOpenStreams(0);
  WaitForAnswerer("P", false);
}

TEST_P(StreamTest, ResetCompletesTheStream) {
  const Stream stream = SubscribeToFiles("P");
  WaitForAnswerer("P", true);

  stream->Reset();
  peer_->Pump();

  WaitForOpenStreams(0);
  WaitForAnswerer("P", false);
}

TEST_P(StreamTest, LossOfTheConnectionCompletesItsStreams) {
  const Stream files = SubscribeToFiles("P");
  const Stream network = peer_->Open("WhenNetworkChanged");
  network->Send(Subscription("P"));
  WaitForSubscribers("P", 1);
  WaitForAnswerer("P", true);
  Ask("P", "/etc/motd");

  peer_->Disconnect();

  EXPECT_EQ(WaitForEnds(1), std::vector<std::string>{"CANCELLED"});
  WaitForOpenStreams(0);
  WaitForSubscribers("P", 0);
}

TEST_P(StreamTest, SharedKeyIsLeftByTheStreamThatEnds) {
  const Stream first = peer_->Open("WhenNetworkChanged");
  const Stream second = peer_->Open("WhenNetworkChanged");
  for (const Stream* stream : {&first, &second}) {
    (*stream)->Send(Subscription("P"));
  }
  WaitForSubscribers("P", 2);

  first->HalfClose();
  ASSERT_EQ(first->Finish(), absl::OkStatus());

  EXPECT_EQ(Publish("P"), 1U);
  EXPECT_FALSE(second->Receive().empty());
}

TEST_P(StreamTest, StreamMayEndFromInsideItsOwnCallable) {
  const Stream stream = SubscribeToFiles("P");
  WaitForAnswerer("P", true);
  OnServer([&] {
    rpc::CanAccessFile::Request request;
    caller_->Call(
        MakeProfileId("P"), request,
        [this](const rpc::CanAccessFile::Response& /*response*/) {
          ends_.push_back("allowed");
          served_.server().Drain(absl::InfiniteDuration());
        },
        [](const absl::Status& status) { ADD_FAILURE() << status; }, absl::InfiniteDuration());
  });
  stream->Send(Answer(Parse<rpc::CanAccessFile>(stream->Receive()), true).SerializeAsString());

  EXPECT_EQ(stream->Finish(), absl::UnavailableError("The host is shutting down"));
}

// How a question ends, and with it which callable runs, and inside which of the stream's
// operations.
struct QuestionEnd {
  const char* name;
  bool by_completion;  // Of the stream, which then takes nothing more.
  void (*cause)(StreamPeer::Stream& stream, const rpc::CanAccessFile& question);
};
constexpr QuestionEnd kQuestionEnds[] = {
    {"answered", /*by_completion=*/false,
     [](StreamPeer::Stream& stream, const rpc::CanAccessFile& question) {
       stream.Send(Answer(question, true).SerializeAsString());
     }},
    {"ABORTED", /*by_completion=*/false,
     [](StreamPeer::Stream& stream, const rpc::CanAccessFile& question) {
       rpc::CanAccessFile error = Answer(question, true);
       error.set_error("no such page");
       stream.Send(error.SerializeAsString());
     }},
    {"CANCELLED", /*by_completion=*/false,
     [](StreamPeer::Stream& stream, const rpc::CanAccessFile& question) {
       rpc::CanAccessFile unsubscription;
       *unsubscription.mutable_profile_id() = question.profile_id();
       unsubscription.set_subscribe(false);
       stream.Send(unsubscription.SerializeAsString());
     }},
    {"CANCELLED", /*by_completion=*/true,
     [](StreamPeer::Stream& stream, const rpc::CanAccessFile& /*question*/) {
       stream.HalfClose();
     }},
};

class StreamEndedInsideTest : public StreamTest {
 protected:
  // Asks for "P", whose question ends so; the callable that this runs calls `inside` with its
  // stream.
  Stream AskAndEnd(const QuestionEnd& end, const std::function<void(FileStream&)>& inside) {
    Stream stream = SubscribeToFiles("P");
    WaitForAnswerer("P", true);
    OnServer([&] {
      FileStream* object = AnswererOf("P");
      const auto on_end = [this, object, inside](const std::string& how) {
        ends_.push_back(how);
        inside(*object);
      };
      caller_->Call(
          MakeProfileId("P"), rpc::CanAccessFile::Request(),
          [on_end](const rpc::CanAccessFile::Response& /*response*/) { on_end("answered"); },
          [on_end](const absl::Status& status) { on_end(absl::StatusCodeToString(status.code())); },
          absl::InfiniteDuration());
    });
    end.cause(*stream, Parse<rpc::CanAccessFile>(stream->Receive()));
    return stream;
  }

  // The question has ended once, and nothing is left of the stream.
  void ExpectEnd(const QuestionEnd& end) {
    WaitForOpenStreams(0);
    OnServer([&] {
      EXPECT_EQ(ends_, std::vector<std::string>{end.name});
      ends_.clear();
      EXPECT_EQ(AnswererOf("P"), nullptr);
      EXPECT_EQ(caller_->open_calls(), 0U);
    });
  }

  static bool SendMuch(FileStream& stream) {
    rpc::transport::StreamMessage envelope;
    envelope.set_payload(std::string(100'000, 'x'));
    return stream.channel().Send(envelope);
  }
};

INSTANTIATE_TEST_SUITE_P(Sockets, StreamEndedInsideTest, ::testing::Values("unix", "127.0.0.1:0"),
                         [](const auto& socket) {
                           return std::string(socket.param) == "unix" ? "Unix" : "Tcp";
                         });

TEST_P(StreamEndedInsideTest, ACompletionInAnyCallableEndsTheStreamOnce) {
  for (const QuestionEnd& end : kQuestionEnds) {
    const Stream stream = AskAndEnd(end, [](FileStream& inside) { inside.Complete(); });

    EXPECT_EQ(stream->Finish(), absl::OkStatus());
    ExpectEnd(end);
  }
}

TEST_P(StreamEndedInsideTest, AResetInAnyCallableEndsTheStreamOnce) {
  for (const QuestionEnd& end : kQuestionEnds) {
    int sent = 0;
    const Stream stream = AskAndEnd(end, [&sent](FileStream& inside) {
      // More than may wait for a reader resets the stream.
      while (SendMuch(inside)) ++sent;
    });

    const absl::StatusCode code = stream->Finish().code();
    ExpectEnd(end);
    EXPECT_EQ(sent == 0, end.by_completion);
    EXPECT_LT(sent, 100);
    EXPECT_EQ(code,
              end.by_completion ? absl::StatusCode::kOk : absl::StatusCode::kResourceExhausted);
  }
}

TEST_P(StreamEndedInsideTest, AConnectionLostInAnyCallableEndsTheStreamOnce) {
  for (const QuestionEnd& end : kQuestionEnds) {
    std::promise<void> inside;
    std::promise<void> lost;
    {
      const Stream stream = AskAndEnd(end, [&](FileStream& object) {
        inside.set_value();
        lost.get_future().wait();
        (void)SendMuch(object);
      });
      const std::future<void> is_inside = inside.get_future();
      while (is_inside.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        peer_->Pump();
      }
      peer_->Disconnect();
    }
    lost.set_value();

    ExpectEnd(end);
    peer_ = std::make_unique<StreamPeer>(served_.address());
  }
}

TEST_P(StreamTest, MessageThatTheStreamWouldDieOfEndsOnlyItsOwnStream) {
  const Stream healthy = SubscribeToFiles("P");
  for (const std::string& bad : {std::string(), std::string("\xff\xff"), [] {
                                   rpc::CanAccessFile request;
                                   request.mutable_request();
                                   return request.SerializeAsString();
                                 }()}) {
    const Stream stream = peer_->Open("OnCanAccessFile");

    stream->Send(bad);

    EXPECT_EQ(stream->Finish().code(), absl::StatusCode::kInvalidArgument);
  }
  const Stream stream = peer_->Open("OnCanAccessFile", StreamFraming::kEnvelope);
  stream->Send("\x0a");
  EXPECT_EQ(stream->Finish().code(), absl::StatusCode::kInvalidArgument);

  WaitForAnswerer("P", true);
  Ask("P", "/etc/motd");
  EXPECT_FALSE(healthy->Receive().empty());
}

TEST_P(StreamTest, UnparseableSubscriptionEndsTheStream) {
  const Stream stream = peer_->Open("WhenNetworkChanged");

  stream->Send("\x0a\x7f");

  EXPECT_EQ(stream->Finish(),
            absl::InvalidArgumentError(
                "A message on the stream is not a serialised rpc.EventSubscription"));
}

TEST_P(StreamTest, ThousandStreamsEndWhenTheServerDrains) {
  std::vector<Stream> streams;
  for (int i = 0; i < 500; ++i) {
    streams.push_back(peer_->Open("WhenNetworkChanged"));
    streams.back()->Send(Subscription("P"));
    streams.push_back(SubscribeToFiles(std::to_string(i)));
  }
  WaitForOpenStreams(1000);

  OnServer([this] { served_.server().Drain(absl::InfiniteDuration()); });

  for (const Stream& stream : streams) {
    EXPECT_EQ(stream->Finish(), absl::UnavailableError("The host is shutting down"));
  }
}

TEST_P(StreamTest, DrainedServerStopsThoughIdleClientsStayConnected) {
  OnServer([this] { served_.server().Drain(absl::InfiniteDuration()); });

  EXPECT_TRUE(served_.WaitUntilStopped());
}

// A reader that takes nothing keeps its connection from ending.
TEST_P(StreamTest, DrainedServerStopsWhenItsPatienceIsOver) {
  const Stream stalled = SubscribeToFiles("P");
  WaitForAnswerer("P", true);
  for (int i = 0; i < 9; ++i) Ask("P", std::string(100000, 'x'));

  OnServer([this] { served_.server().Drain(absl::Milliseconds(1)); });

  EXPECT_TRUE(served_.WaitUntilStopped());
}

TEST_P(StreamTest, EventReachesAThousandSubscribers) {
  std::vector<Stream> streams;
  for (int i = 0; i < 1000; ++i) {
    streams.push_back(peer_->Open("WhenNetworkChanged"));
    streams.back()->Send(Subscription("P"));
  }
  WaitForSubscribers("P", 1000);

  EXPECT_EQ(Publish("P"), 1000U);

  for (const Stream& stream : streams) EXPECT_FALSE(stream->Receive().empty());
}

class BoundedStreamTest : public StreamTest {
 protected:
  BoundedStreamTest() : StreamTest(Options()) {}

  static ServerOptions Options() {
    ServerOptions options;
    options.streams.subscriptions.max_subscriptions = 3;
    options.streams.subscriptions.max_messages = 10;
    options.streams.subscriptions.max_bytes = 1000;
    options.streams.outbound.conflate_from_messages = 4;
    options.streams.outbound.max_messages = 16;
    return options;
  }
};

INSTANTIATE_TEST_SUITE_P(Sockets, BoundedStreamTest, ::testing::Values("unix"));

TEST_P(BoundedStreamTest, TooManySubscriptionsEndTheStream) {
  const Stream stream = peer_->Open("WhenNetworkChanged");
  for (const char* key : {"a", "b", "c", "d"}) {
    stream->Send(Subscription(key));
  }

  EXPECT_EQ(stream->Finish(),
            absl::ResourceExhaustedError("More than 3 subscriptions on one stream"));
  WaitForSubscribers("a", 0);
}

TEST_P(BoundedStreamTest, TooManySubscriptionMessagesEndTheStream) {
  const Stream stream = peer_->Open("WhenNetworkChanged");
  for (int i = 0; i < 11; ++i) {
    stream->Send(Subscription("a"));
  }

  EXPECT_EQ(stream->Finish(),
            absl::ResourceExhaustedError("More than 10 subscription messages on one stream"));
}

TEST_P(BoundedStreamTest, TooManyBytesOfSubscriptionsEndTheStream) {
  const Stream stream = peer_->Open("WhenNetworkChanged");
  const std::string key(400, 'a');
  for (int i = 0; i < 3; ++i) stream->Send(Subscription(key));

  EXPECT_EQ(stream->Finish(), absl::ResourceExhaustedError(
                                  "More than 1000 bytes of subscription messages on one stream"));
  WaitForSubscribers(key, 0);
}

TEST_P(BoundedStreamTest, BytesOfAnswersAreNotThoseOfSubscriptions) {
  const Stream stream = SubscribeToFiles("P");
  WaitForAnswerer("P", true);
  for (int i = 0; i < 3; ++i) {
    Ask("P", "/etc/motd");
    auto error = Answer(Parse<rpc::CanAccessFile>(stream->Receive()), true);
    error.set_error(std::string(1000, 'x'));
    stream->Send(error.SerializeAsString());
  }

  EXPECT_EQ(WaitForEnds(3), std::vector<std::string>(3, "ABORTED"));
}

TEST_P(BoundedStreamTest, ReaderThatStallsGetsTheNewestEventAndDelaysNobody) {
  const Stream stalled = peer_->Open("WhenNetworkChanged");
  stalled->Send(Subscription("P"));
  peer_->Pump();
  StreamPeer other(served_.address());
  const Stream reader = other.Open("WhenNetworkChanged");
  reader->Send(Subscription("P"));
  WaitForSubscribers("P", 2, &other);

  // The stalled client's loop does not run meanwhile, so its socket and its window fill up.
  constexpr int kEvents = 3000;
  for (int i = 0; i <= kEvents; ++i) {
    std::size_t taken = 0;
    OnServer([&] {
      rpc::NetworkChanged event;
      event.add_interfaces()->set_name(std::string(10000, 'x'));
      event.set_max_downlink_mbps(i);
      taken = publisher_->Publish(MakeProfileId("P"), event);
    });
    EXPECT_EQ(taken, 2U);
    EXPECT_EQ(Parse<rpc::NetworkChanged>(reader->Receive()).max_downlink_mbps(), i);
  }

  OnServer([&] { EXPECT_GT(served_.server().streams().conflated_events(), 0U); });
  double newest = -1;
  int received = 0;
  while (newest < kEvents) {
    newest = Parse<rpc::NetworkChanged>(stalled->Receive()).max_downlink_mbps();
    ++received;
  }
  EXPECT_LT(received, kEvents);
}

TEST_P(BoundedStreamTest, ReaderThatLeavesQuestionsUnreadLosesItsStream) {
  const Stream stalled = SubscribeToFiles("P");
  WaitForAnswerer("P", true);

  std::size_t open = 1;
  while (open == 1) {
    Ask("P", std::string(100000, 'x'));
    OnServer([&] { open = served_.server().streams().open_streams(); });
  }

  EXPECT_EQ(stalled->Finish().code(), absl::StatusCode::kResourceExhausted);
  OnServer([&] {
    EXPECT_EQ(served_.server().streams().slow_readers(), 1U);
    for (const std::string& end : ends_)
      EXPECT_TRUE(end == "CANCELLED" || end == "UNAVAILABLE" || end == "NOT_FOUND") << end;
    EXPECT_EQ(caller_->open_calls(), 0U);
  });
}

}  // namespace
}  // namespace varnic
