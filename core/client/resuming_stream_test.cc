#include "core/client/resuming_stream.h"

#include <gmock/gmock.h>
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

namespace varnic {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::ScriptedServer;

// A stream whose owner writes down what it hears, each with `name` in front.
class RecordedStream : private ResumingStream::Visitor {
 public:
  RecordedStream(Client& client, const google::protobuf::MethodDescriptor& method,
                 std::vector<std::string>& heard, std::string name = "")
      : heard_(heard), name_(std::move(name)) {
    ResumingStream::Visitor& visitor = *this;
    stream_ = std::make_unique<ResumingStream>(client, method, visitor);
  }

  void Send(std::string framed) { stream_->Send(std::move(framed)); }
  void Destroy() { stream_ = nullptr; }

  std::string first;                             // What OnOpen() gives.
  absl::Status verdict;                          // What OnMessage() gives.
  std::function<void(const std::string&)> then;  // Given what was heard.

 private:
  std::string OnOpen() override {
    heard_.push_back(name_ + "open");
    return first;
  }
  void OnUp() override { Hear("up"); }
  absl::Status OnMessage(std::string_view message) override {
    const absl::Status given = verdict;
    Hear(absl::StrCat("message of ", message.size()));
    return given;
  }
  void OnDown(const absl::Status& why, absl::Duration retry_in) override {
    Hear(absl::StrCat("down ", absl::StatusCodeToString(why.code()), " ",
                      absl::FormatDuration(retry_in)));
  }
  void OnEnd(const absl::Status& status) override { Hear("end " + status.ToString()); }

  void Hear(const std::string& what) {
    heard_.push_back(name_ + what);
    if (then != nullptr) then(what);
  }

  std::vector<std::string>& heard_;
  const std::string name_;
  std::unique_ptr<ResumingStream> stream_;
};

class ResumingStreamTest : public testing::StreamTest {
 protected:
  void Listen(const net::Http2Options& options = {}) {
    server_ = std::make_unique<ScriptedServer>(loop_, address_, options);
    server_->on_open = [this](net::Http2Session& session, net::StreamId stream_id) {
      if (server_->framing == "envelope") Accept(session, stream_id);
    };
  }
  void Open(const std::string& name = "") {
    streams_.push_back(
        std::make_unique<RecordedStream>(*client_, Method("WhenNetworkChanged"), heard_, name));
  }
  // A stream that is up, and of which nothing is in `heard_`.
  void OpenAndSettle() {
    Open();
    Settle();
    heard_.clear();
  }
  RecordedStream& stream() { return *streams_[0]; }

  static void Accept(net::Http2Session& session, net::StreamId stream_id) {
    ScriptedServer::SendHeaders(session, stream_id);
  }
  static ScriptedServer::Script EndWith(const std::string& grpc_status) {
    return [grpc_status](net::Http2Session& session, net::StreamId stream_id) {
      ScriptedServer::SendHeaders(session, stream_id);
      session.SendTrailers(stream_id, {{"grpc-status", grpc_status}});
    };
  }
  static std::string Framed(std::size_t size) {
    google::protobuf::StringValue value;
    value.set_value(std::string(size, 'x'));
    return net::FrameMessage(value);
  }

  std::unique_ptr<ScriptedServer> server_;
  std::vector<std::unique_ptr<net::ByteStream>> silent_;
  std::vector<std::unique_ptr<RecordedStream>> streams_;
};

using ResumingStreamDeathTest = ResumingStreamTest;

TEST_F(ResumingStreamTest, OpensInTheEnvelopeFramingAndSendsWhatItsOwnerHasFirst) {
  Listen();
  Open();
  stream().first = "\x01\x02";

  Settle();

  EXPECT_THAT(heard_, ElementsAre("open", "up"));
  EXPECT_EQ(server_->framing, "envelope");
  EXPECT_EQ(server_->received, "\x01\x02");
}

TEST_F(ResumingStreamTest, NothingIsHeardInsideTheConstructor) {
  Listen();
  Open();

  EXPECT_THAT(heard_, IsEmpty());
}

TEST_F(ResumingStreamTest, MessagesGoBothWays) {
  Listen();
  server_->on_open = [](net::Http2Session& session, net::StreamId stream_id) {
    ScriptedServer::SendHeaders(session, stream_id);
    ScriptedServer::SendMessage(session, stream_id, "12345");
  };
  Open();
  Settle();

  stream().Send("abc");
  Settle();

  EXPECT_THAT(heard_, ElementsAre("open", "up", "message of 7"));
  EXPECT_EQ(server_->received, "abc");
}

TEST_F(ResumingStreamTest, UnreachableServerIsTriedWithTheBackoffForEver) {
  Open();
  Settle();
  for (const double seconds : {1.0, 1.6, 2.56}) Advance(absl::Seconds(seconds));

  EXPECT_THAT(heard_, ElementsAre("down UNAVAILABLE 1s", "down UNAVAILABLE 1.6s",
                                  "down UNAVAILABLE 2.56s", "down UNAVAILABLE 4.096s"));
}

TEST_F(ResumingStreamTest, NoAttemptIsMadeBeforeItsTime) {
  OpenAndSettle();
  Listen();

  Advance(absl::Seconds(0.99));
  EXPECT_EQ(server_->accepted, 0);

  Advance(absl::Seconds(0.01));
  EXPECT_EQ(server_->accepted, 1);
  EXPECT_THAT(heard_, ElementsAre("open", "up"));
}

TEST_F(ResumingStreamTest, LongestDelayIsTwoMinutes) {
  Open();
  Settle();
  for (int i = 0; i < 20; ++i) Advance(absl::Seconds(120));

  EXPECT_EQ(heard_.back(), "down UNAVAILABLE 2m");
}

TEST_F(ResumingStreamTest, StreamThatLivedLongerThanTheFirstDelayComesBackAtOnce) {
  Listen();
  OpenAndSettle();
  Advance(absl::Seconds(1));

  server_->CloseConnections();
  Settle();

  EXPECT_THAT(heard_, ElementsAre("down UNAVAILABLE 0", "open", "up"));
  EXPECT_EQ(server_->accepted, 2);
}

TEST_F(ResumingStreamTest, ServerThatTakesConnectionsAwaySeesOneAttemptASecond) {
  Listen();
  OpenAndSettle();
  for (int i = 0; i < 100; ++i) {
    server_->CloseConnections();
    Settle();
    Advance(absl::Milliseconds(100));
  }

  EXPECT_EQ(server_->accepted, 11);
}

TEST_F(ResumingStreamTest, ServerThatEndsStreamsAsSoonAsTheyAreUpSeesOneAttemptASecond) {
  Listen();
  server_->on_open = EndWith("14");
  Open();
  Settle();
  for (int i = 0; i < 100; ++i) Advance(absl::Milliseconds(100));

  EXPECT_EQ(server_->opened, 11);
  EXPECT_EQ(server_->accepted, 1);
}

TEST_F(ResumingStreamTest, ServerThatNeverLetsAStreamUpIsLeftAloneMoreAndMore) {
  Listen();
  server_->on_open = [](net::Http2Session& session, net::StreamId stream_id) {
    ScriptedServer::Refuse(session, stream_id, "14");
  };
  Open();
  Settle();
  for (const double seconds : {1.0, 1.6}) Advance(absl::Seconds(seconds));

  EXPECT_THAT(heard_, ElementsAre("open", "down UNAVAILABLE 1s", "open", "down UNAVAILABLE 1.6s",
                                  "open", "down UNAVAILABLE 2.56s"));
}

TEST_F(ResumingStreamTest, ServerThatClosesEveryConnectionIsLeftAloneMoreAndMore) {
  Listen();
  server_->close_at_once = true;
  Open();
  Settle();
  for (const double seconds : {1.0, 1.6}) Advance(absl::Seconds(seconds));

  EXPECT_THAT(heard_, ElementsAre("open", "down UNAVAILABLE 1s", "open", "down UNAVAILABLE 1.6s",
                                  "open", "down UNAVAILABLE 2.56s"));
}

TEST_F(ResumingStreamTest, SuccessAfterManyFailuresBeginsTheBackoffAnew) {
  OpenAndSettle();
  for (int i = 0; i < 10; ++i) Advance(absl::Seconds(120));
  Listen();
  Advance(absl::Seconds(120));
  heard_.clear();

  server_ = nullptr;
  Settle();

  EXPECT_THAT(heard_, ElementsAre("down UNAVAILABLE 1s"));
}

TEST_F(ResumingStreamTest, StatusOtherThanUnavailableIsTheEnd) {
  Listen();
  server_->on_open = EndWith("7");
  Open();
  Settle();
  Advance(absl::Hours(1));

  EXPECT_THAT(heard_, ElementsAre("open", "up", "end PERMISSION_DENIED: "));
  EXPECT_EQ(server_->opened, 1);
}

TEST_F(ResumingStreamTest, StatusZeroIsTheEnd) {
  Listen();
  server_->on_open = EndWith("0");
  Open();
  Settle();
  Advance(absl::Hours(1));

  EXPECT_THAT(heard_, ElementsAre("open", "up", "end OK"));
}

TEST_F(ResumingStreamTest, RefusedStreamIsTriedAgainAndACancelledOneIsOver) {
  Listen();
  server_->on_open = [](net::Http2Session& session, net::StreamId stream_id) {
    session.Reset(stream_id, net::Http2Error::kRefusedStream);
  };
  Open();
  Settle();
  server_->on_open = [](net::Http2Session& session, net::StreamId stream_id) {
    session.Reset(stream_id, net::Http2Error::kCancel);
  };
  Advance(absl::Seconds(1));

  ASSERT_EQ(heard_.size(), 4U);
  EXPECT_EQ(heard_[1], "down UNAVAILABLE 1s");
  EXPECT_THAT(heard_[3], HasSubstr("end CANCELLED"));
}

TEST_F(ResumingStreamTest, WhatCanNeverWorkIsTheEnd) {
  for (const char* target : {"nonsense", "example.org:80"}) {
    Client client(loop_, target, WithoutJitter());
    heard_.clear();
    RecordedStream never(client, Method("WhenNetworkChanged"), heard_);
    Settle();
    Advance(absl::Hours(1));

    EXPECT_THAT(heard_, ElementsAre(AllOf(HasSubstr("end INVALID_ARGUMENT"), HasSubstr(target))));
  }
}

TEST_F(ResumingStreamTest, TlsThatCannotBeSetUpIsTheEnd) {
  ClientOptions no_tcp = WithoutJitter();
  no_tcp.tls.emplace();
  ClientOptions no_file = no_tcp;
  no_file.tls->ca_file = ::testing::TempDir() + "no such file";
  Client first(loop_, address_, no_tcp);
  Client second(loop_, "127.0.0.1:1", no_file);

  RecordedStream never_tcp(first, Method("WhenNetworkChanged"), heard_);
  RecordedStream never_file(second, Method("WhenNetworkChanged"), heard_);
  Settle();
  Advance(absl::Hours(1));

  EXPECT_THAT(heard_, ElementsAre(HasSubstr("end INVALID_ARGUMENT"),
                                  AllOf(HasSubstr("end "), HasSubstr("no such file"))));
}

TEST_F(ResumingStreamTest, StreamThatHasMuchToSendFirstIsUpOnceItIsOnItsWay) {
  Listen();
  Open();
  stream().first = Framed(3'000'000);  // More than the server's windows.
  std::size_t received_when_up = 0;
  stream().then = [&](const std::string& /*what*/) { received_when_up = server_->received.size(); };

  Settle();

  EXPECT_THAT(heard_, ElementsAre("open", "up"));
  EXPECT_GE(received_when_up, 1'000'000U);
  EXPECT_EQ(server_->received.size(), stream().first.size());
}

TEST_F(ResumingStreamTest, StreamStaysOnAConnectionThatTakesNoMoreCallsAndNewOnesGoElsewhere) {
  Listen();
  net::Http2Session* first = nullptr;
  server_->on_open = [&](net::Http2Session& session, net::StreamId stream_id) {
    first = &session;
    Accept(session, stream_id);
  };
  OpenAndSettle();
  server_->on_open = Accept;
  first->SendGoaway();
  Settle();

  Open("second ");
  Settle();
  EXPECT_THAT(heard_, ElementsAre("second open", "second up"));
  EXPECT_EQ(server_->accepted, 2);

  Advance(absl::Seconds(1));
  first->SendTrailers(1, {{"grpc-status", "14"}});
  Settle();
  EXPECT_THAT(heard_, ElementsAre("second open", "second up", "down UNAVAILABLE 0", "open", "up"));
  EXPECT_EQ(server_->accepted, 2);
}

TEST_F(ResumingStreamTest, StreamsShareTheAttemptsToConnect) {
  for (const char* name : {"a ", "b ", "c "}) Open(name);
  Settle();
  EXPECT_THAT(heard_, ElementsAre("a down UNAVAILABLE 1s", "b down UNAVAILABLE 1s",
                                  "c down UNAVAILABLE 1s"));

  Listen();
  Advance(absl::Seconds(1));

  EXPECT_EQ(server_->accepted, 1);
  EXPECT_EQ(server_->opened, 3);
}

TEST_F(ResumingStreamTest, NewStreamTriesAtOnceWhileOthersWait) {
  Open("old ");
  Settle();
  for (int i = 0; i < 10; ++i) Advance(absl::Seconds(120));
  Listen();
  heard_.clear();

  Open("new ");
  Settle();

  EXPECT_THAT(heard_, ElementsAre("old open", "new open", "old up", "new up"));
}

TEST_F(ResumingStreamTest, UnaryCallThatFindsTheServerBringsWaitingStreamsBack) {
  OpenAndSettle();
  for (int i = 0; i < 10; ++i) Advance(absl::Seconds(120));
  Listen();
  heard_.clear();
  google::protobuf::StringValue path;
  absl::Status status = absl::UnknownError("");

  client_->Call(Method("Path"), ProfileId(), path, absl::InfiniteDuration(),
                [&](const absl::Status& result) { status = result; });
  Settle();

  EXPECT_EQ(status, absl::OkStatus());
  EXPECT_THAT(heard_, ElementsAre("open", "up"));
  EXPECT_EQ(server_->accepted, 1);
}

TEST_F(ResumingStreamTest, UnaryCallThatFindsNoServerFailsAtOnceAndDisturbsNoStream) {
  OpenAndSettle();
  google::protobuf::StringValue path;
  std::vector<absl::StatusCode> codes;
  for (int i = 0; i < 5; ++i) {
    client_->Call(Method("Path"), ProfileId(), path, absl::InfiniteDuration(),
                  [&](const absl::Status& result) { codes.push_back(result.code()); });
    Settle();
  }
  EXPECT_EQ(codes, std::vector<absl::StatusCode>(5, absl::StatusCode::kUnavailable));
  EXPECT_THAT(heard_, IsEmpty());

  Advance(absl::Seconds(1));
  EXPECT_THAT(heard_, ElementsAre("down UNAVAILABLE 1.6s"));
}

TEST_F(ResumingStreamTest, StreamsThatComeAndGoDoNotSlowDownLaterOnes) {
  for (int i = 0; i < 10; ++i) {
    OpenAndSettle();
    streams_.clear();
  }
  Advance(absl::Hours(1));

  Open();
  Settle();

  EXPECT_THAT(heard_, ElementsAre("down UNAVAILABLE 1s"));
}

TEST_F(ResumingStreamTest, DestroyedStreamIsResetAndSaysNothing) {
  Listen();
  OpenAndSettle();

  streams_.clear();
  Settle();

  EXPECT_THAT(heard_, IsEmpty());
  EXPECT_EQ(server_->resets, 1);
}

TEST_F(ResumingStreamTest, StreamDestroyedBeforeItOpensOrWhileItWaitsIsNeverOpened) {
  Open();
  streams_.clear();
  Settle();
  OpenAndSettle();
  streams_.clear();
  Listen();
  Advance(absl::Seconds(10));

  EXPECT_EQ(server_->accepted, 0);
}

TEST_F(ResumingStreamTest, ClientGoesWithoutItsStreamsHearingOfIt) {
  Listen();
  OpenAndSettle();

  streams_.clear();
  client_ = nullptr;
  Settle();

  EXPECT_THAT(heard_, IsEmpty());
}

TEST_F(ResumingStreamDeathTest, ClientThatGoesBeforeItsStreamsIsFatal) {
  Listen();
  OpenAndSettle();

  EXPECT_DEATH(client_ = nullptr, "before its streams");
}

TEST_F(ResumingStreamTest, EndlessDelayIsNoEnd) {
  ClientOptions options = WithoutJitter();
  options.backoff.initial = absl::InfiniteDuration();
  Client client(loop_, address_, options);
  {
    RecordedStream waiting(client, Method("WhenNetworkChanged"), heard_);
    Settle();

    EXPECT_THAT(heard_, ElementsAre("down UNAVAILABLE inf"));
  }
}

TEST_F(ResumingStreamTest, PeerThatVanishesWithoutAWordIsNoticed) {
  // The kernel takes the connection; nobody ever reads from it.
  const auto listener = net::Listener::Listen(
      loop_, *net::Address::Parse("127.0.0.1:0"),
      [&](std::unique_ptr<net::ByteStream> stream) { silent_.push_back(std::move(stream)); });
  ASSERT_TRUE(listener.ok());
  Client client(loop_, (*listener)->address().ToString(), WithoutJitter());
  RecordedStream stream(client, Method("WhenNetworkChanged"), heard_);
  while (silent_.empty()) Settle();
  Settle();

  Advance(absl::Minutes(5));
  EXPECT_THAT(heard_, ElementsAre("open"));
  Advance(absl::Seconds(20));

  EXPECT_THAT(heard_, ElementsAre("open", "down UNAVAILABLE 0", "open"));
}

TEST_F(ResumingStreamTest, StreamMayBeDestroyedInEachOfItsCallbacks) {
  Listen();
  for (const std::string where : {"up", "message of 7", "down UNAVAILABLE 1s", "end OK"}) {
    server_->on_open = [&](net::Http2Session& session, net::StreamId stream_id) {
      ScriptedServer::SendHeaders(session, stream_id);
      ScriptedServer::SendMessage(session, stream_id, "12345");
      ScriptedServer::SendMessage(session, stream_id, "12345");
      session.SendTrailers(stream_id, {{"grpc-status", where == "end OK" ? "0" : "14"}});
    };
    heard_.clear();
    streams_.clear();
    Open();
    stream().then = [&](const std::string& what) {
      if (what == where) stream().Destroy();
    };
    Settle();
    Advance(absl::Seconds(10));

    EXPECT_EQ(heard_.back(), where);
  }
}

TEST_F(ResumingStreamTest, CallbackOfAFailedAttemptMayDestroyTheOtherStreams) {
  for (const char* name : {"a ", "b ", "c "}) Open(name);
  streams_[0]->then = [this](const std::string& /*what*/) {
    for (const auto& one : streams_) one->Destroy();
  };

  Settle();
  Advance(absl::Seconds(10));

  EXPECT_THAT(heard_, ElementsAre("a down UNAVAILABLE 1s"));
}

TEST_F(ResumingStreamTest, CallbackOfALostConnectionMayDestroyTheOtherStreams) {
  Listen();
  for (const char* name : {"a ", "b ", "c "}) Open(name);
  Settle();
  heard_.clear();
  for (const auto& one : streams_) {
    one->then = [this](const std::string& /*what*/) {
      for (const auto& other : streams_) other->Destroy();
    };
  }

  server_ = nullptr;
  Settle();
  Advance(absl::Seconds(10));

  EXPECT_EQ(heard_.size(), 1U);
}

TEST_F(ResumingStreamTest, OwnerThatRejectsAMessageEndsTheStream) {
  Listen();
  server_->on_open = [](net::Http2Session& session, net::StreamId stream_id) {
    ScriptedServer::SendHeaders(session, stream_id);
    ScriptedServer::SendMessage(session, stream_id, "12345");
    ScriptedServer::SendMessage(session, stream_id, "12345");
  };
  Open();
  stream().verdict = absl::InternalError("nonsense");
  Settle();
  Advance(absl::Seconds(10));

  EXPECT_THAT(heard_, ElementsAre("open", "up", "message of 7", "end INTERNAL: nonsense"));
  EXPECT_EQ(server_->resets, 1);
}

TEST_F(ResumingStreamTest, MessageThatIsTooLongEndsTheStream) {
  ClientOptions options = WithoutJitter();
  options.max_message_bytes = 4;
  client_ = std::make_unique<Client>(loop_, address_, options);
  Listen();
  server_->on_open = [](net::Http2Session& session, net::StreamId stream_id) {
    ScriptedServer::SendHeaders(session, stream_id);
    ScriptedServer::SendMessage(session, stream_id, "12345");
  };
  Open();

  Settle();

  EXPECT_THAT(heard_.back(), HasSubstr("end RESOURCE_EXHAUSTED"));
}

TEST_F(ResumingStreamTest, AnswerOfAWebServerIsTriedAgainOnlyIfItIsUnavailable) {
  Listen();
  std::string status = "503";
  server_->on_open = [&](net::Http2Session& session, net::StreamId stream_id) {
    session.SendHeaders(stream_id, {{":status", status}, {"content-type", "text/html"}},
                        /*end_stream=*/true);
  };
  Open();
  Settle();
  status = "404";
  Advance(absl::Seconds(1));

  ASSERT_EQ(heard_.size(), 4U);
  EXPECT_EQ(heard_[1], "down UNAVAILABLE 1s");
  EXPECT_THAT(heard_[3], HasSubstr("end UNIMPLEMENTED"));
}

// A server that reads nothing of a stream.
class ClosedWindowTest : public ResumingStreamTest {
 protected:
  ClosedWindowTest() {
    net::Http2Options options;
    options.stream_window_bytes = 0;
    Listen(options);
  }
};

TEST_F(ClosedWindowTest, StreamIsNotUpBeforeWhatItsOwnerHasFirstIsOnItsWay) {
  Open();
  stream().first = Framed(100'000);  // More than a server takes before it has said its limits.

  Settle();

  EXPECT_THAT(heard_, ElementsAre("open"));
}

TEST_F(ClosedWindowTest, WhatWaitsIsBoundedAndEndsTheStreamLater) {
  OpenAndSettle();

  std::size_t sent = 0;
  for (; sent < 2'000'000; sent += 10'000) stream().Send(Framed(10'000));
  EXPECT_THAT(heard_, IsEmpty());
  Settle();
  Advance(absl::Hours(1));

  ASSERT_EQ(heard_.size(), 1U);
  EXPECT_THAT(heard_[0], HasSubstr("end RESOURCE_EXHAUSTED: the server does not read what "
                                   "/rpc.Profile/WhenNetworkChanged sends"));
  EXPECT_EQ(server_->resets, 1);
}

TEST_F(ClosedWindowTest, MessageThatWaitsAloneMayBeLong) {
  OpenAndSettle();

  stream().Send(Framed(3'000'000));
  Settle();

  EXPECT_THAT(heard_, IsEmpty());
}

TEST_F(ClosedWindowTest, WhatIsSentWhileTheStreamIsDownIsNotKept) {
  OpenAndSettle();
  server_ = nullptr;
  Settle();
  Listen();
  stream().Send("never arrives");

  Advance(absl::Seconds(10));

  EXPECT_EQ(heard_.back(), "up");
  EXPECT_EQ(server_->received, "");
}

}  // namespace
}  // namespace varnic
