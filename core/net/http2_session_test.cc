#include "core/net/http2_session.h"

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
#include "core/net/testing/raw_http2_peer.h"

namespace varnic::net {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::kClientPreface;
using testing::MakeFrame;
using ::testing::Not;
using testing::RawHttp2Peer;

constexpr std::size_t kEverything = 1 << 30;

using Events = std::vector<std::string>;

// A session, and everything that it says, as text.
class RecordedSession : public Http2Session::Visitor {
 public:
  explicit RecordedSession(Http2Session::Role role, const Http2Options& options = {})
      : session_(std::make_unique<Http2Session>(role, options, *this)) {}

  Http2Session& operator*() { return *session_; }
  Http2Session* operator->() { return session_.get(); }
  void Destroy() { session_ = nullptr; }

  StreamId Open(const std::string& path = "/call") {
    auto handler = std::make_unique<Handler>(*this);
    Handler* opened = handler.get();
    const StreamId id = session_->OpenStream(
        {{":method", "POST"}, {":scheme", "http"}, {":path", path}, {":authority", "test"}},
        std::move(handler));
    if (id > 0) opened->SetId(id);
    return id;
  }

  std::string Take(std::size_t limit = kEverything) {
    std::string output;
    session_->TakeOutput(limit, output);
    return output;
  }

  // Runs inside the next callback whose event begins so.
  void OnNext(std::string event, std::function<void(StreamId)> action) {
    trigger_ = std::move(event);
    action_ = std::move(action);
  }

  void RefuseStreams() { refuse_ = true; }

  // "headers 1 :status=200", "data 1 x" (adjacent ones are joined), "end 1", "closed 1 error",
  // "goaway".
  const Events& events() const { return events_; }
  // How often OnOutputPending() came.
  int announcements() const { return announcements_; }
  int handlers() const { return handlers_; }

 private:
  class Handler : public Http2Session::Handler {
   public:
    explicit Handler(RecordedSession& owner) : owner_(owner) { ++owner_.handlers_; }
    ~Handler() override { --owner_.handlers_; }
    void SetId(StreamId id) { id_ = id; }

   private:
    void OnHeaders(const HeaderList& headers) override {
      std::string fields;
      for (std::size_t i = 0; i < headers.size(); ++i) {
        if (headers[i].name == ":scheme" || headers[i].name == ":authority") continue;
        absl::StrAppend(&fields, " ", std::string(headers[i].name), "=",
                        std::string(headers[i].value));
      }
      owner_.Note(id_, "headers", fields);
    }
    void OnData(std::string_view chunk) override { owner_.NoteData(id_, chunk); }
    void OnRemoteEnd() override { owner_.Note(id_, "end", ""); }
    void OnClosed(Http2Error error) override {
      owner_.Note(id_, "closed", absl::StrCat(" ", static_cast<int32_t>(error)));
    }

    RecordedSession& owner_;
    StreamId id_ = 0;
  };

  std::unique_ptr<Http2Session::Handler> OnNewStream(StreamId stream_id) override {
    if (refuse_) return nullptr;
    auto handler = std::make_unique<Handler>(*this);
    handler->SetId(stream_id);
    return handler;
  }
  void OnGoaway() override { events_.push_back("goaway"); }
  void OnOutputPending() override { ++announcements_; }

  void Note(StreamId id, const std::string& kind, const std::string& rest) {
    events_.push_back(absl::StrCat(kind, " ", id, rest));
    if (!trigger_.empty() && events_.back().rfind(trigger_, 0) == 0) {
      trigger_.clear();
      std::exchange(action_, nullptr)(id);
    }
  }
  void NoteData(StreamId id, std::string_view chunk) {
    const std::string start = absl::StrCat("data ", id, " ");
    if (!events_.empty() && events_.back().rfind(start, 0) == 0) {
      events_.back() += chunk;
    } else {
      Note(id, "data", " " + std::string(chunk));
    }
  }

  Events events_;
  std::string trigger_;
  std::function<void(StreamId)> action_;
  int announcements_ = 0;
  int handlers_ = 0;
  bool refuse_ = false;
  std::unique_ptr<Http2Session> session_;
};

class SilentHandler : public Http2Session::Handler {
  void OnHeaders(const HeaderList& /*headers*/) override {}
  void OnData(std::string_view /*chunk*/) override {}
  void OnRemoteEnd() override {}
  void OnClosed(Http2Error /*error*/) override {}
};

// A client and a server, and the strings between them.
class Http2SessionTest : public ::testing::Test {
 protected:
  // Until neither has anything left to say.
  void Exchange(std::size_t piece_size = kEverything) {
    for (bool moved = true; moved;) {
      moved = false;
      for (const bool up : {true, false}) {
        std::string bytes = (up ? client_ : server_).Take();
        moved |= !bytes.empty();
        Feed(up ? server_ : client_, bytes, piece_size);
      }
    }
  }

  static void Feed(RecordedSession& to, std::string_view bytes, std::size_t piece_size) {
    for (; !bytes.empty(); bytes.remove_prefix(std::min(piece_size, bytes.size()))) {
      const absl::Status status = to->ProcessBytes(bytes.substr(0, piece_size));
      ASSERT_TRUE(status.ok()) << status;
    }
  }

  // For what stands between long events.
  static bool Heard(const RecordedSession& session, const std::string& event) {
    return std::count(session.events().begin(), session.events().end(), event) == 1;
  }

  RecordedSession client_{Http2Session::Role::kClient};
  RecordedSession server_{Http2Session::Role::kServer};
};

TEST_F(Http2SessionTest, ACallGoesThereAndBack) {
  const StreamId id = client_.Open("/call");
  client_->SendData(id, "question", /*end_stream=*/true);
  Exchange();
  server_->SendHeaders(id, {{":status", "200"}}, /*end_stream=*/false);
  server_->SendData(id, "answer", /*end_stream=*/false);
  server_->SendTrailers(id, {{"grpc-status", "0"}});
  Exchange();

  EXPECT_THAT(server_.events(), ElementsAre("headers 1 :method=POST :path=/call", "data 1 question",
                                            "end 1", "closed 1 0"));
  EXPECT_THAT(client_.events(), ElementsAre("headers 1 :status=200", "data 1 answer",
                                            "headers 1 grpc-status=0", "end 1", "closed 1 0"));
  EXPECT_EQ(server_.handlers() + client_.handlers(), 0);
  EXPECT_EQ(client_->failure(), absl::OkStatus());
}

TEST_F(Http2SessionTest, InputOfAnyPieceSizeGivesTheSameEvents) {
  for (const std::size_t piece_size : {1, 2, 3, 7, 64, 1000}) {
    RecordedSession client(Http2Session::Role::kClient);
    RecordedSession server(Http2Session::Role::kServer);
    const StreamId id = client.Open();
    client->SendData(id, std::string(300, 'q'), /*end_stream=*/true);

    Feed(server, client.Take(), piece_size);
    server->SendHeaders(id, {{":status", "200"}}, /*end_stream=*/false);
    server->SendTrailers(id, {{"grpc-status", "0"}});
    Feed(client, server.Take(), piece_size);

    EXPECT_THAT(server.events(),
                ElementsAre("headers 1 :method=POST :path=/call", "data 1 " + std::string(300, 'q'),
                            "end 1", "closed 1 0"))
        << piece_size;
    EXPECT_THAT(client.events(), ElementsAre("headers 1 :status=200", "headers 1 grpc-status=0",
                                             "end 1", "closed 1 0"));
  }
}

TEST_F(Http2SessionTest, InputSplitAtAnyByteGivesTheSameEvents) {
  const StreamId id = client_.Open();
  client_->SendData(id, "question", /*end_stream=*/true);
  const std::string bytes = client_.Take();

  for (std::size_t split = 0; split <= bytes.size(); ++split) {
    RecordedSession server(Http2Session::Role::kServer);
    ASSERT_TRUE(server->ProcessBytes(bytes.substr(0, split)).ok());
    ASSERT_TRUE(server->ProcessBytes(bytes.substr(split)).ok());

    EXPECT_THAT(server.events(),
                ElementsAre("headers 1 :method=POST :path=/call", "data 1 question", "end 1"))
        << split;
  }
}

TEST_F(Http2SessionTest, OutputIsTakenInPiecesNotMuchLargerThanTheLimit) {
  const StreamId id = client_.Open();
  Exchange();
  client_->SendData(id, std::string(200'000, 'x'), /*end_stream=*/true);

  std::size_t total = 0;
  for (std::string piece; !(piece = client_.Take(20'000)).empty(); total += piece.size()) {
    EXPECT_LE(piece.size(), 20'000u + 16'384u + 9u);
    Feed(server_, piece, kEverything);
  }

  EXPECT_GT(total, 200'000u);
  EXPECT_EQ(server_.events().back(), "end 1");
}

// Piece by piece, so that each frame is taken and the session has not heard yet that it is sent.
TEST_F(Http2SessionTest, WhatComesWhileTheLastPieceIsTakenIsSentBehindIt) {
  const StreamId id = client_.Open();
  client_->SendData(id, "question", /*end_stream=*/true);
  Exchange();
  std::string output;
  server_->SendHeaders(id, {{":status", "200"}}, /*end_stream=*/false);
  server_->TakeOutput(/*limit=*/1, output);

  for (const char* piece : {"a", "b", "c"}) {
    server_->SendData(id, piece, /*end_stream=*/false);
    server_->TakeOutput(output.size() + 1, output);
  }
  server_->SendTrailers(id, {{"grpc-status", "0"}});
  Feed(client_, output, kEverything);
  Exchange();

  EXPECT_THAT(client_.events(), ElementsAre("headers 1 :status=200", "data 1 abc",
                                            "headers 1 grpc-status=0", "end 1", "closed 1 0"));
  EXPECT_EQ(server_->activity().bytes_queued, 0u);
}

TEST_F(Http2SessionTest, TrailersOfAStreamWithNothingToSendFollowItsHeadersAtOnce) {
  const StreamId id = client_.Open();
  client_->SendData(id, "question", /*end_stream=*/true);
  Exchange();

  server_->SendHeaders(id, {{":status", "200"}}, /*end_stream=*/false);
  server_->SendTrailers(id, {{"grpc-status", "0"}});
  Exchange();

  EXPECT_THAT(client_.events(), ElementsAre("headers 1 :status=200", "headers 1 grpc-status=0",
                                            "end 1", "closed 1 0"));
}

TEST_F(Http2SessionTest, OutputIsAnnouncedOnceUntilItWasTaken) {
  Exchange();
  const int before = client_.announcements();

  const StreamId id = client_.Open();
  client_->SendData(id, "a", /*end_stream=*/false);
  client_->SendData(id, "b", /*end_stream=*/false);
  EXPECT_EQ(client_.announcements(), before + 1);
  EXPECT_FALSE(client_.Take().empty());
  client_->SendData(id, "c", /*end_stream=*/false);

  EXPECT_EQ(client_.announcements(), before + 2);
}

TEST_F(Http2SessionTest, OutputSubmittedWhileOutputIsTakenDoesNotSilenceLaterOnes) {
  const StreamId first = client_.Open();
  client_.Open();
  Exchange();
  client_->Reset(first, Http2Error::kCancel);
  // Has nothing to send, so that taking output ends right after the callback.
  client_.OnNext("closed", [&](StreamId) { client_->SendData(3, "", /*end_stream=*/false); });
  Exchange();
  const int before = client_.announcements();

  client_->SendData(3, "x", /*end_stream=*/false);

  EXPECT_EQ(client_.announcements(), before + 1);
}

TEST_F(Http2SessionTest, AnEmptyBodyEndsTheStream) {
  const StreamId id = client_.Open();
  client_->SendData(id, "", /*end_stream=*/true);
  Exchange();

  EXPECT_THAT(server_.events(), ElementsAre("headers 1 :method=POST :path=/call", "end 1"));
}

TEST_F(Http2SessionTest, DataAddedWhileThePeerReadsSlowlyArrivesInOrder) {
  Http2Options options;
  options.stream_window_bytes = 70'000;
  RecordedSession server(Http2Session::Role::kServer, options);
  const StreamId id = client_.Open();
  std::string sent;
  for (int i = 0; i < 300; ++i) {
    const std::string piece(1000 + i, static_cast<char>('a' + i % 26));
    sent += piece;
    client_->SendData(id, piece, /*end_stream=*/i == 299);
    if (i % 3 == 0) Feed(server, client_.Take(3000), kEverything);
    if (i % 50 == 0) Feed(client_, server.Take(), kEverything);
  }
  for (std::string up = "x", down; !up.empty() || !down.empty();) {
    up = client_.Take();
    Feed(server, up, kEverything);
    down = server.Take();
    Feed(client_, down, kEverything);
  }

  ASSERT_EQ(server.events().size(), 3u);
  EXPECT_TRUE(server.events()[1] == "data 1 " + sent);
  EXPECT_EQ(server.events()[2], "end 1");
}

TEST_F(Http2SessionTest, ABusyStreamDoesNotStarveAnother) {
  const StreamId busy = client_.Open();
  const StreamId other = client_.Open();
  Exchange();
  client_->SendData(busy, std::string(500'000, 'x'), /*end_stream=*/false);
  client_->SendData(other, "y", /*end_stream=*/false);

  Feed(server_, client_.Take(100'000), kEverything);

  EXPECT_TRUE(Heard(server_, "data 3 y"));
}

TEST_F(Http2SessionTest, ABusyAnswerDoesNotStarveAnother) {
  const StreamId busy = client_.Open();
  const StreamId other = client_.Open();
  Exchange();
  for (const StreamId id : {busy, other}) {
    server_->SendHeaders(id, {{":status", "200"}}, /*end_stream=*/false);
  }
  server_->SendData(busy, std::string(500'000, 'x'), /*end_stream=*/false);
  server_->SendData(other, "y", /*end_stream=*/false);

  Feed(client_, server_.Take(100'000), kEverything);

  EXPECT_TRUE(Heard(client_, "data 3 y"));
}

TEST_F(Http2SessionTest, AResetReachesThePeerAndEndsBothSidesOnce) {
  const StreamId id = client_.Open();
  Exchange();
  client_->Reset(id, Http2Error::kCancel);
  client_->Reset(id, Http2Error::kCancel);
  Exchange();
  client_->Reset(id, Http2Error::kCancel);
  server_->Reset(id, Http2Error::kCancel);
  Exchange();

  EXPECT_THAT(server_.events(), ElementsAre("headers 1 :method=POST :path=/call", "closed 1 8"));
  EXPECT_THAT(client_.events(), ElementsAre("closed 1 8"));
}

TEST_F(Http2SessionTest, ARequestResetBeforeItWasSentIsNeverSent) {
  Exchange();
  const StreamId id = client_.Open();
  client_->SendData(id, "question", /*end_stream=*/true);
  client_->Reset(id, Http2Error::kCancel);
  Exchange();

  EXPECT_THAT(server_.events(), IsEmpty());
  EXPECT_THAT(client_.events(), ElementsAre("closed 1 8"));
}

TEST_F(Http2SessionTest, WhatIsSentOnAStreamThatIsGoneIsDropped) {
  const StreamId id = client_.Open();
  Exchange();
  client_->Reset(id, Http2Error::kCancel);
  Exchange();

  server_->SendHeaders(id, {{":status", "200"}}, /*end_stream=*/false);
  server_->SendData(id, "late", /*end_stream=*/false);
  server_->SendTrailers(id, {{"grpc-status", "0"}});

  EXPECT_EQ(server_.Take(), "");
}

TEST_F(Http2SessionTest, AResetInTheMiddleOfARequestClosesItsStreamOnly) {
  Exchange();  // Settings, before which one stream must do.
  const StreamId first = client_.Open("/first");
  const StreamId second = client_.Open("/second");
  client_->SendData(first, "half a que", /*end_stream=*/false);
  Exchange();
  client_->Reset(first, Http2Error::kCancel);
  client_->SendData(second, "whole", /*end_stream=*/true);
  Exchange();

  EXPECT_THAT(
      server_.events(),
      ElementsAre("headers 1 :method=POST :path=/first", "headers 3 :method=POST :path=/second",
                  "data 1 half a que", "closed 1 8", "data 3 whole", "end 3"));
}

TEST_F(Http2SessionTest, AnAnswerBeforeTheEndOfTheRequestReleasesTheStream) {
  const StreamId id = client_.Open();
  client_->SendData(id, "begin", /*end_stream=*/false);
  Exchange();
  server_->SendHeaders(id, {{":status", "200"}, {"grpc-status", "12"}}, /*end_stream=*/true);
  Exchange();

  EXPECT_THAT(server_.events(),
              ElementsAre("headers 1 :method=POST :path=/call", "data 1 begin", "closed 1 0"));
  EXPECT_THAT(client_.events(),
              ElementsAre("headers 1 :status=200 grpc-status=12", "end 1", "closed 1 0"));
}

TEST_F(Http2SessionTest, AClientReleasesAStreamWhoseServerHasEndedIt) {
  RawHttp2Peer server(RawHttp2Peer::Role::kServer);
  const StreamId id = client_.Open();
  server.Receive(client_.Take());
  server.Respond(id, {{":status", "200"}, {"grpc-status", "12"}}, /*end=*/true);

  Feed(client_, server.Take(), kEverything);
  server.Receive(client_.Take());

  EXPECT_THAT(client_.events(),
              ElementsAre("headers 1 :status=200 grpc-status=12", "end 1", "closed 1 0"));
  EXPECT_EQ(server.events().back(), "RESET 1 0");
}

TEST_F(Http2SessionTest, ARefusedStreamIsResetAndTheConnectionLives) {
  server_.RefuseStreams();
  const StreamId id = client_.Open();
  client_->SendData(id, "question", /*end_stream=*/true);
  Exchange();

  EXPECT_THAT(client_.events(), ElementsAre("closed 1 7"));
  EXPECT_FALSE(server_->IsFinished());
  EXPECT_EQ(server_.handlers(), 0);
}

TEST_F(Http2SessionTest, StreamsBeyondTheServersLimitWaitForTheirTurn) {
  Http2Options options;
  options.max_concurrent_streams = 1;
  RecordedSession server(Http2Session::Role::kServer, options);
  Feed(client_, server.Take(), kEverything);
  const StreamId first = client_.Open("/first");
  client_.Open("/second");

  Feed(server, client_.Take(), kEverything);
  EXPECT_THAT(server.events(), ElementsAre("headers 1 :method=POST :path=/first"));
  client_->Reset(first, Http2Error::kCancel);
  Feed(server, client_.Take(), kEverything);

  EXPECT_EQ(server.events().back(), "headers 3 :method=POST :path=/second");
}

TEST_F(Http2SessionTest, ARequestResetWhileItWaitsForItsTurnLeavesNothingBehind) {
  client_.Open("/first");  // In the one place that there is before the server's settings come.
  client_.Take();
  const StreamId second = client_.Open("/second");
  client_->SendData(second, "question", /*end_stream=*/true);
  client_.Open("/third");

  client_->Reset(second, Http2Error::kCancel);

  EXPECT_THAT(client_.events(), ElementsAre("closed 3 8"));
  EXPECT_EQ(client_.handlers(), 2);
  EXPECT_EQ(client_.Take(), "");
}

TEST_F(Http2SessionTest, RequestsThatWaitAreSentInTheirOrderWithoutThoseThatWereReset) {
  client_.Open("/first");
  const StreamId second = client_.Open("/second");
  const StreamId third = client_.Open("/third");
  const StreamId fourth = client_.Open("/fourth");
  client_->SendData(third, "question", /*end_stream=*/true);
  client_->Reset(second, Http2Error::kCancel);
  client_->Reset(fourth, Http2Error::kCancel);

  Exchange();
  client_.Open("/fifth");
  Exchange();

  EXPECT_THAT(
      server_.events(),
      ElementsAre("headers 1 :method=POST :path=/first", "headers 5 :method=POST :path=/third",
                  "data 5 question", "end 5", "headers 9 :method=POST :path=/fifth"));
}

TEST_F(Http2SessionTest, AServersGoawayLetsOpenStreamsFinish) {
  const StreamId id = client_.Open();
  Exchange();
  server_->SendGoaway();
  Exchange();
  EXPECT_FALSE(server_->IsFinished());
  EXPECT_FALSE(client_->IsFinished());
  EXPECT_LT(client_.Open(), 0);

  client_->SendData(id, "question", /*end_stream=*/true);
  Exchange();
  server_->SendHeaders(id, {{":status", "200"}}, /*end_stream=*/true);
  Exchange();

  EXPECT_THAT(client_.events(),
              ElementsAre("goaway", "headers 1 :status=200", "end 1", "closed 1 0"));
  EXPECT_TRUE(server_->IsFinished());
  EXPECT_TRUE(client_->IsFinished());
  EXPECT_EQ(server_->failure(), absl::OkStatus());
  EXPECT_EQ(client_->failure(), absl::OkStatus());
}

TEST_F(Http2SessionTest, AClientsGoawayLetsOpenStreamsFinish) {
  const StreamId id = client_.Open();
  client_->SendData(id, "question", /*end_stream=*/true);
  client_->SendGoaway();
  Exchange();
  EXPECT_FALSE(server_->IsFinished());
  server_->SendHeaders(id, {{":status", "200"}}, /*end_stream=*/true);
  Exchange();

  EXPECT_EQ(client_.events().back(), "closed 1 0");
  EXPECT_TRUE(server_->IsFinished());
  EXPECT_TRUE(client_->IsFinished());
}

TEST_F(Http2SessionTest, AGoawayWithNothingOpenFinishesBothEnds) {
  Exchange();
  server_->SendGoaway();
  Exchange();

  EXPECT_TRUE(server_->IsFinished());
  EXPECT_TRUE(client_->IsFinished());
}

TEST_F(Http2SessionTest, ARequestThatWaitsWhenGoawayComesIsRefusedAtOnce) {
  // One long-lived stream takes the only place, and goes on after the GOAWAY.
  RawHttp2Peer server(RawHttp2Peer::Role::kServer, /*max_concurrent_streams=*/1);
  Feed(client_, server.Take(), kEverything);
  client_.Open("/long");
  client_.Open("/waits");
  server.Receive(client_.Take());
  server.Goaway(1);

  Feed(client_, server.Take(), kEverything);
  server.Receive(client_.Take());

  EXPECT_THAT(client_.events(), ElementsAre("goaway", "closed 3 7"));
  EXPECT_EQ(client_.handlers(), 1);
  EXPECT_THAT(server.events(), Contains(HasSubstr("/long")));
  EXPECT_THAT(server.events(), Not(Contains(HasSubstr("/waits"))));
}

TEST_F(Http2SessionTest, ARequestQueuedJustBeforeGoawayComesIsRefused) {
  RawHttp2Peer server(RawHttp2Peer::Role::kServer);
  server.Receive(client_.Take());
  server.Goaway(0x7fffffff);
  client_.Open();

  Feed(client_, server.Take(), kEverything);

  EXPECT_THAT(client_.events(), ElementsAre("goaway", "closed 1 7"));
  EXPECT_EQ(client_.handlers(), 0);
  client_.Take();
  EXPECT_TRUE(client_->IsFinished());
}

TEST_F(Http2SessionTest, RequestsThatTheServerDidNotProcessAreRefused) {
  RawHttp2Peer server(RawHttp2Peer::Role::kServer);
  client_.Open("/processed");
  client_.Open("/not processed");
  server.Receive(client_.Take());
  server.Goaway(1);

  Feed(client_, server.Take(), kEverything);

  EXPECT_THAT(client_.events(), ElementsAre("goaway", "closed 3 7"));
  EXPECT_EQ(client_.handlers(), 1);
}

TEST_F(Http2SessionTest, OpeningAStreamWhileGoawayIsToldIsRefused) {
  RawHttp2Peer server(RawHttp2Peer::Role::kServer);
  client_.Open();
  server.Receive(client_.Take());
  server.Goaway(0);
  StreamId second = 0;
  client_.OnNext("closed", [&](StreamId) { second = client_.Open(); });

  Feed(client_, server.Take(), kEverything);

  EXPECT_LT(second, 0);
  EXPECT_EQ(client_.handlers(), 0);
}

TEST_F(Http2SessionTest, AGoawayWithAnErrorIsRemembered) {
  RawHttp2Peer server(RawHttp2Peer::Role::kServer);
  server.Goaway(0, 0xb, "too_many_pings\n");

  Feed(client_, server.Take(), kEverything);
  client_.Take();

  EXPECT_TRUE(client_->IsFinished());
  EXPECT_EQ(client_->failure().code(), absl::StatusCode::kUnavailable);
  EXPECT_THAT(std::string(client_->failure().message()), HasSubstr("11: too_many_pings\\n"));
}

TEST_F(Http2SessionTest, BytesThatAreNoHttp2AreAnError) {
  const absl::Status status = server_->ProcessBytes("GET / HTTP/1.1\r\nHost: test\r\n\r\n");

  EXPECT_EQ(status.code(), absl::StatusCode::kInvalidArgument);
  EXPECT_THAT(std::string(status.message()), HasSubstr("HTTP/2"));
}

TEST_F(Http2SessionTest, AServerThatSpeaksNoHttp2EndsAClientsConnection) {
  (void)client_->ProcessBytes("HTTP/1.1 400 Bad Request\r\n\r\n");
  client_.Take();

  EXPECT_TRUE(client_->IsFinished());
  EXPECT_EQ(client_->failure().code(), absl::StatusCode::kInvalidArgument);
}

TEST_F(Http2SessionTest, AFrameThatBreaksTheProtocolEndsTheConnectionAndSaysWhy) {
  Feed(server_, kClientPreface, kEverything);
  Feed(server_, MakeFrame(/*SETTINGS*/ 4, 0, 0, ""), kEverything);
  Feed(server_, MakeFrame(/*DATA*/ 0, 0, /*stream_id=*/0, "x"), kEverything);
  RawHttp2Peer peer(RawHttp2Peer::Role::kClient);
  peer.Receive(server_.Take());

  EXPECT_THAT(peer.events(), ElementsAre("GOAWAY 0 1"));
  EXPECT_TRUE(server_->IsFinished());
  EXPECT_EQ(server_->failure().code(), absl::StatusCode::kInvalidArgument);
  EXPECT_THAT(std::string(server_->failure().message()), HasSubstr("DATA"));
}

TEST_F(Http2SessionTest, DataAfterTheEndOfItsStreamEndsTheConnectionBehindWhatWasSound) {
  const StreamId id = client_.Open();
  client_->SendData(id, "question", /*end_stream=*/true);

  const absl::Status status =
      server_->ProcessBytes(client_.Take() + MakeFrame(/*DATA*/ 0, 0, id, "late"));
  const absl::Status heard = client_->ProcessBytes(server_.Take());

  EXPECT_THAT(std::string(status.message()), HasSubstr("a stream that the client has closed"));
  EXPECT_THAT(server_.events(),
              ElementsAre("headers 1 :method=POST :path=/call", "data 1 question", "end 1"));
  EXPECT_EQ(heard, absl::OkStatus());
  EXPECT_THAT(std::string(client_->failure().message()), HasSubstr("HTTP/2 error code 5"));
}

TEST_F(Http2SessionTest, DataThatWasOnItsWayWhenTheServerEndedItsStreamIsIgnored) {
  const StreamId id = client_.Open();
  Exchange();
  server_->SendHeaders(id, {{":status", "200"}}, /*end_stream=*/true);
  server_.Take();

  client_->SendData(id, "late", /*end_stream=*/true);
  const absl::Status status = server_->ProcessBytes(client_.Take());

  EXPECT_EQ(status, absl::OkStatus());
  EXPECT_THAT(server_.events(), ElementsAre("headers 1 :method=POST :path=/call", "closed 1 0"));
}

TEST_F(Http2SessionTest, GarbageInEveryPlaceEndsInAnErrorOrInNothing) {
  client_.Open();
  client_->SendData(1, "question", /*end_stream=*/true);
  const std::string good = client_.Take();
  for (std::size_t place = 0; place < good.size(); ++place) {
    for (const int bits : {0x01, 0x80, 0xff}) {
      RecordedSession server(Http2Session::Role::kServer);
      std::string bad = good;
      bad[place] = static_cast<char>(bad[place] ^ bits);

      (void)server->ProcessBytes(bad);
      server.Take();
      server->CloseAllStreams();

      EXPECT_EQ(server.handlers(), 0);
    }
  }
}

TEST_F(Http2SessionTest, AHeaderBlockThatIsTooLargeResetsItsStreamOnly) {
  Http2Options options;
  options.max_header_list_bytes = 1000;
  RecordedSession server(Http2Session::Role::kServer, options);
  RawHttp2Peer client(RawHttp2Peer::Role::kClient);
  const RawHttp2Peer::Fields fields = {
      {":method", "POST"}, {":scheme", "http"}, {":path", "/"}, {":authority", "test"}};
  RawHttp2Peer::Fields large = fields;
  for (int i = 0; i < 100; ++i) large.emplace_back("x-repeated", "well compressed");
  client.Request(large, /*end=*/true);
  client.Request(fields, /*end=*/true);

  Feed(server, client.Take(), kEverything);
  client.Receive(server.Take());

  EXPECT_THAT(server.events(), ElementsAre("headers 3 :method=POST :path=/", "end 3"));
  EXPECT_THAT(client.events(), ElementsAre("RESET 1 11"));
}

TEST_F(Http2SessionTest, ABlockHasNoFieldsOfTheBlocksBeforeIt) {
  Http2Options options;
  options.max_header_list_bytes = 1000;
  RecordedSession server(Http2Session::Role::kServer, options);
  RawHttp2Peer client(RawHttp2Peer::Role::kClient);
  const RawHttp2Peer::Fields fields = {
      {":method", "POST"}, {":scheme", "http"}, {":path", "/"}, {":authority", "test"}};
  RawHttp2Peer::Fields secret = fields;
  secret.emplace_back("authorization", "first");
  secret.emplace_back("x", "1");
  RawHttp2Peer::Fields other = fields;
  other.emplace_back("x", "1");
  RawHttp2Peer::Fields large = secret;
  for (int i = 0; i < 30; ++i) large.emplace_back("x-repeated", "well compressed");
  for (const auto& block : {secret, fields, secret, other, secret, large, fields, secret}) {
    client.Request(block, /*end=*/false);
  }

  Feed(server, client.Take(), kEverything);

  const std::string plain = " :method=POST :path=/";
  EXPECT_THAT(
      server.events(),
      ElementsAre("headers 1" + plain + " authorization=first x=1", "headers 3" + plain,
                  "headers 5" + plain + " authorization=first x=1", "headers 7" + plain + " x=1",
                  "headers 9" + plain + " authorization=first x=1", "headers 13" + plain,
                  "headers 15" + plain + " authorization=first x=1"));
}

TEST_F(Http2SessionTest, AnAnswerTooLargeToBeSentResetsItsStream) {
  const StreamId id = client_.Open();
  client_->SendData(id, "", /*end_stream=*/true);
  Exchange();

  server_->SendHeaders(id, {{":status", "200"}, {"x", std::string(100'000, 'x')}},
                       /*end_stream=*/true);
  Exchange();

  EXPECT_THAT(client_.events(), ElementsAre("closed 1 2"));
  EXPECT_EQ(server_.handlers(), 0);
}

TEST_F(Http2SessionTest, ARequestTooLargeToBeSentEndsWithAnInternalError) {
  client_.Open("/" + std::string(100'000, 'x'));

  Exchange();

  EXPECT_THAT(client_.events(), ElementsAre("closed 1 2"));
  EXPECT_THAT(server_.events(), IsEmpty());
}

TEST_F(Http2SessionTest, ALostConnectionClosesEveryStreamOnceAndSilencesTheSession) {
  const StreamId id = client_.Open();
  client_.Open();
  Exchange();

  server_->CloseAllStreams();
  server_->CloseAllStreams();
  server_->SendHeaders(id, {{":status", "200"}}, /*end_stream=*/true);
  server_->Reset(id, Http2Error::kCancel);
  server_->SendGoaway();

  EXPECT_TRUE(Heard(server_, "closed 1 -1"));
  EXPECT_TRUE(Heard(server_, "closed 3 -1"));
  EXPECT_EQ(server_.handlers(), 0);
  EXPECT_EQ(server_.Take(), "");
  EXPECT_TRUE(server_->IsFinished());
  EXPECT_FALSE(server_->ProcessBytes("x").ok());
}

TEST_F(Http2SessionTest, HandlersMayUseTheSessionWhileTheConnectionIsLost) {
  client_.Open();
  client_.Open();
  Exchange();
  StreamId reopened = 0;
  client_.OnNext("closed", [&](StreamId) {
    reopened = client_.Open();
    for (const StreamId id : {1, 3}) {
      client_->SendData(id, "late", /*end_stream=*/true);
      client_->Reset(id, Http2Error::kCancel);
    }
  });

  client_->CloseAllStreams();

  EXPECT_LT(reopened, 0);
  EXPECT_EQ(client_.handlers(), 0);
}

TEST_F(Http2SessionTest, ASessionDestroyedWithStreamsOpenDropsThemSilently) {
  const StreamId id = client_.Open();
  client_->SendData(id, std::string(1 << 20, 'x'), /*end_stream=*/false);
  Exchange();
  const Events before = client_.events();

  client_.Destroy();

  EXPECT_EQ(client_.events(), before);
  EXPECT_EQ(client_.handlers(), 0);
}

TEST_F(Http2SessionTest, HandlersMaySendAndResetInsideEveryCallback) {
  for (const char* event : {"headers", "data", "end"}) {
    RecordedSession client(Http2Session::Role::kClient);
    RecordedSession server(Http2Session::Role::kServer);
    server.OnNext(event, [&](StreamId id) {
      server->SendHeaders(id, {{":status", "200"}}, /*end_stream=*/false);
      server->SendData(id, "dropped by the reset", /*end_stream=*/false);
      server->Reset(id, Http2Error::kCancel);
      server->SendData(id, "late", /*end_stream=*/true);
    });
    client->SendData(client.Open(), "question", /*end_stream=*/true);

    Feed(server, client.Take(), kEverything);
    Feed(client, server.Take(), kEverything);

    EXPECT_EQ(server.events().back(), "closed 1 8") << event;
    EXPECT_EQ(client.events().back(), "closed 1 8") << event;
  }
}

TEST_F(Http2SessionTest, RequestsThatRepeatAndRequestsThatDifferArriveAsTheyWereSent) {
  for (const char* path : {"/a", "/a", "/b", "/a", "/longer", "/a"}) client_.Open(path);
  const StreamId longer = client_->OpenStream({{":method", "POST"},
                                               {":scheme", "http"},
                                               {":path", "/a"},
                                               {":authority", "test"},
                                               {"one", "more"}},
                                              std::make_unique<SilentHandler>());
  client_.Open("/a");
  Exchange();

  EXPECT_EQ(longer, 13);
  EXPECT_THAT(
      server_.events(),
      ElementsAre("headers 1 :method=POST :path=/a", "headers 3 :method=POST :path=/a",
                  "headers 5 :method=POST :path=/b", "headers 7 :method=POST :path=/a",
                  "headers 9 :method=POST :path=/longer", "headers 11 :method=POST :path=/a",
                  "headers 13 :method=POST :path=/a one=more", "headers 15 :method=POST :path=/a"));
}

}  // namespace
}  // namespace varnic::net
