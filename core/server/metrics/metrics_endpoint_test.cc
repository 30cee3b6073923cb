#include "core/server/metrics/metrics_endpoint.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/net/testing/fake_byte_stream.h"
#include "core/net/testing/fake_clock.h"

namespace varnic {
namespace {

using net::testing::FakePeer;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kRequest[] = "GET /metrics HTTP/1.1\r\nHost: localhost\r\n\r\n";

class MetricsEndpointTest : public ::testing::Test {
 protected:
  FakePeer& Connect() {
    peers_.push_back(std::make_unique<FakePeer>());
    peers_.back()->set_identity(identity_);
    endpoint_.Serve(peers_.back()->MakeStream());
    return *peers_.back();
  }

  // The answer to one request.
  std::string Ask(const std::string& request) {
    FakePeer& peer = Connect();
    peer.Send(request);
    EXPECT_TRUE(peer.has_farewell()) << request;
    peer.Close();
    EXPECT_FALSE(peer.open());
    return peer.Take();
  }

  void Wait(absl::Duration duration) {
    clock_.Advance(duration);
    loop_.RunPending();
  }

  net::Peer identity_;
  std::vector<std::unique_ptr<FakePeer>> peers_;
  net::testing::FakeClock clock_;
  net::EventLoop loop_;
  int pages_ = 0;
  MetricsEndpoint endpoint_{loop_, [this] { return absl::StrCat("page ", ++pages_, "\n"); }};
};

TEST_F(MetricsEndpointTest, PageIsMadeForEveryRequest) {
  EXPECT_EQ(Ask(kRequest),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"
            "Content-Length: 7\r\nConnection: close\r\n\r\npage 1\n");
  EXPECT_THAT(Ask("GET /metrics?x=1 HTTP/1.0\r\n\r\n"), EndsWith("page 2\n"));
}

TEST_F(MetricsEndpointTest, HeadGetsTheHeadersAlone) {
  EXPECT_THAT(Ask("HEAD /metrics HTTP/1.1\r\n\r\n"),
              AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("\r\nContent-Length: 7\r\n"),
                    EndsWith("\r\n\r\n")));
}

TEST_F(MetricsEndpointTest, OtherRequestsHearWhatIsWrong) {
  EXPECT_THAT(Ask("GET / HTTP/1.1\r\n\r\n"),
              AllOf(StartsWith("HTTP/1.1 404 "), EndsWith("\r\n\r\nNot Found\n")));
  EXPECT_THAT(Ask("POST /metrics HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody"),
              AllOf(StartsWith("HTTP/1.1 405 "), HasSubstr("\r\nAllow: GET, HEAD\r\n")));
  EXPECT_THAT(Ask("nonsense"), StartsWith("HTTP/1.1 400 "));
  EXPECT_THAT(Ask("GET /metrics HTTP/1.1\r\nX: " + std::string(9000, 'x')),
              StartsWith("HTTP/1.1 431 "));
  EXPECT_EQ(pages_, 0);
}

TEST_F(MetricsEndpointTest, RequestOfAWebPageForAnotherNameIsMisdirected) {
  for (const char* host :
       {"localhost", "LOCALHOST:9464", "127.0.0.1:9464", "127.0.0.1", "[::1]:9464", "[::1]", ""}) {
    EXPECT_THAT(Ask(absl::StrCat("GET /metrics HTTP/1.1\r\nhOST: ", host, "\r\n\r\n")),
                StartsWith("HTTP/1.1 200 "))
        << host;
  }
  for (const char* host : {"example.org", "example.org:9464", "localhost.example.org",
                           "unix:localhost", "192.0.2.1:9464", "127.0.0.1\r\nHost: 127.0.0.1"}) {
    EXPECT_THAT(Ask(absl::StrCat("GET /metrics HTTP/1.1\r\nHost: ", host, "\r\n\r\n")),
                StartsWith("HTTP/1.1 421 "))
        << host;
  }
}

TEST_F(MetricsEndpointTest, NameDoesNotMatterOnAUnixSocket) {
  identity_.kind = net::Peer::Kind::kUnix;

  EXPECT_THAT(Ask("GET /metrics HTTP/1.1\r\nHost: metrics\r\n\r\n"), StartsWith("HTTP/1.1 200 "));
}

TEST_F(MetricsEndpointTest, AnswerGoesOutAsFastAsItIsRead) {
  FakePeer& peer = Connect();
  peer.LimitRoom(10);

  peer.Send(kRequest);
  EXPECT_EQ(peer.Take(), "HTTP/1.1 2");
  EXPECT_FALSE(peer.has_farewell());
  peer.MakeRoom();

  EXPECT_THAT(peer.Take(), EndsWith("page 1\n"));
  EXPECT_TRUE(peer.has_farewell());
}

TEST_F(MetricsEndpointTest, OneConnectionGetsOneAnswer) {
  FakePeer& peer = Connect();

  peer.Send(kRequest);
  peer.Take();
  peer.Send(kRequest);

  EXPECT_EQ(peer.Take(), "");
  EXPECT_EQ(pages_, 1);
}

TEST_F(MetricsEndpointTest, ClientThatDoesNotFinishItsRequestIsLetGo) {
  FakePeer& peer = Connect();

  for (const char letter : std::string("GET /metr")) {
    peer.Send(std::string(1, letter));
    Wait(absl::Seconds(1));
  }
  EXPECT_TRUE(peer.open());
  Wait(absl::Seconds(1));
  EXPECT_THAT(peer.Take(), StartsWith("HTTP/1.1 408 "));
  Wait(absl::Seconds(10));

  EXPECT_FALSE(peer.open());
  EXPECT_EQ(endpoint_.open_connections(), 0u);
}

TEST_F(MetricsEndpointTest, ClientThatDoesNotReadIsLetGo) {
  FakePeer& peer = Connect();
  peer.LimitRoom(10);
  Wait(absl::Seconds(9));
  peer.Send(kRequest);

  Wait(absl::Seconds(9));
  EXPECT_TRUE(peer.open());
  Wait(absl::Seconds(1));

  EXPECT_FALSE(peer.open());
}

TEST_F(MetricsEndpointTest, ClientThatDoesNotCloseIsLetGo) {
  FakePeer& peer = Connect();
  peer.Send(kRequest);

  Wait(absl::Seconds(10));

  EXPECT_FALSE(peer.open());
}

TEST_F(MetricsEndpointTest, MoreConnectionsThanTheLimitAreRefusedUntilOneEnds) {
  for (int i = 0; i < 17; ++i) Connect();
  EXPECT_FALSE(peers_.back()->open());
  EXPECT_EQ(endpoint_.open_connections(), 16u);

  peers_.front()->Break();

  EXPECT_THAT(Ask(kRequest), StartsWith("HTTP/1.1 200 "));
}

TEST_F(MetricsEndpointTest, EndOfTheEndpointClosesItsConnections) {
  FakePeer peer;
  {
    MetricsEndpoint endpoint(loop_, [] { return ""; });
    endpoint.Serve(peer.MakeStream());
  }

  EXPECT_FALSE(peer.open());
}

TEST(MetricsEndpointAddressTest, ListensOnUnixSocketsAndOnLoopback) {
  net::EventLoop loop;
  const std::string path = absl::StrCat(::testing::TempDir(), "metrics_", getpid());
  const auto page = [] { return ""; };

  const auto by_unix = MetricsEndpoint::Listen(loop, "unix:" + path, page);
  const auto by_tcp = MetricsEndpoint::Listen(loop, "127.0.0.1:0", page);

  ASSERT_TRUE(by_unix.ok() && by_tcp.ok());
  EXPECT_EQ((*by_unix)->address(), "unix://" + path);
  EXPECT_THAT((*by_tcp)->address(), StartsWith("127.0.0.1:"));
  for (const std::string& address :
       {std::string("nonsense"), std::string("192.0.2.1:80"), (*by_tcp)->address()}) {
    const absl::Status status = MetricsEndpoint::Listen(loop, address, page).status();
    EXPECT_THAT(std::string(status.message()), HasSubstr(address));
  }
}

}  // namespace
}  // namespace varnic
