#include "core/net/http2_connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
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
using testing::MakeFrame;
using testing::RawHttp2Peer;

const RawHttp2Peer::Fields kRequest = {
    {":method", "POST"}, {":scheme", "http"}, {":path", "/"}, {":authority", "test"}};

// A server's connection, on a stream whose peer is the test, which speaks HTTP/2 through `client_`.
class Http2ConnectionTest : public ::testing::Test, private Http2Connection::Visitor {
 protected:
  Http2ConnectionTest() { Connect(); }

  void Connect() {
    Http2Connection::Visitor& visitor = *this;
    connection_ = std::make_unique<Http2Connection>(loop_, peer_.MakeStream(),
                                                    Http2Session::Role::kServer, options_, visitor);
  }

  // Carries bytes both ways until nobody has more to say.
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

  // For as long as a peer that is let go has to read why.
  void WaitForFarewell(testing::FakeClock& clock) {
    clock.Advance(absl::Seconds(1));
    loop_.RunPending();
  }

  // What a peer sends that starts so many calls at once.
  std::string MakeBurst(int calls) {
    for (int i = 0; i < calls; ++i) client_.Request(kRequest, /*end=*/true);
    return client_.Take();
  }

  // Opens a stream, and answers it with `size` bytes and no end.
  StreamId Answer(std::size_t size) {
    const StreamId id = client_.Request(kRequest, /*end=*/true);
    Exchange();
    connection_->session().SendHeaders(id, {{":status", "200"}}, /*end_stream=*/false);
    connection_->session().SendData(id, std::string(size, 'x'), /*end_stream=*/false);
    return id;
  }

  EventLoop loop_;
  FakePeer peer_;
  Http2Options options_;
  RawHttp2Peer client_{RawHttp2Peer::Role::kClient, 100, /*stream_window_bytes=*/1 << 30};
  // "headers 1", "data 1", "end 1", "closed 1 error", "connection closed: status".
  std::vector<std::string> events_;
  bool refuse_streams_ = false;
  bool answer_at_once_ = false;
  bool destroy_at_end_ = false;
  std::unique_ptr<Http2Connection> connection_;  // Last: calls into the rest.

 private:
  class Handler : public Http2Session::Handler {
   public:
    Handler(Http2ConnectionTest& test, StreamId id) : test_(test), id_(id) {}

   private:
    void OnHeaders(const HeaderList&) override { Note("headers"); }
    void OnData(std::string_view) override { Note("data"); }
    void OnRemoteEnd() override {
      Note("end");
      if (!test_.answer_at_once_) return;
      test_.connection_->session().SendHeaders(id_, {{":status", "200"}}, /*end_stream=*/true);
    }
    void OnClosed(Http2Error error) override {
      Note("closed");
      absl::StrAppend(&test_.events_.back(), " ", static_cast<int32_t>(error));
    }
    void Note(const char* event) { test_.events_.push_back(absl::StrCat(event, " ", id_)); }

    Http2ConnectionTest& test_;
    const StreamId id_;
  };

  std::unique_ptr<Http2Session::Handler> OnNewStream(StreamId stream_id) override {
    if (refuse_streams_) return nullptr;
    return std::make_unique<Handler>(*this, stream_id);
  }
  void OnGoaway() override { events_.push_back("goaway"); }
  void OnConnectionClosed(const absl::Status& status) override {
    events_.push_back("connection closed: " + status.ToString());
    if (destroy_at_end_) connection_ = nullptr;
  }
};

TEST_F(Http2ConnectionTest, TheGreetingIsWrittenOnTheLoop) {
  EXPECT_EQ(peer_.writes(), 0);

  loop_.RunPending();

  EXPECT_EQ(peer_.writes(), 1);
  EXPECT_NE(peer_.Take(), "");
}

TEST_F(Http2ConnectionTest, WhatAllStreamsSayInOneTurnIsWrittenTogether) {
  const StreamId first = client_.Request(kRequest, /*end=*/true);
  const StreamId second = client_.Request(kRequest, /*end=*/true);
  Exchange();
  const int before = peer_.writes();

  for (const StreamId id : {first, second}) {
    connection_->session().SendHeaders(id, {{":status", "200"}}, /*end_stream=*/false);
    connection_->session().SendData(id, "answer", /*end_stream=*/true);
  }
  EXPECT_EQ(peer_.writes(), before);
  loop_.RunPending();

  EXPECT_EQ(peer_.writes(), before + 1);
  Exchange();
  EXPECT_EQ(client_.body(first) + client_.body(second), "answeranswer");
}

TEST_F(Http2ConnectionTest, OutputIsWrittenInEveryTurnThatHasSome) {
  const StreamId id = Answer(1);
  for (int i = 0; i < 5; ++i) {
    connection_->session().SendData(id, "x", /*end_stream=*/false);
    loop_.RunPending();
  }
  Exchange();

  EXPECT_EQ(client_.body(id), "xxxxxx");
}

TEST_F(Http2ConnectionTest, ABurstIsAnsweredWhileTheRestOfItIsWorkedOn) {
  answer_at_once_ = true;
  Exchange();
  const std::string burst = MakeBurst(1000);
  ASSERT_GT(burst.size(), (4u + 8u) << 10);
  ASSERT_LT(burst.size(), (4u + 8u + 16u) << 10);
  const int before = peer_.writes();

  peer_.Send(burst);

  EXPECT_EQ(peer_.writes(), before + 3);
  client_.Receive(peer_.Take());
  std::vector<std::string> in_order;
  for (int id = 1; id < 2000; id += 2) {
    in_order.push_back(absl::StrCat("HEADERS ", id, " :status=200"));
    in_order.push_back(absl::StrCat("END ", id));
  }
  EXPECT_EQ(client_.events(), in_order);
}

TEST_F(Http2ConnectionTest, ABurstThatNeedsNoAnswerIsNotAnswered) {
  Exchange();
  const StreamId id = client_.Request(kRequest);
  client_.Data(id, std::string(60 << 10, 'x'));
  const std::string burst = client_.Take();
  const int before = peer_.writes();

  peer_.Send(burst);

  EXPECT_EQ(peer_.writes(), before);
  EXPECT_THAT(events_, Contains("data 1"));
}

TEST_F(Http2ConnectionTest, APeerThatDoesNotReadIsOfferedTheAnswersToABurstOnce) {
  answer_at_once_ = true;
  Exchange();
  peer_.LimitRoom(0);
  peer_.Send(MakeBurst(1));
  const std::string burst = MakeBurst(500);
  ASSERT_GT(burst.size(), 4u << 10);
  const int before = peer_.writes();

  peer_.Send(burst);

  EXPECT_EQ(peer_.writes(), before + 1);
  peer_.MakeRoom();
  Exchange();
  EXPECT_THAT(client_.events(), Contains("END 1001"));
}

TEST_F(Http2ConnectionTest, NothingOfABurstIsServedBehindAFault) {
  testing::FakeClock clock;
  Exchange();
  const std::string fault = MakeFrame(/*DATA*/ 0, 0, /*stream_id=*/0, "x");
  const std::string burst = MakeBurst(1000);

  peer_.Send(fault + burst);
  WaitForFarewell(clock);

  EXPECT_FALSE(peer_.open());
  EXPECT_THAT(events_, ElementsAre(HasSubstr("connection closed: INVALID_ARGUMENT")));
}

TEST_F(Http2ConnectionTest, APeerThatStopsReadingCostsOneChunkAndNoMore) {
  client_.Read(0, 1 << 30);
  Exchange();
  peer_.LimitRoom(0);
  const StreamId id = Answer(10 << 20);
  loop_.RunPending();

  // What stands in the stream's queue dies with it; what was taken from it is still to come.
  connection_->session().Reset(id, Http2Error::kCancel);
  peer_.MakeRoom();
  Exchange();

  EXPECT_THAT(client_.events(), Contains("RESET 1 8"));
  EXPECT_LE(client_.body(id).size(), (64u + 16u) << 10);
}

TEST_F(Http2ConnectionTest, WritingGoesOnAsThePeerReads) {
  client_.Read(0, 1 << 30);
  Exchange();
  peer_.LimitRoom(0);
  const StreamId id = Answer(1 << 20);
  loop_.RunPending();

  while (client_.body(id).size() < 1 << 20) {
    peer_.MakeRoom(10'001);
    const std::string bytes = peer_.Take();
    ASSERT_EQ(bytes.size(), 10'001u) << "after " << client_.body(id).size();
    client_.Receive(bytes);
    if (client_.body(id).size() > 1'000'000) peer_.MakeRoom(), Exchange();
  }

  EXPECT_TRUE(client_.body(id) == std::string(1 << 20, 'x'));
}

TEST_F(Http2ConnectionTest, InputIsReadWhileThePeerDoesNotRead) {
  Exchange();
  peer_.LimitRoom(0);

  client_.Request(kRequest, /*end=*/true);
  Exchange();

  EXPECT_THAT(events_, ElementsAre("headers 1", "end 1"));
}

TEST_F(Http2ConnectionTest, APeerThatPingsAndReadsNoAnswerIsDropped) {
  testing::FakeClock clock;
  Exchange();
  peer_.LimitRoom(0);

  for (int i = 0; i < 2000; ++i) peer_.Send(MakeFrame(/*PING*/ 6, 0, 0, "12345678"));

  WaitForFarewell(clock);
  EXPECT_FALSE(peer_.open());
  EXPECT_THAT(events_, ElementsAre(HasSubstr("connection closed: RESOURCE_EXHAUSTED")));
}

TEST_F(Http2ConnectionTest, APeerThatForcesResetsAndReadsNoneIsDropped) {
  testing::FakeClock clock;
  refuse_streams_ = true;
  peer_.LimitRoom(0);

  for (int i = 0; i < 20'000; ++i) client_.Request(kRequest);
  peer_.SendInPieces(client_.Take(), 64 << 10);

  WaitForFarewell(clock);
  EXPECT_FALSE(peer_.open());
  EXPECT_THAT(events_, ElementsAre(HasSubstr("connection closed: RESOURCE_EXHAUSTED")));
}

TEST_F(Http2ConnectionTest, BytesThatAreNoHttp2EndTheConnectionWithAnError) {
  testing::FakeClock clock;
  peer_.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(peer_.has_farewell());

  WaitForFarewell(clock);

  EXPECT_FALSE(peer_.open());
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_THAT(events_[0], HasSubstr("INVALID_ARGUMENT"));
}

TEST_F(Http2ConnectionTest, AProtocolErrorEndsTheConnectionWithAnErrorAndTellsThePeer) {
  Exchange();
  client_.Request(kRequest);
  Exchange();

  peer_.Send(MakeFrame(/*DATA*/ 0, 0, /*stream_id=*/0, "x"));
  client_.Receive(peer_.Take());
  peer_.Close();

  EXPECT_THAT(events_, ElementsAre("headers 1", "closed 1 -1",
                                   HasSubstr("connection closed: INVALID_ARGUMENT")));
  EXPECT_THAT(client_.events(), ElementsAre("GOAWAY 1 1"));
}

// Closing at once would reset the connection under the peer's last bytes, and lose the GOAWAY.
TEST_F(Http2ConnectionTest, APeerThatBrokeTheProtocolHasTimeToReadOfIt) {
  testing::FakeClock clock;
  for (const std::string& fault : {MakeFrame(/*DATA*/ 0, 0, /*stream_id=*/0, "x"),
                                   MakeFrame(/*unknown*/ 200, 0, 0, std::string(20'000, 'x'))}) {
    connection_ = nullptr;
    Connect();
    RawHttp2Peer client(RawHttp2Peer::Role::kClient);
    peer_.Send(client.Take());
    peer_.LimitRoom(0);
    events_.clear();

    peer_.Send(fault);
    peer_.Send("bytes that nobody hears any more");
    clock.Advance(absl::Milliseconds(900));
    loop_.RunPending();
    peer_.MakeRoom();
    client.Receive(peer_.Take());

    EXPECT_THAT(client.events(), ElementsAre(HasSubstr("GOAWAY 0 ")));
    EXPECT_TRUE(peer_.has_farewell());
    WaitForFarewell(clock);
    EXPECT_THAT(events_, ElementsAre(HasSubstr("connection closed: INVALID_ARGUMENT")));
  }
}

TEST_F(Http2ConnectionTest, AProtocolErrorOfAPeerThatDoesNotReadEndsTheConnectionToo) {
  testing::FakeClock clock;
  Exchange();
  peer_.LimitRoom(3);

  peer_.Send(MakeFrame(/*DATA*/ 0, 0, /*stream_id=*/0, "x"));
  WaitForFarewell(clock);

  EXPECT_FALSE(peer_.open());
  EXPECT_THAT(events_, ElementsAre(HasSubstr("connection closed: INVALID_ARGUMENT")));
}

TEST_F(Http2ConnectionTest, HalfAFrameAndThenTheEndClosesEveryStreamOnce) {
  client_.Request(kRequest);
  client_.Request(kRequest);
  std::string bytes = client_.Take();

  for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
    events_.clear();
    connection_ = nullptr;
    Connect();
    events_.clear();
    peer_.Send(bytes.substr(0, cut));
    peer_.Close();

    EXPECT_FALSE(peer_.open());
    EXPECT_EQ(events_.back(), "connection closed: UNAVAILABLE: the peer closed the connection");
    for (const char* id : {"1", "3"}) {
      const bool opened = std::count(events_.begin(), events_.end(), absl::StrCat("headers ", id));
      EXPECT_EQ(std::count(events_.begin(), events_.end(), absl::StrCat("closed ", id, " -1")),
                opened)
          << cut;
    }
  }
}

TEST_F(Http2ConnectionTest, ABrokenConnectionSaysWhy) {
  peer_.Break();

  EXPECT_THAT(events_,
              ElementsAre("connection closed: UNAVAILABLE: connection lost: the cable was cut"));
}

TEST_F(Http2ConnectionTest, MayBeDestroyedWhenItHasEnded) {
  destroy_at_end_ = true;
  client_.Request(kRequest);
  Exchange();

  peer_.Break();
  loop_.RunPending();

  EXPECT_EQ(connection_, nullptr);
  EXPECT_THAT(events_, ElementsAre("headers 1", "closed 1 -1", HasSubstr("connection closed")));
}

TEST_F(Http2ConnectionTest, MayBeDestroyedWhenAProtocolErrorHasEndedIt) {
  testing::FakeClock clock;
  destroy_at_end_ = true;

  peer_.Send("GET / HTTP/1.1\r\n\r\n");
  WaitForFarewell(clock);

  EXPECT_EQ(connection_, nullptr);
}

TEST_F(Http2ConnectionTest, MayBeDestroyedWhenAGoawayHasEndedIt) {
  destroy_at_end_ = true;
  Exchange();
  connection_->session().SendGoaway();
  loop_.RunPending();

  peer_.Close();

  EXPECT_EQ(connection_, nullptr);
  EXPECT_THAT(events_, ElementsAre("connection closed: OK"));
}

TEST_F(Http2ConnectionTest, DestroyedWithOutputPendingItWritesNothing) {
  Answer(1000);
  const int before = peer_.writes();

  connection_ = nullptr;
  loop_.RunPending();
  peer_.MakeRoom();

  EXPECT_EQ(peer_.writes(), before);
  EXPECT_THAT(events_, ElementsAre("headers 1", "end 1", "closed 1 -1"));
}

TEST_F(Http2ConnectionTest, DestroyedWhileThePeerDoesNotReadItIsSilent) {
  Exchange();
  peer_.LimitRoom(0);
  Answer(1 << 20);
  loop_.RunPending();

  connection_ = nullptr;
  peer_.MakeRoom();

  EXPECT_EQ(events_.back(), "closed 1 -1");
}

TEST_F(Http2ConnectionTest, AGoawayEndsTheConnectionAfterTheLastStream) {
  const StreamId id = Answer(10);
  connection_->session().SendGoaway();
  Exchange();
  EXPECT_TRUE(peer_.open());

  connection_->session().SendData(id, "!", /*end_stream=*/true);
  Exchange();
  EXPECT_TRUE(peer_.has_farewell());
  peer_.Close();

  EXPECT_FALSE(peer_.open());
  EXPECT_EQ(events_.back(), "connection closed: OK");
  EXPECT_EQ(client_.body(id), "xxxxxxxxxx!");
}

TEST_F(Http2ConnectionTest, AnAnswerThatTheStreamStillHoldsIsNotCutOffAtTheEnd) {
  Exchange();
  peer_.LetStreamHold(64 << 10);
  peer_.LimitRoom(100);
  const StreamId id = Answer(10'000);
  connection_->session().SendGoaway();
  connection_->session().SendData(id, "!", /*end_stream=*/true);

  Exchange();
  EXPECT_FALSE(peer_.has_farewell());
  peer_.MakeRoom();
  Exchange();

  EXPECT_TRUE(peer_.has_farewell());
  EXPECT_EQ(client_.body(id).size(), 10'001u);
}

TEST_F(Http2ConnectionTest, ThePeersGoawayWithNothingOpenEndsTheConnection) {
  Exchange();
  client_.Goaway(0);
  Exchange();
  EXPECT_TRUE(peer_.has_farewell());
  peer_.Close();

  EXPECT_FALSE(peer_.open());
  EXPECT_THAT(events_, ElementsAre("goaway", "connection closed: OK"));
}

// Closing at once would reset the connection under the peer's last bytes, and lose what was sent
// last.
TEST_F(Http2ConnectionTest, FinishedConnectionIsOpenUntilThePeerHasClosedOrTimeIsUp) {
  Exchange();
  connection_->session().SendGoaway();
  Exchange();
  ASSERT_TRUE(peer_.has_farewell());

  peer_.Send("bytes that nobody hears any more");
  EXPECT_TRUE(peer_.open());
  loop_.RunUntil([this] { return !peer_.open(); });

  EXPECT_THAT(events_, ElementsAre("connection closed: OK"));
}

}  // namespace
}  // namespace varnic::net
