// The floods that HTTP/2 servers have been brought down with, by name, and the clients that look a
// little like them and mean no harm.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
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
using ::testing::EndsWith;
using testing::FakeClock;
using testing::FakePeer;
using ::testing::HasSubstr;
using testing::kClientPreface;
using testing::MakeFrame;
using ::testing::Not;
using testing::RawHttp2Peer;

constexpr uint8_t kData = 0;
constexpr uint8_t kHeaders = 1;
constexpr uint8_t kPriority = 2;
constexpr uint8_t kResetStream = 3;
constexpr uint8_t kSettings = 4;
constexpr uint8_t kPing = 6;
constexpr uint8_t kWindowUpdate = 8;
constexpr uint8_t kContinuation = 9;

constexpr uint32_t kCancel = 8;

const RawHttp2Peer::Fields kRequest = {
    {":method", "POST"}, {":scheme", "http"}, {":path", "/"}, {":authority", "test"}};

// The same, compressed.
constexpr std::string_view kRequestBlock = "\x83\x86\x84\x41\x04test";

RawHttp2Peer::Fields RequestWith(const std::string& name, const std::string& value) {
  RawHttp2Peer::Fields fields = kRequest;
  fields.emplace_back(name, value);
  return fields;
}

std::string Number(uint32_t number) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>(number >> shift));
  return bytes;
}

// A server's connection whose client floods it, and reads what it says. No time goes by.
class Http2FloodTest : public ::testing::Test, private Http2Connection::Visitor {
 protected:
  // Many more than any limit allows.
  static constexpr int kFlood = 20'000;

  Http2FloodTest() { options_.edge_counters = &counters_; }

  void Connect(Http2Session::Role role = Http2Session::Role::kServer) {
    Http2Connection::Visitor& visitor = *this;
    connection_ =
        std::make_unique<Http2Connection>(loop_, peer_.MakeStream(), role, options_, visitor);
    if (role == Http2Session::Role::kServer) Exchange();
  }

  // Carries bytes both ways until nobody has more to say.
  void Exchange() {
    for (bool moved = true; moved;) {
      const std::string up = client_.Take();
      moved = Send(up) || !up.empty();
    }
  }

  // True if the server has answered.
  bool Send(std::string_view bytes) {
    peer_.Send(bytes);
    loop_.RunPending();
    const std::string down = peer_.Take();
    client_.Receive(down);
    heard_ += down;
    return !down.empty();
  }

  // Once the connection has ended, there is nobody to send to.
  void Flood(std::string_view frame) {
    for (int i = 0; i < kFlood; ++i) Send(frame);
  }

  void CallAndCancel() {
    client_.Reset(Open(), kCancel);
    Exchange();
  }

  StreamId Open(const RawHttp2Peer::Fields& fields = kRequest) {
    const StreamId id = client_.Request(fields);
    Exchange();
    return id;
  }

  Http2Session& session() { return connection_->session(); }

  void ExpectAlive() {
    EXPECT_EQ(session().broken_rule(), std::nullopt);
    EXPECT_FALSE(peer_.has_farewell());
    EXPECT_THAT(client_.events(), Not(Contains(HasSubstr("GOAWAY"))));
  }

  // The client was told, was counted, and is heard no more.
  void ExpectEndedFor(EdgeRule rule) {
    // The end of a GOAWAY: ENHANCE_YOUR_CALM, and why.
    EXPECT_THAT(heard_, EndsWith(Number(11) + std::string(RuleName(rule))));
    EXPECT_TRUE(peer_.has_farewell());
    EXPECT_EQ(counters_.ended_by[static_cast<std::size_t>(rule)], 1u);
    EXPECT_EQ(open_, 0);
    const int opened = opened_;
    Open();
    EXPECT_EQ(opened_, opened);
    peer_.Close();
    EXPECT_THAT(end_, HasSubstr(absl::StrCat("RESOURCE_EXHAUSTED: ", std::string(RuleName(rule)))));
  }

  FakeClock clock_;
  EventLoop loop_;
  FakePeer peer_;
  EdgeCounters counters_;
  Http2Options options_;
  RawHttp2Peer client_{RawHttp2Peer::Role::kClient, 100, /*stream_window_bytes=*/1 << 30};
  int opened_ = 0;  // Streams, so far.
  int open_ = 0;
  std::string heard_;                            // By the client.
  std::string end_;                              // The connection's.
  std::unique_ptr<Http2Connection> connection_;  // Last: calls into the rest.

 private:
  class Handler : public Http2Session::Handler {
   public:
    explicit Handler(Http2FloodTest& test) : test_(test) { ++test_.open_, ++test_.opened_; }

   private:
    void OnHeaders(const HeaderList&) override {}
    void OnData(std::string_view) override {}
    void OnRemoteEnd() override {}
    void OnClosed(Http2Error) override { --test_.open_; }

    Http2FloodTest& test_;
  };

  std::unique_ptr<Http2Session::Handler> OnNewStream(StreamId) override {
    return std::make_unique<Handler>(*this);
  }
  void OnGoaway() override {}
  void OnConnectionClosed(const absl::Status& status) override { end_ = status.ToString(); }
};

// CVE-2023-44487.
TEST_F(Http2FloodTest, RapidReset) {
  Connect();

  for (int i = 0; i < kFlood && client_.goaway_text().empty(); ++i) CallAndCancel();

  EXPECT_LE(opened_, 2'001);
  ExpectEndedFor(EdgeRule::kResets);
}

TEST_F(Http2FloodTest, RapidResetInOneWrite) {
  Connect();
  std::string flood;

  for (StreamId id = 1; id < 6'000; id += 2) {
    flood += MakeFrame(kHeaders, /*END_HEADERS*/ 4, id, kRequestBlock) +
             MakeFrame(kResetStream, 0, id, Number(kCancel));
  }
  Send(flood);

  EXPECT_EQ(opened_, 0);
  ExpectEndedFor(EdgeRule::kResets);
}

// CVE-2025-8671, in the shapes that end a stream here and not the connection.
TEST_F(Http2FloodTest, MadeYouResetByAWindowThatOverflows) {
  Connect();

  for (int i = 0; i < kFlood && client_.goaway_text().empty(); ++i) {
    const StreamId id = client_.Request(kRequest);
    Send(client_.Take() + MakeFrame(kWindowUpdate, 0, id, Number(0x7fffffff)));
  }

  EXPECT_THAT(client_.events(), Contains("RESET 1 3"));
  EXPECT_LE(opened_, 2'001);
  EXPECT_EQ(counters_.resets_sent, 2'001u);
  ExpectEndedFor(EdgeRule::kResets);
}

TEST_F(Http2FloodTest, MadeYouResetByABodyOfTheWrongLength) {
  Connect();

  for (int i = 0; i < kFlood && client_.goaway_text().empty(); ++i) {
    const StreamId id = client_.Request(RequestWith("content-length", "1"));
    Send(client_.Take() + MakeFrame(kData, 0, id, "xx"));
  }

  EXPECT_THAT(client_.events(), Contains("RESET 1 1"));
  EXPECT_LE(opened_, 2'001);
  ExpectEndedFor(EdgeRule::kResets);
}

TEST_F(Http2FloodTest, MadeYouResetByHeadersThatAreTooLarge) {
  options_.max_header_list_bytes = 500;
  Connect();
  const auto request = RequestWith("x", std::string(5'000, 'x'));

  for (int i = 0; i < kFlood && client_.goaway_text().empty(); ++i) Open(request);

  EXPECT_THAT(client_.events(), Contains("RESET 1 11"));
  ExpectEndedFor(EdgeRule::kResets);
}

TEST_F(Http2FloodTest, HeadersThatAreFarTooLargeAreResetAndCountedOnce) {
  options_.max_header_list_bytes = 500;
  options_.floods.resets = {10, 0};
  Connect();
  const auto request = RequestWith("x", std::string(5'000, 'x'));

  for (int i = 0; i < 10; ++i) Open(request);

  EXPECT_EQ(counters_.resets_sent, 10u);
  EXPECT_EQ(opened_, 0);
  ExpectAlive();
}

// CVE-2024-27316.
TEST_F(Http2FloodTest, ContinuationFlood) {
  Connect();

  Send(MakeFrame(kHeaders, 0, 1, kRequestBlock));
  Flood(MakeFrame(kContinuation, 0, 1, std::string("\0\1x\1y", 5)));

  ExpectEndedFor(EdgeRule::kContinuations);
}

TEST_F(Http2FloodTest, EightContinuationsAreAllowed) {
  Connect();
  std::string request = MakeFrame(kHeaders, /*END_STREAM*/ 1, 1, kRequestBlock);

  for (int i = 1; i <= 8; ++i) {
    request += MakeFrame(kContinuation, i == 8 ? 4 : 0, 1, std::string("\0\1x\1y", 5));
  }
  Send(request);

  EXPECT_EQ(opened_, 1);
  ExpectAlive();
}

// CVE-2019-9512.
TEST_F(Http2FloodTest, PingFlood) {
  Connect();

  Flood(MakeFrame(kPing, 0, 0, "12345678"));

  ExpectEndedFor(EdgeRule::kControlFrames);
}

TEST_F(Http2FloodTest, FloodOfAnswersToPingsThatNobodySent) {
  Connect();

  Flood(MakeFrame(kPing, /*ACK*/ 1, 0, "12345678"));

  ExpectEndedFor(EdgeRule::kControlFrames);
}

// CVE-2019-9513: streams that change their places among each other.
TEST_F(Http2FloodTest, ResourceLoop) {
  Connect();
  Open();
  Open();

  for (int i = 0; i < kFlood; ++i) {
    Send(MakeFrame(kPriority, 0, 1, Number(i % 2 == 0 ? 3 : 0) + "\xff"));
    Send(MakeFrame(kPriority, 0, 3, Number(i % 2 == 0 ? 0 : 1) + "\x01"));
  }

  ExpectEndedFor(EdgeRule::kControlFrames);
}

// CVE-2019-9514: requests that can only be answered with a reset.
TEST_F(Http2FloodTest, ResetFlood) {
  Connect();
  const auto request = RequestWith("connection", "close");

  for (int i = 0; i < kFlood && client_.goaway_text().empty(); ++i) Open(request);

  EXPECT_THAT(client_.events(), Contains("RESET 1 1"));
  ExpectEndedFor(EdgeRule::kResets);
}

// CVE-2019-9515.
TEST_F(Http2FloodTest, SettingsFlood) {
  Connect();

  Flood(MakeFrame(kSettings, 0, 0, ""));

  ExpectEndedFor(EdgeRule::kControlFrames);
}

TEST_F(Http2FloodTest, FloodOfSettingsInFewFrames) {
  Connect();
  for (int i = 0; i < 100; ++i) Open();
  std::string settings;
  for (int i = 0; i < 30; ++i) settings += std::string("\0\4", 2) + Number(1 << 20 | i);

  for (int i = 0; i < 40; ++i) Send(MakeFrame(kSettings, 0, 0, settings));

  ExpectEndedFor(EdgeRule::kControlFrames);
}

TEST_F(Http2FloodTest, MoreSettingsThanOneFrameMayHave) {
  Connect();
  std::string settings;
  for (int i = 0; i < 33; ++i) settings += std::string("\0\4", 2) + Number(1 << 20);

  Send(MakeFrame(kSettings, 0, 0, settings));

  ExpectEndedFor(EdgeRule::kControlFrames);
}

TEST_F(Http2FloodTest, AsManySettingsAsAServerWantsMayComeInOneFrame) {
  options_.floods.settings_entries = 500;
  Connect();
  std::string settings;
  for (int i = 0; i < 500; ++i) settings += std::string("\0\4", 2) + Number(1 << 20);

  Send(MakeFrame(kSettings, 0, 0, settings));

  ExpectAlive();
}

// CVE-2019-9516.
TEST_F(Http2FloodTest, HeadersWithoutNames) {
  Connect();
  const auto request = RequestWith("", "");

  for (int i = 0; i < kFlood && client_.goaway_text().empty(); ++i) Open(request);

  EXPECT_EQ(opened_, 0);
  ExpectEndedFor(EdgeRule::kResets);
}

// CVE-2019-9518.
TEST_F(Http2FloodTest, EmptyFrames) {
  Connect();
  const StreamId id = Open();

  Flood(MakeFrame(kData, 0, id, ""));

  ExpectEndedFor(EdgeRule::kEmptyFrames);
}

TEST_F(Http2FloodTest, EmptyFramesFullOfPadding) {
  Connect();
  const StreamId id = Open();

  Flood(MakeFrame(kData, /*PADDED*/ 8, id, std::string(4, '\3')));

  ExpectEndedFor(EdgeRule::kEmptyFrames);
}

TEST_F(Http2FloodTest, WindowUpdates) {
  Connect();

  Flood(MakeFrame(kWindowUpdate, 0, 0, Number(1)));

  ExpectEndedFor(EdgeRule::kControlFrames);
}

TEST_F(Http2FloodTest, FramesOfUnknownTypes) {
  Connect();

  Flood(MakeFrame(/*type=*/200, 0, 0, "x"));

  ExpectEndedFor(EdgeRule::kControlFrames);
}

TEST_F(Http2FloodTest, AnswersLeftUnread) {
  options_.max_concurrent_streams = 100;
  options_.floods.unread_answers = 100;
  Connect();
  peer_.LimitRoom(0);

  for (int i = 0; i < 500; ++i) Send(MakeFrame(kPing, 0, 0, "12345678"));
  peer_.MakeRoom();
  Exchange();

  ExpectEndedFor(EdgeRule::kUnreadAnswers);
}

TEST_F(Http2FloodTest, APeerThatReadsLateLearnsWhyTheConnectionEnds) {
  Connect();
  peer_.LimitRoom(0);
  Flood(MakeFrame(kSettings, 0, 0, ""));
  clock_.Advance(absl::Milliseconds(900));

  peer_.MakeRoom();
  Exchange();

  ExpectEndedFor(EdgeRule::kControlFrames);
}

TEST_F(Http2FloodTest, APeerThatNeverReadsIsWaitedForASecondOnly) {
  Connect();
  peer_.LimitRoom(0);
  Flood(MakeFrame(kSettings, 0, 0, ""));
  EXPECT_TRUE(peer_.open());

  clock_.Advance(absl::Seconds(1));
  loop_.RunPending();

  EXPECT_FALSE(peer_.open());
  EXPECT_THAT(end_, HasSubstr("RESOURCE_EXHAUSTED: too_many_control_frames"));
}

TEST_F(Http2FloodTest, APeerThatGoesOnIsNotListenedToForLong) {
  Connect();
  Flood(MakeFrame(kSettings, 0, 0, ""));
  EXPECT_TRUE(peer_.open());

  for (int i = 0; i < 5; ++i) Send(std::string(1 << 20, 'x'));

  EXPECT_FALSE(peer_.open());
  EXPECT_THAT(end_, HasSubstr("RESOURCE_EXHAUSTED: too_many_control_frames"));
}

TEST_F(Http2FloodTest, EveryLimitIsAnOption) {
  options_.floods.resets = options_.floods.control_frames = {1u << 30, 0};
  options_.floods.control_frames_per_exchange = 0;
  Connect();

  for (int i = 0; i < 5'000; ++i) {
    CallAndCancel();
    Send(MakeFrame(kWindowUpdate, 0, 0, Number(1)));
    Send(MakeFrame(/*type=*/200, 0, 0, std::string(20, 'x')));
  }

  EXPECT_EQ(opened_, 5'000);
  ExpectAlive();
}

TEST_F(Http2FloodTest, AClientMayCancelAThousandCallsAtOnce) {
  Connect();
  std::string resets;

  for (int i = 0; i < 1'000; ++i) resets += MakeFrame(kResetStream, 0, Open(), Number(kCancel));
  Send(resets);

  EXPECT_EQ(open_, 0);
  EXPECT_EQ(counters_.resets_received, 1'000u);
  ExpectAlive();
}

TEST_F(Http2FloodTest, AClientMayCancelCallsForEverAtTheRate) {
  Connect();

  for (int i = 0; i < 10'000; ++i) {
    CallAndCancel();
    clock_.Advance(absl::Milliseconds(10));
  }

  EXPECT_EQ(opened_, 10'000);
  ExpectAlive();
}

TEST_F(Http2FloodTest, ResetsThatTheHostWantsEndNothing) {
  Connect();

  for (int i = 0; i < 5'000; ++i) {
    session().Reset(Open(), Http2Error::kEnhanceYourCalm);
    Exchange();
  }

  EXPECT_EQ(counters_.resets_sent, 5'000u);
  ExpectAlive();
}

TEST_F(Http2FloodTest, CallsThatAreAnsweredEarlyEndNothing) {
  Connect();

  for (int i = 0; i < 5'000; ++i) {
    const StreamId id = Open();
    session().SendHeaders(id, {{":status", "200"}}, /*end_stream=*/true);
    Exchange();
    // As many clients do, although the server has just done so.
    Send(MakeFrame(kResetStream, 0, id, Number(kCancel)));
  }

  EXPECT_EQ(counters_.resets_received, 5'000u);
  ExpectAlive();
}

TEST_F(Http2FloodTest, AReaderThatAnswersEveryFrameEndsNothing) {
  Connect();
  const StreamId id = Open();
  session().SendHeaders(id, {{":status", "200"}}, /*end_stream=*/false);

  for (int i = 0; i < 5'000; ++i) {
    session().SendData(id, "event", /*end_stream=*/false);
    Exchange();
    client_.Read(0, 5);
    client_.Read(id, 5);
    client_.Ping();
  }

  Exchange();
  ExpectAlive();
}

TEST_F(Http2FloodTest, AClientsOwnSessionIsNotGuarded) {
  Connect(Http2Session::Role::kClient);
  peer_.Send(MakeFrame(kSettings, 0, 0, ""));

  Flood(MakeFrame(kWindowUpdate, 0, 0, Number(1)));

  EXPECT_EQ(session().broken_rule(), std::nullopt);
  EXPECT_TRUE(peer_.open());
}

}  // namespace
}  // namespace varnic::net
