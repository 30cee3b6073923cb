// What a connection does about a peer that is silent, idle or does not read, as time passes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/net/http2_connection.h"
#include "core/net/testing/fake_byte_stream.h"
#include "core/net/testing/fake_clock.h"
#include "core/net/testing/raw_http2_peer.h"

namespace varnic::net {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using testing::FakePeer;
using ::testing::HasSubstr;
using testing::kClientPreface;
using testing::MakeFrame;
using ::testing::Not;
using testing::RawHttp2Peer;

const RawHttp2Peer::Fields kRequest = {
    {":method", "POST"}, {":scheme", "http"}, {":path", "/"}, {":authority", "test"}};

// A server's connection with the default limits; the client gives no window but the first 64 KiB.
class Http2ConnectionLimitsTest : public ::testing::Test, private Http2Connection::Visitor {
 protected:
  Http2ConnectionLimitsTest() {
    options_.edge_counters = &counters_;
    Connect(ConnectionLimits());
  }

  void Connect(const ConnectionLimits& limits) {
    connection_ = nullptr;
    Http2Connection::Visitor& visitor = *this;
    connection_ = std::make_unique<Http2Connection>(
        loop_, peer_.MakeStream(), Http2Session::Role::kServer, options_, visitor, limits);
  }

  // Carries bytes both ways until nobody has more to say.
  void Exchange() {
    for (bool moved = true; moved;) {
      const std::string up = client_.Take();
      peer_.Send(up);
      while (loop_.RunPending() > 0) {
      }
      const std::string down = peer_.Take();
      client_.Receive(down);
      moved = !up.empty() || !down.empty();
    }
  }

  // The client says nothing of its own until then, but answers.
  void Wait(absl::Duration duration, absl::Duration step = absl::Seconds(1)) {
    for (; duration > absl::ZeroDuration(); duration -= step) {
      clock_.Advance(step);
      Exchange();
    }
  }
  // Does not even answer.
  void WaitInSilence(absl::Duration duration, absl::Duration step = absl::Seconds(1)) {
    for (; duration > absl::ZeroDuration(); duration -= step) {
      clock_.Advance(step);
      while (loop_.RunPending() > 0) {
      }
    }
    client_.Receive(peer_.Take());
  }

  // A stream with an answer of `size` bytes and no end.
  StreamId Answer(std::size_t size) {
    const StreamId id = client_.Request(kRequest, /*end=*/true);
    Exchange();
    connection_->session().SendHeaders(id, {{":status", "200"}}, /*end_stream=*/false);
    if (size > 0) {
      connection_->session().SendData(id, std::string(size, 'x'), /*end_stream=*/false);
    }
    Exchange();
    return id;
  }

  std::uint64_t ended_by(EdgeRule rule) const {
    return counters_.ended_by[static_cast<std::size_t>(rule)];
  }

  testing::FakeClock clock_;
  EventLoop loop_;
  FakePeer peer_;
  EdgeCounters counters_;
  Http2Options options_;
  RawHttp2Peer client_{RawHttp2Peer::Role::kClient};
  std::vector<std::string> events_;              // "closed 1 error", "connection closed: status".
  std::unique_ptr<Http2Connection> connection_;  // Last: calls into the rest.

 private:
  class Handler : public Http2Session::Handler {
   public:
    Handler(std::vector<std::string>& events, StreamId id) : events_(events), id_(id) {}

   private:
    void OnHeaders(const HeaderList&) override {}
    void OnData(std::string_view) override {}
    void OnRemoteEnd() override {}
    void OnClosed(Http2Error error) override {
      events_.push_back(absl::StrCat("closed ", id_, " ", static_cast<int32_t>(error)));
    }

    std::vector<std::string>& events_;
    const StreamId id_;
  };

  std::unique_ptr<Http2Session::Handler> OnNewStream(StreamId stream_id) override {
    return std::make_unique<Handler>(events_, stream_id);
  }
  void OnGoaway() override {}
  void OnConnectionClosed(const absl::Status& status) override {
    events_.push_back("connection closed: " + status.ToString());
  }
};

using HandshakeTimeoutTest = Http2ConnectionLimitsTest;

TEST_F(HandshakeTimeoutTest, PeerThatSaysNothingIsClosed) {
  WaitInSilence(absl::Seconds(9));
  EXPECT_TRUE(peer_.open());
  EXPECT_THAT(client_.events(), ElementsAre());

  WaitInSilence(absl::Seconds(2));

  EXPECT_FALSE(peer_.open());
  EXPECT_EQ(client_.goaway_text(), "handshake_timeout");
  EXPECT_THAT(events_, ElementsAre(HasSubstr("handshake_timeout")));
  EXPECT_EQ(ended_by(EdgeRule::kHandshake), 1u);
}

TEST_F(HandshakeTimeoutTest, PeerThatSaysTheBeginningByteByByteIsClosed) {
  const std::string greeting = std::string(kClientPreface) + MakeFrame(/*SETTINGS*/ 4, 0, 0, "");

  for (std::size_t byte = 0; byte + 1 < greeting.size(); ++byte) {
    peer_.Send(greeting.substr(byte, 1));
    WaitInSilence(absl::Milliseconds(300), absl::Milliseconds(300));
  }
  WaitInSilence(absl::Seconds(2));

  EXPECT_FALSE(peer_.open());
}

TEST_F(HandshakeTimeoutTest, PeerThatHasSentItsSettingsIsNot) {
  peer_.Send(std::string(kClientPreface) + MakeFrame(/*SETTINGS*/ 4, 0, 0, ""));

  WaitInSilence(absl::Minutes(5));

  EXPECT_TRUE(peer_.open());
}

using IdleConnectionTest = Http2ConnectionLimitsTest;

TEST_F(IdleConnectionTest, EndsWithAGoawayThatIsNoError) {
  Exchange();
  Wait(absl::Minutes(59), absl::Minutes(1));
  EXPECT_THAT(client_.events(), ElementsAre());

  Wait(absl::Minutes(15), absl::Minutes(1));

  EXPECT_THAT(client_.events(), ElementsAre("GOAWAY 0 0"));
  EXPECT_EQ(client_.goaway_text(), "max_idle");
  EXPECT_THAT(events_, ElementsAre("connection closed: OK"));
  EXPECT_EQ(ended_by(EdgeRule::kIdle), 1u);
}

TEST_F(IdleConnectionTest, StreamThatIsOpenAndQuietKeepsItOpen) {
  Answer(/*size=*/100);

  Wait(absl::Hours(100), absl::Minutes(1));

  EXPECT_TRUE(peer_.open());
  EXPECT_THAT(events_, ElementsAre());
}

TEST_F(IdleConnectionTest, CallNowAndThenKeepsItOpen) {
  for (int call = 0; call < 10; ++call) {
    const StreamId id = Answer(10);
    client_.Reset(id, 8);
    Wait(absl::Minutes(50), absl::Minutes(1));
  }

  EXPECT_TRUE(peer_.open());
}

TEST_F(IdleConnectionTest, CallBehindTheEndIsNotServed) {
  Exchange();
  for (int minute = 0; minute < 90 && ended_by(EdgeRule::kIdle) == 0; ++minute) {
    clock_.Advance(absl::Minutes(1));
    loop_.RunPending();  // No more than one turn of the loop.
  }

  client_.Request(kRequest, /*end=*/true);
  Exchange();

  EXPECT_EQ(client_.goaway_text(), "max_idle");
  EXPECT_EQ(connection_->session().activity().streams_opened, 0u);
}

using StalledPeerTest = Http2ConnectionLimitsTest;

TEST_F(StalledPeerTest, StreamWhoseWindowStaysClosedIsResetAmongOthers) {
  const StreamId stalled = Answer(100 << 10);
  const StreamId quiet = Answer(0);
  client_.Read(0, 1 << 20);
  Wait(absl::Seconds(59));
  EXPECT_THAT(events_, ElementsAre());

  Wait(absl::Seconds(20));

  EXPECT_THAT(events_, ElementsAre(absl::StrCat("closed ", stalled, " 11")));
  EXPECT_THAT(client_.events(), Contains(absl::StrCat("RESET ", stalled, " 11")));
  connection_->session().SendData(quiet, "still there", /*end_stream=*/false);
  Exchange();
  EXPECT_EQ(client_.body(quiet), "still there");
}

TEST_F(StalledPeerTest, ConnectionOfWhichNothingMovesIsClosed) {
  Answer(100 << 10);

  Wait(absl::Seconds(80));

  EXPECT_FALSE(peer_.open());
  EXPECT_EQ(client_.goaway_text(), "peer_reads_nothing");
  EXPECT_THAT(events_, Contains(HasSubstr("peer_reads_nothing")));
  EXPECT_EQ(ended_by(EdgeRule::kStalled), 1u);
}

TEST_F(StalledPeerTest, WindowsThatOpenByteByByteAreOfNoUse) {
  const StreamId id = Answer(100 << 10);
  for (int second = 0; second < 80; ++second) {
    client_.Read(0, 1);
    client_.Read(id, 1);
    Wait(absl::Seconds(1));
  }

  EXPECT_FALSE(peer_.open());
}

TEST_F(StalledPeerTest, SlowReaderIsServed) {
  const StreamId id = Answer(100 << 10);
  while (client_.body(id).size() < 100 << 10) {
    client_.Read(0, 2000);
    client_.Read(id, 2000);
    Wait(absl::Seconds(45));
    ASSERT_TRUE(peer_.open());
  }
}

TEST_F(StalledPeerTest, SocketThatTakesNothingIsClosed) {
  Exchange();
  peer_.LimitRoom(10);
  const StreamId id = Answer(100);
  Wait(absl::Seconds(59));
  EXPECT_TRUE(peer_.open());

  Wait(absl::Seconds(20));

  EXPECT_FALSE(peer_.open());
  EXPECT_THAT(events_, Contains(absl::StrCat("closed ", id, " -1")));
}

TEST_F(StalledPeerTest, SocketThatTakesNothingIsClosedWhateverElseThereIsToSay) {
  Exchange();
  peer_.LimitRoom(10);
  const StreamId id = Answer(100);
  WaitInSilence(absl::Seconds(10));
  connection_->session().SendData(id, "one word more", /*end_stream=*/false);

  WaitInSilence(absl::Seconds(80));

  EXPECT_FALSE(peer_.open());
  EXPECT_THAT(events_, Contains(HasSubstr("peer_reads_nothing")));
  EXPECT_EQ(ended_by(EdgeRule::kStalled), 1u);
}

TEST_F(StalledPeerTest, StreamThatHoldsAllAndGetsNothingThroughIsClosed) {
  Exchange();
  peer_.LetStreamHold(64 << 10);
  peer_.LimitRoom(10);
  Answer(100);
  Wait(absl::Seconds(59));
  EXPECT_TRUE(peer_.open());

  Wait(absl::Seconds(20));

  EXPECT_FALSE(peer_.open());
  EXPECT_EQ(ended_by(EdgeRule::kStalled), 1u);
}

TEST_F(StalledPeerTest, StreamThatHoldsAllAndGetsItThroughSlowlyIsNot) {
  Exchange();
  peer_.LetStreamHold(64 << 10);
  peer_.LimitRoom(10);
  const StreamId id = Answer(50 << 10);

  while (client_.body(id).size() < 50 << 10) {
    peer_.MakeRoom(2000);
    Wait(absl::Seconds(45));
    ASSERT_TRUE(peer_.open());
  }
}

TEST_F(StalledPeerTest, SocketThatTakesEverythingLateIsNot) {
  Exchange();
  for (int turn = 0; turn < 20; ++turn) {
    peer_.LimitRoom(0);
    connection_->session().SendPing();
    Wait(absl::Seconds(45));
    peer_.MakeRoom();
    Wait(absl::Seconds(1));
  }

  EXPECT_TRUE(peer_.open());
}

TEST_F(StalledPeerTest, QuietSubscriptionIsNeverTouched) {
  const StreamId id = Answer(65535);  // All the window that there is.
  Wait(absl::Hours(10), absl::Seconds(10));

  EXPECT_THAT(events_, ElementsAre());
  EXPECT_EQ(client_.body(id).size(), 65535u);
}

using ServerKeepaliveTest = Http2ConnectionLimitsTest;

TEST_F(ServerKeepaliveTest, PeerThatAnswersThePingStays) {
  Answer(10);

  Wait(absl::Hours(5), absl::Minutes(1));

  EXPECT_THAT(client_.events(), Contains("PING"));
  EXPECT_TRUE(peer_.open());
}

TEST_F(ServerKeepaliveTest, PeerThatDoesNotAnswerIsGivenUp) {
  const StreamId id = Answer(10);
  WaitInSilence(absl::Minutes(119), absl::Minutes(1));
  EXPECT_THAT(client_.events(), Not(Contains("PING")));

  WaitInSilence(absl::Minutes(35), absl::Seconds(10));

  EXPECT_THAT(client_.events(), Contains("PING"));
  EXPECT_FALSE(peer_.open());
  EXPECT_THAT(events_,
              ElementsAre(absl::StrCat("closed ", id, " -1"), HasSubstr("keepalive_timeout")));
  EXPECT_EQ(ended_by(EdgeRule::kKeepalive), 1u);
}

TEST_F(ServerKeepaliveTest, PeerThatDoesNotEvenReadIsGivenUp) {
  ConnectionLimits limits = ConnectionLimits::None();
  limits.keepalive_time = absl::Seconds(100);
  limits.keepalive_timeout = absl::Seconds(20);
  Connect(limits);
  Exchange();
  peer_.LimitRoom(10);
  Answer(100);

  WaitInSilence(absl::Minutes(3));

  EXPECT_FALSE(peer_.open());
  EXPECT_EQ(ended_by(EdgeRule::kKeepalive), 1u);
}

using ClientPingsTest = Http2ConnectionLimitsTest;

TEST_F(ClientPingsTest, EveryTenSecondsAreFine) {
  Answer(10);
  for (int ping = 0; ping < 100; ++ping) {
    client_.Ping();
    Wait(absl::Seconds(10));
  }

  EXPECT_TRUE(peer_.open());
  EXPECT_EQ(client_.goaway_text(), "");
}

TEST_F(ClientPingsTest, ThatFollowAnAnswerAreFine) {
  const StreamId id = Answer(10);
  for (int ping = 0; ping < 100; ++ping) {
    connection_->session().SendData(id, "x", /*end_stream=*/false);
    Exchange();
    client_.Ping();
    Exchange();
  }

  EXPECT_TRUE(peer_.open());
}

TEST_F(ClientPingsTest, EverySecondAreTooMany) {
  Answer(10);
  for (int ping = 0; ping < 10; ++ping) {
    client_.Ping();
    Wait(absl::Seconds(1));
  }

  EXPECT_FALSE(peer_.open());
  EXPECT_THAT(client_.events(), Contains("GOAWAY 1 11"));
  EXPECT_EQ(client_.goaway_text(), "too_many_pings");
  EXPECT_EQ(ended_by(EdgeRule::kPings), 1u);
}

}  // namespace
}  // namespace varnic::net
