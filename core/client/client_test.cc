#include "core/client/client.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/match.h"
#include "core/client/testing/scripted_server.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using testing::NewClientTestAddress;
using testing::ScriptedServer;

void Keep(net::Http2Session& /*session*/, net::StreamId /*stream_id*/) {}

const google::protobuf::MethodDescriptor& PathMethod() {
  return *rpc::ProfileRpc::descriptor()->FindMethodByName("Path");
}

class ClientTest : public ::testing::Test {
 protected:
  absl::Status CallAndWait(absl::Duration timeout = absl::InfiniteDuration()) {
    return client_->CallAndWait(PathMethod(), ProfileId(), path_, timeout);
  }

  // `then` runs in the callback, which adds its status to `ended_`.
  Client::CallId Call(
      std::function<void()> then = [] {}, absl::Duration timeout = absl::InfiniteDuration()) {
    return client_->Call(PathMethod(), ProfileId(), path_, timeout,
                         [this, then = std::move(then)](const absl::Status& status) {
                           ended_.push_back(status.code());
                           then();
                         });
  }

  void RunUntilEnded(std::size_t count) {
    loop_.RunUntil([this, count] { return ended_.size() >= count; });
    EXPECT_EQ(ended_.size(), count);
  }
  void RunUntilRequested(int count) {
    loop_.RunUntil([this, count] { return server_->requests >= count; });
  }
  // What was closed has reached the other end.
  void Settle() {
    for (int i = 0; i < 10; ++i) {
      bool turned = false;
      loop_.Post([&] { turned = true; });
      loop_.RunUntil([&] { return turned; });
    }
  }

  const std::string address_ = NewClientTestAddress();
  net::EventLoop loop_;
  std::unique_ptr<ScriptedServer> server_ = std::make_unique<ScriptedServer>(loop_, address_);
  std::unique_ptr<Client> client_ = std::make_unique<Client>(loop_, address_);
  google::protobuf::StringValue path_;
  std::vector<absl::StatusCode> ended_;
};

using Codes = std::vector<absl::StatusCode>;
constexpr absl::StatusCode kOk = absl::StatusCode::kOk;
constexpr absl::StatusCode kCancelled = absl::StatusCode::kCancelled;
constexpr absl::StatusCode kUnavailable = absl::StatusCode::kUnavailable;

TEST_F(ClientTest, ConnectsAtTheFirstCallAndStaysConnected) {
  Settle();
  EXPECT_EQ(server_->accepted, 0);

  EXPECT_EQ(CallAndWait(), absl::OkStatus());
  EXPECT_EQ(CallAndWait(), absl::OkStatus());

  EXPECT_EQ(path_.value(), "good");
  EXPECT_EQ(server_->accepted, 1);
}

TEST_F(ClientTest, CallbackNeverRunsInsideCall) {
  Call();
  EXPECT_TRUE(ended_.empty());
  RunUntilEnded(1);

  Call();
  EXPECT_EQ(ended_.size(), 1u);
  RunUntilEnded(2);
}

TEST_F(ClientTest, ManyCallsBeforeTheConnectionIsMadeShareIt) {
  for (int i = 0; i < 500; ++i) Call();

  RunUntilEnded(500);

  EXPECT_EQ(ended_, Codes(500, kOk));
  EXPECT_EQ(server_->accepted, 1);
}

TEST_F(ClientTest, FailureToConnectIsUnavailableWithTheTarget) {
  server_ = nullptr;

  const absl::Status status = CallAndWait();

  EXPECT_EQ(status.code(), kUnavailable);
  EXPECT_TRUE(absl::StrContains(status.message(), address_.substr(5))) << status;
}

TEST_F(ClientTest, EveryWaitingCallFailsWithTheConnection) {
  server_ = nullptr;
  for (int i = 0; i < 3; ++i) Call();

  RunUntilEnded(3);

  EXPECT_EQ(ended_, Codes(3, kUnavailable));
}

TEST_F(ClientTest, WhatIsWrongWithTheTargetEveryCallSays) {
  for (const char* target : {"nonsense", "example.org:80"}) {
    Client client(loop_, target);
    for (int i = 0; i < 2; ++i) {
      const absl::Status status =
          client.CallAndWait(PathMethod(), ProfileId(), path_, absl::InfiniteDuration());

      EXPECT_EQ(status.code(), absl::StatusCode::kInvalidArgument);
      EXPECT_TRUE(absl::StrContains(status.message(), target)) << status;
    }
  }
}

TEST_F(ClientTest, ConnectsAgainAfterTheConnectionWasLost) {
  ASSERT_EQ(CallAndWait(), absl::OkStatus());
  server_->CloseConnections();
  Settle();

  EXPECT_EQ(CallAndWait(), absl::OkStatus());

  EXPECT_EQ(server_->accepted, 2);
}

TEST_F(ClientTest, OpenCallsAreUnavailableWhenTheConnectionIsLost) {
  server_->script = Keep;
  for (int i = 0; i < 3; ++i) Call();
  RunUntilRequested(3);

  server_->CloseConnections();
  RunUntilEnded(3);

  EXPECT_EQ(ended_, Codes(3, kUnavailable));
}

TEST_F(ClientTest, CallFromTheCallbackOfALostCallUsesANewConnection) {
  server_->script = Keep;
  Call([this] {
    server_->script = [](net::Http2Session& session, net::StreamId stream_id) {
      ScriptedServer::Answer(session, stream_id, "second");
    };
    Call();
  });
  RunUntilRequested(1);

  server_->CloseConnections();
  RunUntilEnded(2);

  EXPECT_EQ(ended_, (Codes{kUnavailable, kOk}));
  EXPECT_EQ(server_->accepted, 2);
}

TEST_F(ClientTest, OpenCallEndsWellAfterGoawayAndTheNextUsesANewConnection) {
  net::Http2Session* first_session = nullptr;
  net::StreamId first_stream = -1;
  server_->script = [&](net::Http2Session& session, net::StreamId stream_id) {
    first_session = &session;
    first_stream = stream_id;
    session.SendGoaway();
  };
  Call();
  RunUntilRequested(1);
  Settle();

  server_->script = [](net::Http2Session& session, net::StreamId stream_id) {
    ScriptedServer::Answer(session, stream_id, "second");
  };
  EXPECT_EQ(CallAndWait(), absl::OkStatus());
  EXPECT_TRUE(ended_.empty());
  ScriptedServer::Answer(*first_session, first_stream, "first");
  RunUntilEnded(1);

  EXPECT_EQ(ended_, Codes{kOk});
  EXPECT_EQ(path_.value(), "first");
  EXPECT_EQ(server_->accepted, 2);
}

TEST_F(ClientTest, TimeoutEndsACallThatIsNotAnsweredAndResetsIt) {
  server_->script = Keep;

  const absl::Status status = CallAndWait(absl::Milliseconds(50));

  EXPECT_EQ(status, absl::DeadlineExceededError("no answer to /rpc.Profile/Path in time"));
  loop_.RunUntil([this] { return server_->resets == 1; });
}

TEST_F(ClientTest, TimeoutThatHasPassedEndsTheCallOnTheLoop) {
  server_->script = Keep;
  for (const absl::Duration timeout :
       {absl::ZeroDuration(), absl::Seconds(-1), -absl::InfiniteDuration()}) {
    EXPECT_EQ(CallAndWait(timeout).code(), absl::StatusCode::kDeadlineExceeded) << timeout;
  }
}

TEST_F(ClientTest, VeryLongTimeoutIsNone) {
  EXPECT_EQ(CallAndWait(absl::Hours(24 * 365 * 1000)), absl::OkStatus());
}

TEST_F(ClientTest, CancelRunsTheCallbackInsideAndResetsTheCall) {
  server_->script = Keep;
  const Client::CallId id = Call();
  RunUntilRequested(1);

  client_->Cancel(id);

  EXPECT_EQ(ended_, Codes{kCancelled});
  loop_.RunUntil([this] { return server_->resets == 1; });
}

TEST_F(ClientTest, CallThatWasCancelledBeforeTheConnectionWasMadeIsNotSent) {
  const Client::CallId id = Call();

  client_->Cancel(id);
  EXPECT_EQ(CallAndWait(), absl::OkStatus());

  EXPECT_EQ(ended_, Codes{kCancelled});
  EXPECT_EQ(server_->requests, 1);
}

TEST_F(ClientTest, CancellingACallThatHasEndedDoesNothing) {
  const Client::CallId id = Call();
  RunUntilEnded(1);

  client_->Cancel(id);
  client_->Cancel(id + 1);

  EXPECT_EQ(ended_, Codes{kOk});
}

TEST_F(ClientTest, CallbackMayCancelItsOwnCallAndOthers) {
  Client::CallId first = 0;
  Client::CallId second = 0;
  first = Call([&] {
    client_->Cancel(first);
    client_->Cancel(second);
  });
  second = Call();

  RunUntilEnded(2);

  EXPECT_EQ(ended_, (Codes{kOk, kCancelled}));
  EXPECT_EQ(CallAndWait(), absl::OkStatus());
}

TEST_F(ClientTest, CallbackOfAFailedConnectionMayCancelTheOtherWaitingCalls) {
  server_ = nullptr;
  Client::CallId second = 0;
  Call([&] { client_->Cancel(second); });
  second = Call();
  Call();

  RunUntilEnded(3);

  EXPECT_EQ(ended_, (Codes{kUnavailable, kCancelled, kUnavailable}));
}

TEST_F(ClientTest, CallbackMayStartTheNextCall) {
  int left = 100;
  std::function<void()> next = [&] {
    if (--left > 0) Call(next);
  };
  Call(next);

  RunUntilEnded(100);

  EXPECT_EQ(ended_, Codes(100, kOk));
}

TEST_F(ClientTest, CancelledCallbackMayStartTheNextCall) {
  server_->script = Keep;
  const Client::CallId id = Call([this] {
    server_->script = [](net::Http2Session& session, net::StreamId stream_id) {
      ScriptedServer::Answer(session, stream_id, "second");
    };
    Call();
  });
  RunUntilRequested(1);

  client_->Cancel(id);
  RunUntilEnded(2);

  EXPECT_EQ(ended_, (Codes{kCancelled, kOk}));
}

TEST_F(ClientTest, DestroyingTheClientCancelsWhatIsOpenOnce) {
  server_->script = Keep;
  Call();
  RunUntilRequested(1);
  Call();

  client_ = nullptr;

  EXPECT_EQ(ended_, Codes(2, kCancelled));
  Settle();
  EXPECT_EQ(ended_.size(), 2u);
}

TEST_F(ClientTest, DestroyingTheClientWhileItConnectsCancels) {
  Call();

  client_ = nullptr;
  Settle();

  EXPECT_EQ(ended_, Codes{kCancelled});
}

TEST_F(ClientTest, DestroyingTheClientWithABadTargetCancels) {
  client_ = std::make_unique<Client>(loop_, "nonsense");
  Call();

  client_ = nullptr;
  Settle();

  EXPECT_EQ(ended_, Codes{kCancelled});
}

TEST_F(ClientTest, CallbackThatAlwaysTriesAgainDoesNotKeepTheClientFromItsEnd) {
  Client& client = *client_;
  int ended = 0;
  std::function<void()> again = [&] {
    client.Call(PathMethod(), ProfileId(), path_, absl::InfiniteDuration(),
                [&](const absl::Status& /*status*/) {
                  ++ended;
                  again();
                });
  };
  again();

  client_ = nullptr;

  EXPECT_EQ(ended, 1);
}

TEST_F(ClientTest, StoppedLoopEndsCallAndWait) {
  server_->script = [this](net::Http2Session& /*session*/, net::StreamId /*stream_id*/) {
    loop_.Stop();
  };

  EXPECT_EQ(CallAndWait(), absl::CancelledError("the loop was stopped"));
}

TEST_F(ClientTest, CallAndWaitRunsNothingOnALoopThatIsStopped) {
  loop_.Stop();
  bool ran = false;
  loop_.Post([&] { ran = true; });

  EXPECT_EQ(CallAndWait(), absl::CancelledError("the loop was stopped"));

  EXPECT_FALSE(ran);
}

// How a call ends whose answer is `script`.
class ClientAnswerTest : public ClientTest {
 protected:
  absl::Status ResultOf(ScriptedServer::Script script) {
    server_->script = std::move(script);
    absl::Status status = CallAndWait();
    server_->script = [](net::Http2Session& session, net::StreamId stream_id) {
      ScriptedServer::Answer(session, stream_id, "good");
    };
    EXPECT_EQ(CallAndWait(), absl::OkStatus());
    EXPECT_EQ(path_.value(), "good");
    return status;
  }
};

TEST_F(ClientAnswerTest, StatusAlone) {
  EXPECT_EQ(ResultOf([](net::Http2Session& session, net::StreamId stream_id) {
              session.SendHeaders(stream_id,
                                  {{":status", "200"},
                                   {"content-type", "application/grpc"},
                                   {"grpc-status", "5"},
                                   {"grpc-message", "no%20such profile"}},
                                  /*end_stream=*/true);
            }),
            absl::NotFoundError("no such profile"));
}

TEST_F(ClientAnswerTest, StatusZeroWithoutAMessageIsInternal) {
  EXPECT_EQ(ResultOf([](net::Http2Session& session, net::StreamId stream_id) {
              ScriptedServer::SendHeaders(session, stream_id);
              session.SendTrailers(stream_id, {{"grpc-status", "0"}});
            }),
            absl::InternalError("no answer, but status OK"));
}

TEST_F(ClientAnswerTest, TwoMessagesAreInternal) {
  EXPECT_EQ(ResultOf([](net::Http2Session& session, net::StreamId stream_id) {
              ScriptedServer::SendHeaders(session, stream_id);
              ScriptedServer::SendMessage(session, stream_id, "one");
              ScriptedServer::SendMessage(session, stream_id, "two");
              session.SendTrailers(stream_id, {{"grpc-status", "0"}});
            }),
            absl::InternalError("more than one answer to /rpc.Profile/Path"));
}

TEST_F(ClientAnswerTest, MessageThatDoesNotParseIsInternalWithItsType) {
  EXPECT_EQ(ResultOf([](net::Http2Session& session, net::StreamId stream_id) {
              ScriptedServer::SendHeaders(session, stream_id);
              session.SendData(stream_id, std::string("\0\0\0\0\1\xff", 6), /*end_stream=*/false);
              session.SendTrailers(stream_id, {{"grpc-status", "0"}});
            }),
            absl::InternalError(
                "the answer to /rpc.Profile/Path is not a serialised google.protobuf.StringValue"));
}

TEST_F(ClientAnswerTest, WebPageIsNoAnswer) {
  EXPECT_EQ(ResultOf([](net::Http2Session& session, net::StreamId stream_id) {
              session.SendHeaders(stream_id, {{":status", "503"}, {"content-type", "text/html"}},
                                  /*end_stream=*/false);
              session.SendData(stream_id, "<html></html>", /*end_stream=*/true);
            }).code(),
            kUnavailable);
}

TEST_F(ClientTest, CallThatTheServerRefusesOnceIsMadeAgain) {
  server_->script = [&](net::Http2Session& session, net::StreamId stream_id) {
    if (server_->requests == 1) return session.Reset(stream_id, net::Http2Error::kRefusedStream);
    ScriptedServer::Answer(session, stream_id, "good");
  };

  EXPECT_EQ(CallAndWait(), absl::OkStatus());

  EXPECT_EQ(server_->requests, 2);
  EXPECT_EQ(path_.value(), "good");
}

TEST_F(ClientTest, CallThatAGoawayLeavesUnprocessedIsMadeAgainOnANewConnection) {
  server_->script = [&](net::Http2Session& session, net::StreamId stream_id) {
    if (server_->requests > 1) return ScriptedServer::Answer(session, stream_id, "good");
    session.SendGoaway();
    Call();  // Before the client has read that.
  };
  Call();

  RunUntilEnded(1);

  EXPECT_EQ(ended_, Codes{kOk});
  EXPECT_EQ(path_.value(), "good");
  EXPECT_EQ(server_->accepted, 2);
  client_ = nullptr;  // And the first call, while there is something to hear of it.
}

TEST_F(ClientTest, CallThatWasRefusedAfterItsHeadersIsNotMadeAgain) {
  net::Http2Session* session = nullptr;
  net::StreamId stream_id = -1;
  server_->script = [&](net::Http2Session& of_call, net::StreamId id) {
    session = &of_call;
    stream_id = id;
    ScriptedServer::SendHeaders(of_call, id);
  };
  Call();
  RunUntilRequested(1);
  Settle();  // The headers have come.

  session->Reset(stream_id, net::Http2Error::kRefusedStream);
  RunUntilEnded(1);

  EXPECT_EQ(ended_, Codes{kUnavailable});
  EXPECT_EQ(server_->requests, 1);
}

TEST_F(ClientAnswerTest, StreamThatIsRefusedTwiceIsUnavailable) {
  EXPECT_EQ(ResultOf([](net::Http2Session& session, net::StreamId stream_id) {
              session.Reset(stream_id, net::Http2Error::kRefusedStream);
            }).code(),
            kUnavailable);
}

TEST_F(ClientAnswerTest, EndWithoutAStatusIsAFailure) {
  EXPECT_FALSE(ResultOf([](net::Http2Session& session, net::StreamId stream_id) {
                 ScriptedServer::SendHeaders(session, stream_id);
                 session.SendData(stream_id, "", /*end_stream=*/true);
               }).ok());
}

}  // namespace
}  // namespace varnic
