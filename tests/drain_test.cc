// What Drain() leaves to the calls that are open, to new ones and to a second Drain(). The streams
// are in stream_test.cc.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/client/client.h"
#include "core/net/frame_message.h"
#include "core/net/testing/raw_http2_peer.h"
#include "rpc/profile/profile.client.h"
#include "rpc/profile/profile.rpc.h"
#include "tests/raw_peer.h"
#include "tests/served_host.h"

namespace varnic {
namespace {

using net::testing::RawHttp2Peer;
using ::testing::Contains;
using ::testing::Not;
using ::testing::StartsWith;

// A client that speaks HTTP/2 on a socket, and shows every frame.
class FrameReader {
 public:
  explicit FrameReader(const std::string& address)
      : socket_(address), http2_(RawHttp2Peer::Role::kClient) {
    Flush();
  }

  RawHttp2Peer& http2() { return http2_; }
  const std::vector<std::string>& events() { return http2_.events(); }

  // The bytes of a call of Path(), unsent.
  std::string PathCall(const std::string& profile) {
    const int32_t id = http2_.Request({{":method", "POST"},
                                       {":scheme", "http"},
                                       {":path", "/rpc.Profile/Path"},
                                       {":authority", "localhost"},
                                       {"te", "trailers"},
                                       {"content-type", "application/grpc"}});
    http2_.Data(id, net::FrameMessage(MakeProfileId(profile)), /*end=*/true);
    return http2_.Take();
  }
  void Send(const std::string& bytes) { socket_.Send(bytes); }
  void Flush() { socket_.Send(http2_.Take()); }

  void ReadUntil(const std::string& event) {
    while (!::testing::Value(events(), Contains(event))) {
      ASSERT_TRUE(Read()) << "no " << event;
      Flush();
    }
  }
  void ReadUntilClosed() {
    while (Read()) {
    }
  }
  void Close() { socket_.Close(); }

 private:
  bool Read() {
    const std::string bytes = socket_.ReadSome();
    http2_.Receive(bytes);
    return !bytes.empty();
  }

  RawPeer socket_;
  RawHttp2Peer http2_;
};

class DrainTest : public ::testing::TestWithParam<const char*> {
 protected:
  // Starts a call that the host keeps, and waits until it does.
  void StartKeptCall() {
    profiles_.Path(MakeProfileId("kept"), absl::InfiniteDuration(),
                   [this](const auto& path) { kept_ = path; });
    // Comes behind it on the connection.
    ASSERT_EQ(CallOther(), absl::OkStatus());
    ASSERT_TRUE(served_.host().WaitForKept(1));
  }
  absl::Status CallOther() {
    return profiles_.PathAndWait(ProfileId(), absl::InfiniteDuration()).status();
  }
  absl::Status EndOfKeptCall() {
    loop_.RunUntil([this] { return kept_.has_value(); });
    return kept_->status();
  }

  void Drain(absl::Duration patience = absl::InfiniteDuration()) {
    served_.RunOnServer([&] { served_.server().Drain(patience); });
  }
  void AnswerKept() {
    served_.RunOnServer([this] { served_.host().AnswerKept(); });
  }

  ServedHost served_{GetParam()};
  net::EventLoop loop_;
  std::optional<absl::StatusOr<google::protobuf::StringValue>> kept_;  // How the kept call ended.
  Client client_{loop_, served_.address()};
  rpc::ProfileClient profiles_{client_};
};

INSTANTIATE_TEST_SUITE_P(Sockets, DrainTest, ::testing::Values("unix", "127.0.0.1:0"),
                         [](const auto& socket) {
                           return std::string(socket.param) == "unix" ? "Unix" : "Tcp";
                         });

TEST_P(DrainTest, CallInFlightIsAnsweredAndThenTheServerStops) {
  StartKeptCall();

  Drain();
  AnswerKept();

  ASSERT_EQ(EndOfKeptCall(), absl::OkStatus());
  EXPECT_EQ((*kept_)->value(), "/kept");
  EXPECT_TRUE(served_.WaitUntilStopped());
  EXPECT_EQ(served_.host().cancellations(), 0);
}

TEST_P(DrainTest, CallThatDoesNotEndIsCutWhenThePatienceIsOver) {
  StartKeptCall();

  Drain(absl::Milliseconds(1));

  EXPECT_EQ(EndOfKeptCall().code(), absl::StatusCode::kUnavailable);
  EXPECT_TRUE(served_.WaitUntilStopped());
  EXPECT_TRUE(served_.host().WaitForCancelled(1));
}

TEST_P(DrainTest, SecondDrainCutsACallAtOnce) {
  StartKeptCall();

  Drain();
  Drain();

  EXPECT_EQ(EndOfKeptCall().code(), absl::StatusCode::kUnavailable);
  EXPECT_TRUE(served_.WaitUntilStopped());
  EXPECT_TRUE(served_.host().WaitForCancelled(1));
}

TEST_P(DrainTest, WhoeverHasMoreToEndStopsTheServerAfterTheDrain) {
  StartKeptCall();
  std::promise<void> drained;

  served_.RunOnServer([&] {
    served_.server().Drain(absl::InfiniteDuration(), [&drained] { drained.set_value(); });
  });
  AnswerKept();

  EXPECT_EQ(EndOfKeptCall(), absl::OkStatus());
  drained.get_future().wait();
  served_.RunOnServer([this] { served_.server().Stop(); });
  EXPECT_TRUE(served_.WaitUntilStopped());
}

TEST_P(DrainTest, SecondDrainDoesNotWaitForWhoeverHasMoreToEnd) {
  std::promise<void> drained;
  const auto drain = [&] {
    served_.server().Drain(absl::ZeroDuration(), [&drained] { drained.set_value(); });
  };
  served_.RunOnServer(drain);
  drained.get_future().wait();

  served_.RunOnServer(drain);

  EXPECT_TRUE(served_.WaitUntilStopped());
}

TEST_P(DrainTest, NewCallOfAClientWithACallInFlightIsUnavailable) {
  StartKeptCall();

  Drain();

  EXPECT_EQ(CallOther().code(), absl::StatusCode::kUnavailable);
  EXPECT_FALSE(kept_.has_value());
  AnswerKept();
  EXPECT_EQ(EndOfKeptCall(), absl::OkStatus());
}

TEST_P(DrainTest, GoawayNamesTheLastCallAndLaterOnesAreNotServed) {
  FrameReader peer(served_.address());
  peer.Send(peer.PathCall("kept"));
  peer.Send(peer.PathCall("kept"));
  ASSERT_TRUE(served_.host().WaitForKept(2));
  const std::string late = peer.PathCall("late");

  Drain();
  peer.ReadUntil("GOAWAY 3 0");
  peer.Send(late);
  // Comes behind the late call.
  peer.http2().Reset(1, 8);
  peer.Flush();
  ASSERT_TRUE(served_.host().WaitForCancelled(1));
  AnswerKept();
  peer.ReadUntilClosed();
  peer.Close();

  EXPECT_THAT(peer.events(), Contains("END 3"));
  EXPECT_THAT(peer.events(), Not(Contains(StartsWith("HEADERS 5"))));
  EXPECT_TRUE(served_.WaitUntilStopped());
}

// Path() drains the server that serves it.
class DrainingHost : public rpc::ProfileRpc {
 public:
  explicit DrainingHost(RpcServer& server) : server_(server) {}

  void Path(google::protobuf::RpcController* /*controller*/, const ProfileId* /*request*/,
            google::protobuf::StringValue* /*response*/, google::protobuf::Closure* done) override {
    ++calls_;
    server_.Drain(absl::InfiniteDuration());
    done->Run();
  }

  int calls() const { return calls_; }

 private:
  RpcServer& server_;
  int calls_ = 0;
};

TEST(DrainOrderTest, CallThatIsReadBeforeTheGoawayIsSentDoesNotReachTheHost) {
  RpcServer server;
  DrainingHost host(server);
  server.AddService(host);
  const auto address = server.Listen(NewSocketAddress());
  ASSERT_TRUE(address.ok()) << address.status();
  FrameReader peer(*address);
  const std::string first = peer.PathCall("drains");
  peer.Send(first + peer.PathCall("late"));

  server.Run();
  peer.ReadUntilClosed();

  EXPECT_EQ(host.calls(), 1);
  EXPECT_THAT(peer.events(), Contains("END 1"));
  EXPECT_THAT(peer.events(), Contains("GOAWAY 1 0"));
  EXPECT_THAT(peer.events(), Not(Contains(StartsWith("HEADERS 3"))));
}

}  // namespace
}  // namespace varnic
