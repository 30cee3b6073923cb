#include "core/net/grpc_server_connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/time/clock.h"
#include "core/net/testing/fake_byte_stream.h"
#include "core/net/testing/raw_http2_peer.h"

namespace varnic::net {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using testing::FakePeer;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using testing::RawHttp2Peer;
using ::testing::StartsWith;

std::string Framed(std::string_view message, bool compressed = false) {
  const MessagePrefix prefix = MakeMessagePrefix(static_cast<uint32_t>(message.size()), compressed);
  return std::string(prefix.data(), prefix.size()).append(message);
}

// One call, as a service would hold it: writes down what it hears, and does what a test says.
class TestCall : public GrpcServerCall::Visitor {
 public:
  TestCall(std::vector<std::string>& events, GrpcServerCall& call) : events_(events), call_(&call) {
    call.Accept(*this);
  }

  // Null once the call has ended.
  GrpcServerCall* get() { return call_; }
  void Finish(const absl::Status& status) {
    if (call_ != nullptr) std::exchange(call_, nullptr)->Finish(status);
  }
  // Runs inside every callback.
  void OnEvent(std::function<void(const std::string&)> action) { action_ = std::move(action); }

 private:
  void OnMessage(std::string_view message) override { Note("message " + std::string(message)); }
  void OnHalfClose() override { Note("half-close"); }
  void OnCancelled() override {
    call_ = nullptr;
    Note("cancelled");
  }
  void Note(const std::string& event) {
    events_.push_back(event);
    if (action_) action_(event);
  }

  std::vector<std::string>& events_;
  GrpcServerCall* call_;
  std::function<void(const std::string&)> action_;
};

// A server's connection; the client is the test, which speaks HTTP/2 through `client_`.
class GrpcServerCallTest : public ::testing::Test, private GrpcServerConnection::Visitor {
 protected:
  explicit GrpcServerCallTest(std::size_t max_unfinished_bytes = 16 << 20) {
    options_.max_message_bytes = 1000;
    options_.max_unfinished_bytes = max_unfinished_bytes;
    GrpcServerConnection::Visitor& visitor = *this;
    connection_ =
        std::make_unique<GrpcServerConnection>(loop_, peer_.MakeStream(), options_, visitor);
  }

  static RawHttp2Peer::Fields Head(const RawHttp2Peer::Fields& more = {}) {
    RawHttp2Peer::Fields fields = {
        {":method", "POST"},    {":scheme", "http"}, {":path", "/rpc.Profile/Path"},
        {":authority", "test"}, {"te", "trailers"},  {"content-type", "application/grpc"}};
    for (const auto& field : more) {
      const auto same = std::find_if(fields.begin(), fields.end(),
                                     [&](const auto& old) { return old.first == field.first; });
      if (same != fields.end()) {
        same->second = field.second;
      } else {
        fields.push_back(field);
      }
    }
    return fields;
  }

  void Exchange() {
    for (bool moved = true; moved;) {
      const std::string up = client_.Take();
      peer_.Send(up);
      loop_.RunPending();
      const std::string down = peer_.Take();
      client_.Receive(down);
      moved = !up.empty() || !down.empty();
    }
  }

  // Starts a call that the service accepts.
  StreamId Start(const RawHttp2Peer::Fields& more = {}) {
    const StreamId id = client_.Request(Head(more));
    Exchange();
    return id;
  }

  void RunUntilEvent(const std::string& event) {
    EXPECT_TRUE(
        loop_.RunUntil([&] { return std::count(events_.begin(), events_.end(), event) > 0; }));
    Exchange();
  }

  // The last header block that the client got.
  std::string Answer() const {
    for (auto event = client_.events().rbegin(); event != client_.events().rend(); ++event) {
      if (event->rfind("HEADERS", 0) == 0) return *event;
    }
    return "none";
  }

  EventLoop loop_;
  FakePeer peer_;
  RawHttp2Peer client_{RawHttp2Peer::Role::kClient};
  GrpcServerOptions options_;
  // "call PATH", "message TEXT", "half-close", "cancelled", "connection closed".
  std::vector<std::string> events_;
  std::vector<std::unique_ptr<TestCall>> calls_;
  std::function<void(TestCall&)> on_call_;
  absl::Status refusal_;  // What calls are refused with, unless OK.
  absl::Time deadline_;
  std::unique_ptr<GrpcServerConnection> connection_;  // Last: calls into the rest.

 private:
  void OnCall(GrpcServerCall& call, const GrpcRequestHead& head) override {
    events_.push_back("call " + std::string(head.path));
    deadline_ = call.deadline();
    if (!refusal_.ok()) return call.Finish(refusal_);
    calls_.push_back(std::make_unique<TestCall>(events_, call));
    if (on_call_) on_call_(*calls_.back());
  }
  void OnConnectionClosed(GrpcServerConnection&, const absl::Status&) override {
    events_.push_back("connection closed");
    connection_ = nullptr;
  }
};

constexpr const char* kOk = " :status=200 content-type=application/grpc";

TEST_F(GrpcServerCallTest, AUnaryCallIsAnswered) {
  const StreamId id = Start();
  client_.Data(id, Framed("question"), /*end=*/true);
  Exchange();
  calls_[0]->get()->Send(Framed("answer"));
  calls_[0]->Finish(absl::OkStatus());
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "message question", "half-close"));
  EXPECT_THAT(client_.events(),
              ElementsAre(absl::StrCat("HEADERS 1", kOk), "DATA 1 " + Framed("answer"),
                          "HEADERS 1 grpc-status=0", "END 1"));
  EXPECT_EQ(deadline_, absl::InfiniteFuture());
}

TEST_F(GrpcServerCallTest, MessagesOfAStreamGoBothWaysWhileItLasts) {
  on_call_ = [](TestCall& call) {
    call.OnEvent([&call](const std::string& event) {
      if (event == "half-close") return call.Finish(absl::OkStatus());
      call.get()->Send(Framed("echo " + event));
    });
  };
  const StreamId id = Start();
  for (const char* message : {"a", "b", "c"}) {
    client_.Data(id, Framed(message));
    Exchange();
  }
  client_.Data(id, "", /*end=*/true);
  Exchange();

  EXPECT_EQ(client_.body(id),
            Framed("echo message a") + Framed("echo message b") + Framed("echo message c"));
  EXPECT_EQ(client_.events().back(), "END 1");
}

TEST_F(GrpcServerCallTest, AFailureWithoutAMessageIsOneHeaderBlock) {
  const StreamId id = Start();
  client_.Data(id, "", /*end=*/true);
  Exchange();
  calls_[0]->Finish(absl::NotFoundError("no such profile"));
  Exchange();

  EXPECT_THAT(
      client_.events(),
      ElementsAre(absl::StrCat("HEADERS 1", kOk, " grpc-status=5 grpc-message=no such profile"),
                  "END 1"));
}

TEST_F(GrpcServerCallTest, TheStatusTextIsPercentEncoded) {
  Start();
  calls_[0]->Finish(absl::UnknownError("100 %\nüber "));
  Exchange();

  EXPECT_THAT(Answer(), EndsWith("grpc-status=2 grpc-message=100 %25%0A%C3%BCber%20"));
}

TEST_F(GrpcServerCallTest, AStatusTextOfAnySizeReachesTheClient) {
  Start();
  calls_[0]->Finish(absl::UnknownError(std::string(100'000, '\n')));
  Exchange();

  EXPECT_THAT(Answer(), HasSubstr("grpc-status=2 grpc-message=%0A%0A"));
  EXPECT_LT(Answer().size(), 8192u);
}

TEST_F(GrpcServerCallTest, ARefusedCallIsAnsweredBeforeItsEndAndReleased) {
  refusal_ = absl::UnimplementedError("nobody serves it");
  const StreamId id = Start();
  client_.Data(id, Framed("the rest of the request"));
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path"));
  EXPECT_THAT(
      client_.events(),
      ElementsAre(HasSubstr("grpc-status=12 grpc-message=nobody serves it"), "END 1", "RESET 1 0"));
}

TEST_F(GrpcServerCallTest, AnAnswerInTheMiddleOfTheRequestEndsTheCall) {
  on_call_ = [](TestCall& call) {
    call.OnEvent([&call](const std::string&) { call.Finish(absl::AbortedError("enough")); });
  };
  const StreamId id = Start();
  client_.Data(id, Framed("first") + Framed("second") + Framed("third"));
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "message first"));
  EXPECT_THAT(Answer(), HasSubstr("grpc-status=10"));
  EXPECT_EQ(client_.events().back(), "RESET 1 0");
}

TEST_F(GrpcServerCallTest, WhatIsNoPostIsAnsweredWith405) {
  client_.Request(Head({{":method", "GET"}, {"grpc-timeout", "malformed"}}), /*end=*/true);
  Exchange();

  EXPECT_THAT(client_.events(), ElementsAre("HEADERS 1 :status=405", "END 1"));
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(GrpcServerCallTest, AnotherContentTypeIsAnsweredWith415AndTheBodyIgnored) {
  const StreamId id = client_.Request(Head({{"content-type", "application/json"}}));
  client_.Data(id, "{}");
  Exchange();

  EXPECT_THAT(client_.events(), ElementsAre("HEADERS 1 :status=415", "END 1", "RESET 1 0"));
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(GrpcServerCallTest, AMalformedTimeoutFailsTheCall) {
  Start({{"grpc-timeout", "soon"}});

  EXPECT_THAT(Answer(), HasSubstr("grpc-status=13 grpc-message=Malformed grpc-timeout: soon"));
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(GrpcServerCallTest, AMessageThatIsTooLongIsResourceExhausted) {
  const StreamId id = Start();
  client_.Data(id, Framed(std::string(1000, 'x')));
  client_.Data(id, Framed(std::string(1001, 'x')));
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "message " + std::string(1000, 'x'),
                                   "cancelled"));
  EXPECT_THAT(Answer(), AllOf(HasSubstr("grpc-status=8"), HasSubstr("1001 vs. 1000")));
}

TEST_F(GrpcServerCallTest, ARequestWithTooManyHeadersIsResourceExhausted) {
  Start({{"large", std::string(20'000, 'x')}});

  EXPECT_THAT(client_.events(),
              ElementsAre(StartsWith(absl::StrCat("HEADERS 1", kOk, " grpc-status=8")), "END 1",
                          "RESET 1 0"));
  EXPECT_THAT(Answer(), HasSubstr("more than 16384 bytes of header fields"));
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(GrpcServerCallTest, TooManyTrailersOfTheClientEndTheCallWithResourceExhausted) {
  const StreamId id = Start();
  client_.Trailers(id, {{"large", std::string(20'000, 'x')}});
  Exchange();

  EXPECT_THAT(Answer(), HasSubstr("grpc-status=8"));
  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "cancelled"));
}

TEST_F(GrpcServerCallTest, ACompressedMessageIsUnimplementedAndTheAnswerNamesWhatIsNot) {
  const StreamId id = Start({{"grpc-encoding", "gzip"}});
  client_.Data(id, Framed("plain") + Framed("squeezed", /*compressed=*/true));
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "message plain", "cancelled"));
  EXPECT_THAT(client_.events(), Contains(HasSubstr("grpc-accept-encoding=identity")));
  EXPECT_THAT(Answer(), HasSubstr("grpc-status=12"));
}

TEST_F(GrpcServerCallTest, MetadataThatLeavesNoRoomForATextIsSentWithout) {
  Start();
  HeaderList headers;
  headers.Add("x-large", std::string(7'000, 'x'));
  const Metadata large = Metadata::FromHeaders(headers);

  calls_[0]->get()->Finish(absl::UnknownError(std::string(100'000, '\n')), large);
  Exchange();

  EXPECT_THAT(Answer(), AllOf(HasSubstr("grpc-status=2"), HasSubstr("x-large=xxx"),
                              Not(HasSubstr("grpc-message"))));
}

TEST_F(GrpcServerCallTest, MetadataStandsInHeadersAndTrailers) {
  const StreamId id = Start();
  client_.Data(id, "", /*end=*/true);
  Exchange();
  Metadata initial;
  Metadata trailing;
  ASSERT_TRUE(initial.Add("x-first", "1").ok() && trailing.Add("x-last-bin", "\x01").ok());

  calls_[0]->get()->SendHeaders(initial);
  calls_[0]->get()->Finish(absl::OkStatus(), trailing);
  Exchange();

  EXPECT_THAT(client_.events(), ElementsAre(absl::StrCat("HEADERS 1", kOk, " x-first=1"),
                                            "HEADERS 1 grpc-status=0 x-last-bin=AQ", "END 1"));
}

TEST_F(GrpcServerCallTest, ACompressedMessageWithoutAnEncodingIsAnInternalError) {
  const StreamId id = Start();
  client_.Data(id, Framed("squeezed", /*compressed=*/true));
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "cancelled"));
  EXPECT_THAT(Answer(), HasSubstr("grpc-status=13"));
}

TEST_F(GrpcServerCallTest, HalfAMessageAtTheEndIsAnInternalError) {
  const StreamId id = Start();
  client_.Data(id, Framed("question").substr(0, 7), /*end=*/true);
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "cancelled"));
  EXPECT_THAT(Answer(), HasSubstr("grpc-status=13"));
}

TEST_F(GrpcServerCallTest, TheClientsResetCancelsTheCallOnce) {
  const StreamId id = Start();
  client_.Data(id, Framed("question").substr(0, 7));
  client_.Reset(id, 8);
  Exchange();
  peer_.Break();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "cancelled", "connection closed"));
}

TEST_F(GrpcServerCallTest, AResetAfterTheAnswerIsNotTold) {
  const StreamId id = Start();
  calls_[0]->Finish(absl::OkStatus());
  client_.Reset(id, 8);
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path"));
}

TEST_F(GrpcServerCallTest, AnAnswerAfterTheConnectionIsLostIsNoCallAnyMore) {
  Start();
  Start();
  peer_.Break();
  for (const auto& call : calls_) EXPECT_EQ(call->get(), nullptr);
  loop_.RunPending();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "call /rpc.Profile/Path", "cancelled",
                                   "cancelled", "connection closed"));
}

TEST_F(GrpcServerCallTest, CallsMayFinishOthersWhenTheConnectionIsLost) {
  Start();
  Start();
  for (const auto& call : calls_) {
    call->OnEvent([&](const std::string&) {
      for (const auto& other : calls_) other->Finish(absl::AbortedError("the other is gone"));
    });
  }

  peer_.Break();

  EXPECT_EQ(std::count(events_.begin(), events_.end(), "cancelled"), 1);
  EXPECT_EQ(events_.back(), "connection closed");
}

TEST_F(GrpcServerCallTest, DestroyingTheConnectionCancelsOpenCalls) {
  Start({{"grpc-timeout", "1H"}});
  calls_[0]->get()->Send(Framed("never sent"));

  connection_ = nullptr;
  loop_.RunPending();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "cancelled"));
}

TEST_F(GrpcServerCallTest, ADeadlineThatPassesEndsTheCallOnce) {
  const StreamId id = Start({{"grpc-timeout", "1m"}});
  RunUntilEvent("cancelled");
  client_.Data(id, Framed("late"), /*end=*/true);
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "cancelled"));
  EXPECT_THAT(client_.events(), ElementsAre(HasSubstr("grpc-status=4"), "END 1", "RESET 1 0"));
  EXPECT_LE(deadline_, absl::Now());
}

TEST_F(GrpcServerCallTest, ADeadlineBehindMessagesEndsTheStreamWithTrailers) {
  on_call_ = [](TestCall& call) { call.get()->Send(Framed("first")); };
  Start({{"grpc-timeout", "1m"}});
  RunUntilEvent("cancelled");

  EXPECT_THAT(client_.events(),
              ElementsAre(absl::StrCat("HEADERS 1", kOk), "DATA 1 " + Framed("first"),
                          StartsWith("HEADERS 1 grpc-status=4"), "END 1", "RESET 1 0"));
}

TEST_F(GrpcServerCallTest, AnAnswerAndADeadlineInTheSameTurnGiveOneStatus) {
  for (int i = 0; i < 20; ++i) {
    // The timer is due already when the answer is posted behind or before it.
    on_call_ = [this](TestCall& call) { loop_.Post([&call] { call.Finish(absl::OkStatus()); }); };
    const StreamId id = Start({{"grpc-timeout", "1n"}});
    Exchange();

    const std::string start = absl::StrCat("HEADERS ", id, " ");
    EXPECT_EQ(std::count_if(client_.events().begin(), client_.events().end(),
                            [&](const std::string& event) { return event.rfind(start, 0) == 0; }),
              1);
    EXPECT_THAT(Answer(), ::testing::AnyOf(HasSubstr("grpc-status=0"), HasSubstr("grpc-status=4")));
  }
}

TEST_F(GrpcServerCallTest, AnAnswerInTimeSilencesTheDeadline) {
  Start({{"grpc-timeout", "2m"}});
  calls_[0]->Finish(absl::OkStatus());
  Exchange();
  Timer later(loop_);
  bool passed = false;
  later.Start(absl::Milliseconds(5), [&] { passed = true; });
  EXPECT_TRUE(loop_.RunUntil([&] { return passed; }));
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path"));
  EXPECT_THAT(Answer(), HasSubstr("grpc-status=0"));
}

TEST_F(GrpcServerCallTest, TheLongestTimeoutIsNoDeadlineThatPasses) {
  Start({{"grpc-timeout", "99999999H"}});
  Exchange();

  EXPECT_NE(calls_[0]->get(), nullptr);
  EXPECT_GT(deadline_, absl::Now() + absl::Hours(24 * 365));
}

TEST_F(GrpcServerCallTest, TheClientsTrailersEndItsMessages) {
  const StreamId id = Start();
  client_.Data(id, Framed("question"));
  client_.Trailers(id, {{"x-ignored", "yes"}});
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "message question", "half-close"));
}

TEST_F(GrpcServerCallTest, InputSplitAtEveryByteGivesTheSameCall) {
  const StreamId id = client_.Request(Head());
  client_.Data(id, Framed("one") + Framed("two"), /*end=*/true);

  peer_.SendInPieces(client_.Take(), 1);

  EXPECT_THAT(events_,
              ElementsAre("call /rpc.Profile/Path", "message one", "message two", "half-close"));
}

TEST_F(GrpcServerCallTest, AStreamThatEndsDoesNotDisturbAnother) {
  const StreamId first = Start();
  const StreamId second = Start();
  client_.Reset(first, 8);
  client_.Data(second, Framed("still here"), /*end=*/true);
  Exchange();
  calls_[1]->Finish(absl::OkStatus());
  Exchange();

  EXPECT_THAT(client_.events(), ElementsAre(HasSubstr("HEADERS 3"), "END 3"));
  EXPECT_THAT(client_.events(), Not(Contains(HasSubstr(" 1 "))));
}

class UnfinishedMessageTest : public GrpcServerCallTest {
 protected:
  explicit UnfinishedMessageTest(std::size_t max_unfinished_bytes = 2500)
      : GrpcServerCallTest(max_unfinished_bytes) {}

  // A call with so much of a message of 1,000 bytes.
  StreamId StartHalf(std::size_t size, const RawHttp2Peer::Fields& more = {}) {
    const StreamId id = Start(more);
    client_.Data(id, Framed(std::string(1000, 'x')).substr(0, sizeof(MessagePrefix) + size));
    Exchange();
    return id;
  }
};

TEST_F(UnfinishedMessageTest, CallThatGoesPastTheLimitEndsAndOthersGoOn) {
  const StreamId first = StartHalf(990);
  StartHalf(990);

  StartHalf(600);
  EXPECT_THAT(Answer(), AllOf(HasSubstr("HEADERS 5"), HasSubstr("grpc-status=8"),
                              HasSubstr("More than 2500 bytes of unfinished messages")));
  client_.Data(first, std::string(10, 'x'), /*end=*/true);
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "call /rpc.Profile/Path",
                                   "call /rpc.Profile/Path", "cancelled",
                                   "message " + std::string(1000, 'x'), "half-close"));
  EXPECT_EQ(connection_->unfinished_bytes(), 990u);
}

TEST_F(UnfinishedMessageTest, NothingIsLeftOfACallHoweverItEnds) {
  client_.Reset(StartHalf(900), 8);
  Exchange();
  EXPECT_EQ(connection_->unfinished_bytes(), 0u);

  StartHalf(900);
  EXPECT_EQ(connection_->unfinished_bytes(), 900u);
  calls_.back()->Finish(absl::OkStatus());
  EXPECT_EQ(connection_->unfinished_bytes(), 0u);

  StartHalf(900);
  calls_.back()->get()->Reset(Http2Error::kCancel);
  EXPECT_EQ(connection_->unfinished_bytes(), 0u);

  client_.Data(StartHalf(900), "", /*end=*/true);
  Exchange();
  EXPECT_THAT(Answer(), HasSubstr("grpc-status=13"));
  EXPECT_EQ(connection_->unfinished_bytes(), 0u);

  StartHalf(900, {{"grpc-timeout", "1m"}});
  EXPECT_TRUE(loop_.RunUntil([&] { return calls_.back()->get() == nullptr; }));
  EXPECT_EQ(connection_->unfinished_bytes(), 0u);
}

TEST_F(UnfinishedMessageTest, WhatComesForACallThatHasEndedIsNotKept) {
  on_call_ = [](TestCall& call) {
    call.OnEvent([&call](const std::string&) { call.Finish(absl::OkStatus()); });
  };
  const StreamId id = Start();
  client_.Data(id, Framed("the only one") + Framed(std::string(1000, 'x')).substr(0, 500));
  client_.Data(id, std::string(100, 'x'));
  Exchange();

  EXPECT_EQ(connection_->unfinished_bytes(), 0u);
  EXPECT_THAT(Answer(), HasSubstr("grpc-status=0"));
}

TEST_F(UnfinishedMessageTest, ConnectionIsLostInTheMiddleOfMessages) {
  StartHalf(900);
  StartHalf(900);

  peer_.Break();

  EXPECT_EQ(std::count(events_.begin(), events_.end(), "cancelled"), 2);
}

class TinyUnfinishedMessageTest : public UnfinishedMessageTest {
 protected:
  TinyUnfinishedMessageTest() : UnfinishedMessageTest(10) {}
};

TEST_F(TinyUnfinishedMessageTest, OneMessageOfTheLargestSizeIsAlwaysPossible) {
  const StreamId id = StartHalf(990);
  client_.Data(id, std::string(10, 'x'), /*end=*/true);
  Exchange();

  EXPECT_THAT(events_, ElementsAre("call /rpc.Profile/Path", "message " + std::string(1000, 'x'),
                                   "half-close"));
}

}  // namespace
}  // namespace varnic::net
