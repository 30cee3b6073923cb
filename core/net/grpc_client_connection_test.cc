#include "core/net/grpc_client_connection.h"

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
#include "core/net/testing/fake_byte_stream.h"
#include "core/net/testing/fake_clock.h"
#include "core/net/testing/raw_http2_peer.h"

namespace varnic::net {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using testing::FakePeer;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using testing::RawHttp2Peer;
using ::testing::StartsWith;

const RawHttp2Peer::Fields kAnswer = {{":status", "200"}, {"content-type", "application/grpc"}};

std::string Framed(std::string_view message, bool compressed = false) {
  const MessagePrefix prefix = MakeMessagePrefix(static_cast<uint32_t>(message.size()), compressed);
  return std::string(prefix.data(), prefix.size()).append(message);
}

// A client's connection; the server is the test, which speaks HTTP/2 through `server_`.
class GrpcClientCallTest : public ::testing::Test, private GrpcClientConnection::Visitor {
 protected:
  GrpcClientCallTest() {
    options_.max_message_bytes = 1000;
    GrpcClientConnection::Visitor& visitor = *this;
    connection_ = std::make_unique<GrpcClientConnection>(loop_, peer_.MakeStream(), "test.host",
                                                         options_, visitor);
  }

  void Exchange() {
    for (bool moved = true; moved;) {
      loop_.RunPending();
      const std::string up = peer_.Take();
      server_.Receive(up);
      const std::string down = server_.Take();
      peer_.Send(down);
      moved = !up.empty() || !down.empty();
    }
  }

  class Visitor : public GrpcClientCall::Visitor {
   public:
    explicit Visitor(GrpcClientCallTest& test) : test_(test) {}
    std::function<void()> on_done;
    std::function<void()> on_message;

   private:
    void OnMessage(std::string_view message) override {
      test_.events_.push_back("message " + std::string(message));
      if (on_message) on_message();
    }
    void OnDone(const absl::Status& status) override {
      test_.events_.push_back("done " + status.ToString());
      test_.call_ = nullptr;
      if (on_done) on_done();
    }

    GrpcClientCallTest& test_;
  };

  // Starts a unary call, which gets as far as the server.
  void Start(absl::Duration timeout = absl::InfiniteDuration()) {
    call_ = connection_->StartCall("/rpc.Profile/Path", timeout, visitor_);
    ASSERT_NE(call_, nullptr);
    call_->Send(Framed("question"), /*half_close=*/true);
    Exchange();
  }

  // What a call ends with whose server answers with one header block and no more.
  std::string ResultOf(const RawHttp2Peer::Fields& fields) {
    events_.clear();
    Start();
    server_.Respond(next_id_, fields, /*end=*/true);
    next_id_ += 2;
    Exchange();
    return events_.size() == 1 ? events_[0] : absl::StrCat(events_.size(), " events");
  }

  EventLoop loop_;
  FakePeer peer_;
  RawHttp2Peer server_{RawHttp2Peer::Role::kServer};
  GrpcClientOptions options_;
  // "message TEXT", "done STATUS", "goaway", "connection closed: STATUS".
  std::vector<std::string> events_;
  Visitor visitor_{*this};
  GrpcClientCall* call_ = nullptr;  // While it has not ended.
  int32_t next_id_ = 1;
  std::unique_ptr<GrpcClientConnection> connection_;  // Last: calls into the rest.

 private:
  void OnGoaway(GrpcClientConnection&) override { events_.push_back("goaway"); }
  void OnConnectionClosed(GrpcClientConnection&, const absl::Status& status) override {
    events_.push_back("connection closed: " + status.ToString());
    connection_ = nullptr;
  }
};

TEST_F(GrpcClientCallTest, AUnaryCallIsMadeAndItsAnswerTold) {
  Start();
  server_.Respond(1, kAnswer);
  server_.Data(1, Framed("answer"));
  server_.Trailers(1, {{"grpc-status", "0"}});
  Exchange();

  EXPECT_THAT(server_.events(),
              ElementsAre("HEADERS 1 :method=POST :scheme=http :path=/rpc.Profile/Path "
                          ":authority=test.host te=trailers content-type=application/grpc",
                          "DATA 1 " + Framed("question"), "END 1"));
  EXPECT_THAT(events_, ElementsAre("message answer", "done OK"));
}

TEST_F(GrpcClientCallTest, TheTimeoutIsToldToTheServer) {
  Start(absl::Milliseconds(250));

  ASSERT_FALSE(server_.events().empty());
  EXPECT_THAT(server_.events()[0], HasSubstr(" grpc-timeout="));
}

// Hears of a call's headers, and of an empty queue, besides the rest.
class HeadersVisitor : public GrpcClientCall::Visitor {
 public:
  std::vector<std::string> events;

 private:
  void OnHeaders() override { events.push_back("headers"); }
  void OnSendQueueEmpty() override { events.push_back("sent"); }
  void OnMessage(std::string_view message) override { events.emplace_back(message); }
  void OnDone(const absl::Status& status) override {
    events.emplace_back(absl::StatusCodeToString(status.code()));
  }
};

TEST_F(GrpcClientCallTest, HeadersOfTheServerAreToldOnce) {
  HeadersVisitor visitor;
  GrpcClientCall& call = *connection_->StartCall("/stream", absl::InfiniteDuration(), visitor);
  call.Send(Framed("up"), /*half_close=*/false);
  EXPECT_EQ(call.queued_bytes(), 7U);
  Exchange();
  EXPECT_EQ(call.queued_bytes(), 0U);
  server_.Respond(1, {{":status", "103"}});
  server_.Respond(1, kAnswer);
  server_.Data(1, Framed("down"));
  server_.Trailers(1, {{"grpc-status", "0"}});
  Exchange();

  EXPECT_THAT(visitor.events, Contains("sent"));
  visitor.events.erase(std::remove(visitor.events.begin(), visitor.events.end(), "sent"),
                       visitor.events.end());
  EXPECT_THAT(visitor.events, ElementsAre("headers", "down", "OK"));
}

TEST_F(GrpcClientCallTest, CallThatFailsAtOnceHasNoHeaders) {
  HeadersVisitor visitor;
  connection_->StartCall("/stream", absl::InfiniteDuration(), visitor);
  Exchange();
  server_.Respond(1,
                  {{":status", "200"}, {"content-type", "application/grpc"}, {"grpc-status", "5"}},
                  /*end=*/true);
  Exchange();

  EXPECT_THAT(visitor.events, Not(Contains("headers")));
  EXPECT_THAT(visitor.events, Contains("NOT_FOUND"));
}

TEST_F(GrpcClientCallTest, MessagesOfAStreamGoBothWaysWhileItLasts) {
  call_ = connection_->StartCall("/stream", absl::InfiniteDuration(), visitor_);
  Exchange();
  server_.Respond(1, kAnswer);
  for (const char* message : {"a", "b"}) {
    call_->Send(Framed(message), /*half_close=*/false);
    server_.Data(1, Framed(absl::StrCat("echo ", message)));
    Exchange();
  }
  call_->Send("", /*half_close=*/true);
  Exchange();
  server_.Trailers(1, {{"grpc-status", "0"}});
  Exchange();

  EXPECT_EQ(server_.body(1), Framed("a") + Framed("b"));
  EXPECT_THAT(events_, ElementsAre("message echo a", "message echo b", "done OK"));
}

TEST_F(GrpcClientCallTest, AFailureInOneHeaderBlockIsTheStatus) {
  EXPECT_EQ(ResultOf({{":status", "200"},
                      {"content-type", "application/grpc"},
                      {"grpc-status", "5"},
                      {"grpc-message", "no such profile"}}),
            "done NOT_FOUND: no such profile");
}

TEST_F(GrpcClientCallTest, TheStatusTextIsPercentDecoded) {
  EXPECT_EQ(ResultOf({{":status", "200"},
                      {"content-type", "application/grpc"},
                      {"grpc-status", "2"},
                      {"grpc-message", "100 %25%0A%C3%BCber%20 %zz"}}),
            "done UNKNOWN: 100 %\nüber  %zz");
}

TEST_F(GrpcClientCallTest, AnHttpErrorWithoutAStatusIsMapped) {
  EXPECT_THAT(ResultOf({{":status", "404"}}),
              StartsWith("done UNIMPLEMENTED: the server answered with HTTP status 404"));
  EXPECT_THAT(ResultOf({{":status", "401"}}), StartsWith("done UNAUTHENTICATED"));
  EXPECT_THAT(ResultOf({{":status", "403"}}), StartsWith("done PERMISSION_DENIED"));
  EXPECT_THAT(ResultOf({{":status", "503"}}), StartsWith("done UNAVAILABLE"));
  EXPECT_THAT(ResultOf({{":status", "400"}}), StartsWith("done INTERNAL"));
  EXPECT_THAT(ResultOf({{":status", "431"}}), StartsWith("done INTERNAL"));
  EXPECT_THAT(ResultOf({{":status", "418"}}), StartsWith("done UNKNOWN"));
}

TEST_F(GrpcClientCallTest, AnHttpErrorWithAStatusIsThatStatus) {
  EXPECT_EQ(ResultOf({{":status", "503"},
                      {"content-type", "application/grpc"},
                      {"grpc-status", "7"},
                      {"grpc-message", "not you"}}),
            "done PERMISSION_DENIED: not you");
}

TEST_F(GrpcClientCallTest, AnswersThatAreNotGrpcAreUnknown) {
  EXPECT_THAT(ResultOf({{":status", "200"}, {"content-type", "text/html"}}),
              StartsWith("done UNKNOWN"));
  EXPECT_THAT(ResultOf({{":status", "200"}}), StartsWith("done UNKNOWN"));
}

TEST_F(GrpcClientCallTest, AnAnswerThatIsNotGrpcEndsTheCallBeforeItsBody) {
  Start();
  server_.Respond(1, {{":status", "502"}, {"content-type", "text/html"}});
  server_.Data(1, "<html>");
  Exchange();

  EXPECT_THAT(events_, ElementsAre(StartsWith("done UNAVAILABLE")));
  EXPECT_EQ(server_.events().back(), "RESET 1 8");
}

TEST_F(GrpcClientCallTest, AnAnswerWithoutTrailersIsUnknown) {
  Start();
  server_.Respond(1, kAnswer);
  server_.Data(1, Framed("answer"), /*end=*/true);
  Exchange();

  EXPECT_THAT(events_, ElementsAre("message answer", StartsWith("done UNKNOWN: the server ended")));
}

TEST_F(GrpcClientCallTest, TrailersWithoutAStatusAreUnknown) {
  Start();
  server_.Respond(1, kAnswer);
  server_.Trailers(1, {{"x-other", "1"}});
  Exchange();

  EXPECT_THAT(events_, ElementsAre(StartsWith("done UNKNOWN")));
}

TEST_F(GrpcClientCallTest, AStatusThatIsNoCodeIsUnknown) {
  EXPECT_THAT(
      ResultOf({{":status", "200"}, {"content-type", "application/grpc"}, {"grpc-status", "fine"}}),
      StartsWith("done UNKNOWN: grpc-status \"fine\""));
}

TEST_F(GrpcClientCallTest, ACompressedMessageIsAnInternalError) {
  Start();
  server_.Respond(1, kAnswer);
  server_.Data(1, Framed("squeezed", /*compressed=*/true));
  Exchange();

  EXPECT_THAT(events_, ElementsAre(StartsWith("done INTERNAL: the server sent a compressed")));
  EXPECT_EQ(server_.events().back(), "RESET 1 8");
}

TEST_F(GrpcClientCallTest, AMessageThatIsTooLongIsResourceExhausted) {
  Start();
  server_.Respond(1, kAnswer);
  server_.Data(1, Framed(std::string(1001, 'x')));
  server_.Trailers(1, {{"grpc-status", "0"}});
  Exchange();

  EXPECT_THAT(events_, ElementsAre(StartsWith("done RESOURCE_EXHAUSTED")));
}

TEST_F(GrpcClientCallTest, HalfAMessageAtTheEndIsAnInternalError) {
  Start();
  server_.Respond(1, kAnswer);
  server_.Data(1, Framed("answer").substr(0, 8));
  server_.Trailers(1, {{"grpc-status", "0"}});
  Exchange();

  EXPECT_THAT(events_, ElementsAre(StartsWith("done INTERNAL: the stream ended in the middle")));
}

TEST_F(GrpcClientCallTest, AFailureCountsMoreThanHalfAMessage) {
  Start();
  server_.Respond(1, kAnswer);
  server_.Data(1, Framed("answer").substr(0, 8));
  server_.Trailers(1, {{"grpc-status", "10"}});
  Exchange();

  EXPECT_THAT(events_, ElementsAre(StartsWith("done ABORTED")));
}

TEST_F(GrpcClientCallTest, ResetsAreMapped) {
  const std::vector<std::pair<uint32_t, std::string>> codes = {
      {0x0, "INTERNAL"},          {0x1, "INTERNAL"},    {0x2, "INTERNAL"},
      {0x7, "UNAVAILABLE"},       {0x8, "CANCELLED"},   {0xb, "RESOURCE_EXHAUSTED"},
      {0xc, "PERMISSION_DENIED"}, {0x1234, "INTERNAL"},
  };
  for (const auto& [code, status] : codes) {
    events_.clear();
    Start();
    server_.Reset(next_id_, code);
    next_id_ += 2;
    Exchange();

    EXPECT_THAT(events_, ElementsAre(StartsWith("done " + status))) << code;
  }
}

TEST_F(GrpcClientCallTest, AnAnswerBeforeTheEndOfTheRequestIsTheAnswer) {
  call_ = connection_->StartCall("/stream", absl::InfiniteDuration(), visitor_);
  call_->Send(Framed("more to come"), /*half_close=*/false);
  Exchange();
  server_.Respond(1,
                  {{":status", "200"}, {"content-type", "application/grpc"}, {"grpc-status", "12"}},
                  /*end=*/true);
  Exchange();

  EXPECT_THAT(events_, ElementsAre(StartsWith("done UNIMPLEMENTED")));
  EXPECT_EQ(server_.events().back(), "RESET 1 0");
}

TEST_F(GrpcClientCallTest, ALostConnectionIsUnavailable) {
  Start();
  Start();
  peer_.Break();

  EXPECT_THAT(events_,
              ElementsAre(StartsWith("done UNAVAILABLE"), StartsWith("done UNAVAILABLE"),
                          "connection closed: UNAVAILABLE: connection lost: the cable was cut"));
}

TEST_F(GrpcClientCallTest, ADestroyedConnectionEndsItsCalls) {
  Start();

  connection_ = nullptr;
  loop_.RunPending();

  EXPECT_THAT(events_, ElementsAre(StartsWith("done UNAVAILABLE")));
}

TEST_F(GrpcClientCallTest, NoCallCanBeStartedWhileTheConnectionEnds) {
  Start();
  bool started = true;
  visitor_.on_done = [&] {
    started = connection_->StartCall("/again", absl::InfiniteDuration(), visitor_) != nullptr;
  };

  peer_.Break();

  EXPECT_FALSE(started);
}

TEST_F(GrpcClientCallTest, ACallMayBeStartedWhenAnotherIsDone) {
  Start();
  visitor_.on_done = [&] {
    visitor_.on_done = nullptr;
    connection_->StartCall("/again", absl::InfiniteDuration(), visitor_)->Send("", true);
  };
  server_.Respond(1,
                  {{":status", "200"}, {"content-type", "application/grpc"}, {"grpc-status", "0"}},
                  /*end=*/true);
  Exchange();

  EXPECT_THAT(server_.events(), Contains(HasSubstr("HEADERS 3")));
}

TEST_F(GrpcClientCallTest, ACancelledCallIsSilentWhateverTheServerAnswers) {
  Start();
  server_.Respond(1, kAnswer);
  server_.Data(1, Framed("late"));
  server_.Trailers(1, {{"grpc-status", "0"}});
  const std::string late = server_.Take();

  call_->Cancel();
  peer_.Send(late);
  Exchange();
  peer_.Break();

  EXPECT_THAT(events_, ElementsAre(StartsWith("connection closed")));
}

TEST_F(GrpcClientCallTest, ACancelledCallIsResetAtTheServer) {
  Start();
  call_->Cancel();
  Exchange();

  EXPECT_EQ(server_.events().back(), "RESET 1 8");
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(GrpcClientCallTest, ACallCancelledBeforeItWasSentIsNeverSent) {
  Exchange();
  call_ = connection_->StartCall("/call", absl::InfiniteDuration(), visitor_);
  call_->Send(Framed("question"), /*half_close=*/true);
  call_->Cancel();
  Exchange();

  EXPECT_THAT(server_.events(), IsEmpty());
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(GrpcClientCallTest, ACallCancelledByItsOwnMessageHearsNoMore) {
  Start();
  visitor_.on_message = [&] { call_->Cancel(); };
  server_.Respond(1, kAnswer);
  server_.Data(1, Framed("one") + Framed("two"));
  server_.Trailers(1, {{"grpc-status", "0"}});
  Exchange();

  EXPECT_THAT(events_, ElementsAre("message one"));
}

TEST_F(GrpcClientCallTest, AfterGoawayOpenCallsFinishAndNewOnesAreRefused) {
  Start();
  server_.Goaway(1);
  Exchange();
  EXPECT_EQ(connection_->StartCall("/new", absl::InfiniteDuration(), visitor_), nullptr);
  server_.Respond(1,
                  {{":status", "200"}, {"content-type", "application/grpc"}, {"grpc-status", "0"}},
                  /*end=*/true);
  Exchange();
  peer_.Close();

  EXPECT_THAT(events_, ElementsAre("goaway", "done OK", "connection closed: OK"));
}

TEST_F(GrpcClientCallTest, ACallQueuedWhenGoawayComesEndsAsUnavailable) {
  Exchange();
  server_.Goaway(0);
  const std::string goaway = server_.Take();
  call_ = connection_->StartCall("/queued", absl::InfiniteDuration(), visitor_);
  call_->Send(Framed("question"), /*half_close=*/true);

  peer_.Send(goaway);
  Exchange();
  peer_.Close();

  EXPECT_THAT(events_,
              ElementsAre("goaway", StartsWith("done UNAVAILABLE"), "connection closed: OK"));
}

TEST_F(GrpcClientCallTest, AServerThatSpeaksNoHttp2EndsTheCallAndTheConnection) {
  call_ = connection_->StartCall("/call", absl::InfiniteDuration(), visitor_);
  peer_.Send("HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n");
  loop_.RunPending();
  peer_.Close();

  EXPECT_THAT(events_, ElementsAre(StartsWith("done UNAVAILABLE"),
                                   StartsWith("connection closed: INVALID_ARGUMENT")));
}

TEST_F(GrpcClientCallTest, AnAnswerSplitAtEveryByteIsTheSame) {
  Start();
  server_.Respond(1, kAnswer);
  server_.Data(1, Framed("one") + Framed("two"));
  server_.Trailers(1, {{"grpc-status", "0"}});

  peer_.SendInPieces(server_.Take(), 1);

  EXPECT_THAT(events_, ElementsAre("message one", "message two", "done OK"));
}

TEST_F(GrpcClientCallTest, AnInformationalAnswerIsSkipped) {
  Start();
  server_.Inform(1, {{":status", "103"}});
  server_.Respond(1,
                  {{":status", "200"}, {"content-type", "application/grpc"}, {"grpc-status", "0"}},
                  /*end=*/true);
  Exchange();

  EXPECT_THAT(events_, ElementsAre("done OK"));
}

// A client that is to send pings, on a connection that goes by the test's time.
class ClientKeepaliveTest : public ::testing::Test, private GrpcClientConnection::Visitor {
 protected:
  void Connect(absl::Duration keepalive_time) {
    GrpcClientOptions options;
    options.keepalive_time = keepalive_time;
    GrpcClientConnection::Visitor& visitor = *this;
    connection_ = std::make_unique<GrpcClientConnection>(loop_, peer_.MakeStream(), "test.host",
                                                         options, visitor);
    peer_.Send(server_.Take());
  }
  void StartCall() {
    GrpcClientCall* call =
        connection_->StartCall("/a.B/C", absl::InfiniteDuration(), call_visitor_);
    ASSERT_NE(call, nullptr);
    call->Send(Framed("question"), /*half_close=*/true);
  }

  // The server answers pings, if so wanted, and nothing else.
  void Wait(int seconds, bool answers) {
    for (; seconds > 0; --seconds) {
      clock_.Advance(absl::Seconds(1));
      while (loop_.RunPending() > 0) {
      }
      server_.Receive(peer_.Take());
      if (answers) peer_.Send(server_.Take());
    }
  }

  class CallVisitor : public GrpcClientCall::Visitor {
   public:
    absl::Status status;

   private:
    void OnMessage(std::string_view /*message*/) override {}
    void OnDone(const absl::Status& result) override { status = result; }
  };

  testing::FakeClock clock_;
  EventLoop loop_;
  FakePeer peer_;
  RawHttp2Peer server_{RawHttp2Peer::Role::kServer};
  CallVisitor call_visitor_;
  std::unique_ptr<GrpcClientConnection> connection_;

 private:
  void OnGoaway(GrpcClientConnection&) override {}
  void OnConnectionClosed(GrpcClientConnection&, const absl::Status&) override {
    connection_ = nullptr;
  }
};

TEST_F(ClientKeepaliveTest, ServerThatDoesNotAnswerIsGivenUp) {
  Connect(absl::Seconds(60));
  StartCall();

  Wait(59, /*answers=*/false);
  EXPECT_THAT(server_.events(), Not(Contains("PING")));
  Wait(40, /*answers=*/false);

  EXPECT_THAT(server_.events(), Contains("PING"));
  EXPECT_FALSE(peer_.open());
  EXPECT_EQ(call_visitor_.status.code(), absl::StatusCode::kUnavailable);
  EXPECT_THAT(std::string(call_visitor_.status.message()), HasSubstr("does not answer a ping"));
}

TEST_F(ClientKeepaliveTest, ServerThatAnswersIsKept) {
  Connect(absl::Seconds(60));
  StartCall();

  Wait(1000, /*answers=*/true);

  EXPECT_THAT(server_.events(), Contains("PING"));
  EXPECT_TRUE(peer_.open());
}

TEST_F(ClientKeepaliveTest, NoPingsAreSentWithoutACall) {
  Connect(absl::Seconds(60));

  Wait(1000, /*answers=*/true);

  EXPECT_THAT(server_.events(), Not(Contains("PING")));
}

TEST_F(ClientKeepaliveTest, PingsAreTenSecondsApartAtLeast) {
  Connect(absl::Seconds(1));
  StartCall();

  Wait(100, /*answers=*/true);

  EXPECT_LE(std::count(server_.events().begin(), server_.events().end(), "PING"), 10);
}

TEST_F(ClientKeepaliveTest, NoPingsAreSentByDefault) {
  Connect(GrpcClientOptions().keepalive_time);
  StartCall();

  Wait(10'000, /*answers=*/false);

  EXPECT_THAT(server_.events(), Not(Contains("PING")));
  EXPECT_TRUE(peer_.open());
}

}  // namespace
}  // namespace varnic::net
