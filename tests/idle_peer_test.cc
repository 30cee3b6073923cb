// Peers that do too little, on real sockets, against a server of little patience: they say nothing,
// read nothing, or keep a connection that they do not use.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "absl/time/clock.h"
#include "core/client/client.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/net/frame_message.h"
#include "core/net/testing/raw_http2_peer.h"
#include "core/server/metrics/server_metrics.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/profile/profile.client.h"
#include "tests/raw_peer.h"
#include "tests/served_host.h"

namespace varnic {
namespace {

using net::EdgeRule;
using net::testing::RawHttp2Peer;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr absl::Duration kShort = absl::Milliseconds(100);

// A client that speaks HTTP/2 on a socket and never gives window back.
class Reader {
 public:
  explicit Reader(const std::string& address, uint32_t stream_window_bytes = 65535)
      : socket_(address), http2_(RawHttp2Peer::Role::kClient, 100, stream_window_bytes) {
    socket_.Send(http2_.Take());
  }

  RawHttp2Peer& http2() { return http2_; }
  const std::vector<std::string>& events() { return http2_.events(); }

  // Sends one message to a method of rpc.Profile.
  int32_t Call(const std::string& method, const google::protobuf::Message& message, bool end) {
    const int32_t id = http2_.Request({{":method", "POST"},
                                       {":scheme", "http"},
                                       {":path", "/rpc.Profile/" + method},
                                       {":authority", "localhost"},
                                       {"te", "trailers"},
                                       {"content-type", "application/grpc"}});
    http2_.Data(id, net::FrameMessage(message), end);
    socket_.Send(http2_.Take());
    return id;
  }
  int32_t CallPath(const std::string& profile) {
    return Call("Path", MakeProfileId(profile), /*end=*/true);
  }
  int32_t Subscribe(const std::string& profile) {
    rpc::EventSubscription subscription;
    subscription.mutable_key()->set_value(profile);
    subscription.set_action(rpc::EventSubscription::SUBSCRIBE);
    return Call("WhenNetworkChanged", subscription, /*end=*/false);
  }
  void Ping() {
    http2_.Ping();
    socket_.Send(http2_.Take());
  }

  // False once the server has closed the connection.
  bool Read() {
    const std::string bytes = socket_.ReadSome();
    http2_.Receive(bytes);
    return !bytes.empty();
  }
  // What the server's frames ask for is answered on the way.
  void ReadUntil(const std::string& event) {
    while (!::testing::Value(events(), Contains(event))) {
      ASSERT_TRUE(Read()) << "no " << event;
      socket_.Send(http2_.Take());
    }
  }
  // Nothing is answered.
  void ReadUntilClosed() {
    while (Read()) {
    }
  }

 private:
  RawPeer socket_;
  RawHttp2Peer http2_;
};

class IdlePeerTest : public ::testing::TestWithParam<const char*> {
 protected:
  void Serve() { served_ = std::make_unique<ServedHost>(GetParam(), options_); }
  const std::string& address() { return served_->address(); }

  std::uint64_t CountEnds(EdgeRule rule) {
    std::uint64_t count = 0;
    served_->RunOnServer([&] {
      count = served_->server().edge_counters().ended_by[static_cast<std::size_t>(rule)];
    });
    return count;
  }
  bool WaitForEnd(EdgeRule rule) {
    const absl::Time patience = absl::Now() + absl::Seconds(60);
    while (CountEnds(rule) == 0 && absl::Now() < patience) {
    }
    return CountEnds(rule) == 1;
  }

  ServerOptions options_;
  std::unique_ptr<ServedHost> served_;
};

INSTANTIATE_TEST_SUITE_P(Sockets, IdlePeerTest, ::testing::Values("unix", "127.0.0.1:0"),
                         [](const auto& socket) {
                           return std::string(socket.param) == "unix" ? "Unix" : "Tcp";
                         });

TEST_P(IdlePeerTest, PeerThatSaysNothingIsClosed) {
  options_.connections.handshake_timeout = kShort;
  Serve();
  RawPeer peer(address());

  EXPECT_THAT(peer.ReadUntilClosed(), HasSubstr("handshake_timeout"));

  EXPECT_EQ(CountEnds(EdgeRule::kHandshake), 1u);
}

TEST_P(IdlePeerTest, PeerThatSaysHalfOfWhatItShouldIsClosed) {
  options_.connections.handshake_timeout = kShort;
  Serve();
  RawPeer peer(address());

  peer.Send(ClientPreface().substr(0, 30));

  EXPECT_THAT(peer.ReadUntilClosed(), HasSubstr("handshake_timeout"));
}

TEST_P(IdlePeerTest, ConnectionThatNobodyUsesEndsWithoutAnError) {
  options_.connections.max_idle = kShort;
  Serve();
  Reader peer(address());

  peer.ReadUntilClosed();

  EXPECT_THAT(peer.events(), Contains("GOAWAY 0 0"));
  EXPECT_EQ(peer.http2().goaway_text(), "max_idle");
}

// Even one whose loop has not run meanwhile.
TEST_P(IdlePeerTest, ClientWhoseConnectionEndedConnectsAgainAndDoesNotNotice) {
  options_.connections.max_idle = absl::Milliseconds(500);
  Serve();
  net::EventLoop loop;
  Client client(loop, address());
  rpc::ProfileClient profiles(client);
  for (std::uint64_t call = 0; call < 2; ++call) {
    EXPECT_EQ(profiles.PathAndWait(ProfileId(), absl::Seconds(60)).status(), absl::OkStatus());

    while (CountEnds(EdgeRule::kIdle) <= call) {
    }
    served_->RunOnServer([] {});  // Its GOAWAY is sent.
  }
}

TEST_P(IdlePeerTest, LargeAnswerThatIsNotReadEndsTheConnection) {
  options_.connections.stall_timeout = kShort;
  Serve();
  Reader peer(address());
  peer.Read();

  peer.CallPath(std::string(200'000, 'x'));
  peer.ReadUntilClosed();

  EXPECT_EQ(peer.http2().goaway_text(), "peer_reads_nothing");
  EXPECT_TRUE(WaitForEnd(EdgeRule::kStalled));
  EXPECT_EQ(FreshCall(address()), absl::OkStatus());
}

TEST_P(IdlePeerTest, SocketThatIsNotReadIsClosed) {
  if (std::string(GetParam()) != "unix") GTEST_SKIP() << "TCP has room for megabytes";
  options_.connections.stall_timeout = kShort;
  Serve();
  Reader peer(address(), /*stream_window_bytes=*/1 << 30);
  peer.http2().Read(0, 1 << 30);
  peer.Read();

  for (int call = 0; call < 4; ++call) peer.CallPath(std::string(1'000'000, 'x'));

  EXPECT_TRUE(WaitForEnd(EdgeRule::kStalled));
  EXPECT_EQ(FreshCall(address()), absl::OkStatus());
}

TEST_P(IdlePeerTest, ConnectionOverTheNumberIsRefusedAndTheOthersAreServed) {
  options_.max_connections = 2;
  Serve();
  Reader first(address());
  auto second = std::make_unique<Reader>(address());
  first.ReadUntil("HEADERS " + std::to_string(first.CallPath("one")) +
                  " :status=200 content-type=application/grpc");
  second->Read();

  Reader third(address());
  third.ReadUntilClosed();

  EXPECT_EQ(CountEnds(EdgeRule::kConnections), 1u);
  EXPECT_EQ(third.http2().goaway_text(), "too_many_connections");
  first.CallPath("two");
  first.ReadUntil("END 3");
  second = nullptr;
  while (!FreshCall(address()).ok()) {
  }
}

TEST_P(IdlePeerTest, PeerThatDoesNotAnswerPingsIsGivenUpUnlessItIsLocal) {
  options_.connections.keepalive_time = kShort;
  options_.connections.keepalive_timeout = kShort;
  options_.connections.max_idle = absl::Seconds(1);
  Serve();
  Reader peer(address());

  peer.ReadUntilClosed();

  const bool local = std::string(GetParam()) == "unix";
  EXPECT_EQ(peer.http2().goaway_text(), local ? "max_idle" : "keepalive_timeout");
}

TEST_P(IdlePeerTest, PingsAtOnceAreTooManyUnlessThePeerIsLocal) {
  Serve();
  Reader peer(address());
  peer.Read();

  for (int ping = 0; ping < 20; ++ping) peer.Ping();

  if (std::string(GetParam()) == "unix") {
    peer.CallPath("one");
    peer.ReadUntil("END 1");
    EXPECT_EQ(CountEnds(EdgeRule::kPings), 0u);
  } else {
    peer.ReadUntilClosed();
    EXPECT_EQ(peer.http2().goaway_text(), "too_many_pings");
  }
}

// A host that publishes.
class IdleSubscriberTest : public IdlePeerTest {
 protected:
  void Serve() {
    IdlePeerTest::Serve();
    served_->RunOnServer(
        [this] { publisher_ = std::make_unique<EventPublisher<rpc::NetworkChanged>>(); });
  }
  // Behind the streams that the server still has.
  ~IdleSubscriberTest() override {
    served_->RunOnServer([this] { publisher_ = nullptr; });
    served_ = nullptr;
  }

  void Publish(const std::string& profile, int count) {
    rpc::NetworkChanged event;
    event.set_online(true);
    served_->RunOnServer([&] {
      for (int i = 0; i < count; ++i) publisher_->Publish(MakeProfileId(profile), event);
    });
  }

  std::unique_ptr<EventPublisher<rpc::NetworkChanged>> publisher_;
};

INSTANTIATE_TEST_SUITE_P(Sockets, IdleSubscriberTest, ::testing::Values("unix", "127.0.0.1:0"),
                         [](const auto& socket) {
                           return std::string(socket.param) == "unix" ? "Unix" : "Tcp";
                         });

TEST_P(IdleSubscriberTest, SubscriptionThatIsNotReadIsResetAmongOthers) {
  options_.connections.stall_timeout = kShort;
  Serve();
  Reader peer(address(), /*stream_window_bytes=*/64);
  peer.Subscribe("read by nobody");
  peer.Subscribe("quiet");
  peer.CallPath("one");
  peer.ReadUntil("END 5");

  Publish("read by nobody", 50);
  peer.ReadUntil("RESET 1 11");
  Publish("quiet", 1);
  peer.CallPath("two");
  peer.ReadUntil("END 7");

  EXPECT_NE(peer.http2().body(3), "");
  EXPECT_THAT(peer.events(), Not(Contains(HasSubstr("GOAWAY"))));
}

TEST_P(IdleSubscriberTest, SubscriptionThatIsNotReadIsCountedAsASlowReader) {
  options_.connections.stall_timeout = kShort;
  Serve();
  Reader peer(address(), /*stream_window_bytes=*/64);
  peer.Subscribe("read by nobody");
  peer.Subscribe("quiet");
  peer.CallPath("one");
  peer.ReadUntil("END 5");

  Publish("read by nobody", 50);
  peer.ReadUntil("RESET 1 11");

  std::string metrics;
  served_->RunOnServer([&] { metrics = ServerMetrics(served_->server()).Text(); });
  EXPECT_THAT(metrics, HasSubstr("varnic_slow_readers_total 1\n"));
  EXPECT_THAT(metrics,
              HasSubstr("varnic_streams_ended_total{method=\"/rpc.Profile/WhenNetworkChanged\","
                        "code=\"RESOURCE_EXHAUSTED\"} 1\n"));
}

TEST_P(IdleSubscriberTest, PeerThatReadsNoneOfItsSubscriptionsIsClosed) {
  options_.connections.stall_timeout = kShort;
  Serve();
  Reader peer(address(), /*stream_window_bytes=*/64);
  peer.Subscribe("a");
  peer.Subscribe("b");
  peer.CallPath("one");
  peer.ReadUntil("END 5");

  Publish("a", 50);
  Publish("b", 50);
  peer.ReadUntilClosed();

  EXPECT_EQ(peer.http2().goaway_text(), "peer_reads_nothing");
}

TEST_P(IdleSubscriberTest, QuietSubscriptionOutlivesEveryLimit) {
  options_.connections.stall_timeout = kShort;
  options_.connections.max_idle = absl::Milliseconds(300);
  Serve();
  Reader peer(address());
  peer.Subscribe("quiet");
  peer.CallPath("one");
  peer.ReadUntil("END 3");

  // Another one comes and goes by the same limits meanwhile.
  Reader(address()).ReadUntilClosed();
  Publish("quiet", 1);
  peer.CallPath("two");
  peer.ReadUntil("END 5");

  EXPECT_NE(peer.http2().body(1), "");
}

}  // namespace
}  // namespace varnic
