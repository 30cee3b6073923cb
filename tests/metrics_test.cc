// What a server says of itself, held against what clients have done to it.

#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "base/logging.h"
#include "core/client/client.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/net/loop_clock.h"
#include "core/server/metrics/server_metrics.h"
#include "rpc/profile/profile.client.h"
#include "rpc/profile/profile.rpc.h"
#include "tests/http2_peer.h"
#include "tests/served_host.h"
#include "tests/stream_peer.h"

namespace varnic {
namespace {

constexpr char kEvents[] = "/rpc.Profile/WhenNetworkChanged";

std::string Calls(const std::string& method, const std::string& code) {
  return absl::StrCat("varnic_calls_total{method=\"", method, "\",code=\"", code, "\"}");
}
std::string PathCalls(const std::string& code) {
  return Calls("/rpc.Profile/Path", code);
}
std::string PathDurations(const std::string& what, const std::string& code,
                          const std::string& more = "") {
  return absl::StrCat("varnic_call_duration_seconds_", what,
                      "{method=\"/rpc.Profile/Path\",code=\"", code, "\"", more, "}");
}
std::string Streams(const std::string& what, const std::string& more = "") {
  return absl::StrCat("varnic_streams_", what, "{method=\"", kEvents, "\"", more, "}");
}
std::string StreamsEnded(const std::string& code) {
  return Streams("ended_total", absl::StrCat(",code=\"", code, "\""));
}

class MetricsTest : public ::testing::Test {
 protected:
  MetricsTest() {
    served_.RunOnServer([this] {
      metrics_ = std::make_unique<ServerMetrics>(served_.server());
      publisher_ = std::make_unique<EventPublisher<rpc::NetworkChanged>>();
    });
  }
  ~MetricsTest() override {
    peer_ = nullptr;
    WaitFor("varnic_connections_open", 0);
    served_.RunOnServer([this] { publisher_ = nullptr; });
    served_.Stop();
  }

  // The value of a sample; -1 if there is none.
  double Value(const std::string& sample) {
    std::string text;
    served_.RunOnServer([&] { text = metrics_->Text(); });
    for (const absl::string_view line : absl::StrSplit(text, '\n')) {
      double value = 0;
      if (absl::StartsWith(line, sample + " ") &&
          absl::SimpleAtod(line.substr(sample.size() + 1), &value)) {
        return value;
      }
    }
    return -1;
  }
  // Until it comes to that, while the clients do what is to be done.
  void WaitFor(const std::string& sample, double value) {
    while (Value(sample) != value) {
      loop_.RunPending();
      if (peer_ != nullptr) peer_->Pump();
    }
  }

  absl::Status CallPath(const std::string& id) {
    Client client(loop_, served_.address());
    return rpc::ProfileClient(client)
        .PathAndWait(MakeProfileId(id), absl::InfiniteDuration())
        .status();
  }
  Http2Peer::Answer Exchange(const std::string& path, const Http2Peer::Headers& more = {}) {
    Http2Peer::Headers headers = Http2Peer::GrpcHeaders(path);
    headers.insert(headers.end(), more.begin(), more.end());
    return Http2Peer(served_.address())
        .Exchange(headers, Framed(MakeProfileId("kept").SerializeAsString()));
  }

  std::unique_ptr<StreamPeer::Stream> Subscribe(const std::string& key) {
    auto stream = peer_->Open("WhenNetworkChanged");
    stream->Send(Subscription(key));
    return stream;
  }
  void Publish(const std::string& key, std::size_t bytes) {
    served_.RunOnServer([&] {
      rpc::NetworkChanged event;
      event.add_interfaces()->set_name(std::string(bytes, 'x'));
      publisher_->Publish(MakeProfileId(key), event);
    });
  }

  ServedHost served_;
  std::unique_ptr<ServerMetrics> metrics_;
  std::unique_ptr<EventPublisher<rpc::NetworkChanged>> publisher_;
  net::EventLoop loop_;
  std::unique_ptr<StreamPeer> peer_;
};

TEST_F(MetricsTest, UnaryCallsAreCountedByMethodAndCode) {
  EXPECT_TRUE(CallPath("any").ok());
  EXPECT_TRUE(CallPath("later").ok());
  EXPECT_TRUE(absl::IsNotFound(CallPath("missing")));
  EXPECT_TRUE(absl::IsUnknown(CallPath("failed")));
  Exchange("/rpc.Profile/Name");

  EXPECT_EQ(Value(PathCalls("OK")), 2);
  EXPECT_EQ(Value(PathCalls("NOT_FOUND")), 1);
  EXPECT_EQ(Value(PathCalls("UNKNOWN")), 1);
  EXPECT_EQ(Value(Calls("/rpc.Profile/Name", "UNIMPLEMENTED")), 1);
  EXPECT_EQ(Value(PathDurations("count", "OK")), 2);
  EXPECT_EQ(Value(PathDurations("count", "NOT_FOUND")), 1);
  EXPECT_EQ(Value(PathDurations("count", "UNKNOWN")), 1);
  EXPECT_EQ(Value(PathDurations("count", "CANCELLED")), -1);
}

TEST_F(MetricsTest, CallThatTookTimeIsInItsBucket) {
  const auto start = net::LoopClock::now();
  Exchange("/rpc.Profile/Path", {{"grpc-timeout", "30m"}});
  const absl::Duration elapsed = net::LoopClock::Between(start, net::LoopClock::now());

  const std::string code = "DEADLINE_EXCEEDED";
  EXPECT_EQ(Value(PathCalls(code)), 1);
  EXPECT_EQ(Value(PathDurations("bucket", code, ",le=\"0.025\"")), 0);
  EXPECT_EQ(Value(PathDurations("bucket", code, ",le=\"+Inf\"")), 1);
  EXPECT_GE(Value(PathDurations("sum", code)), 0.03);
  EXPECT_LE(Value(PathDurations("sum", code)), absl::ToDoubleSeconds(elapsed));
}

TEST_F(MetricsTest, CallsThatTheirClientGivesUpAreCancelled) {
  auto client = std::make_unique<Client>(loop_, served_.address());
  rpc::ProfileClient profiles(*client);
  const auto start = [&] {
    return profiles.Path(MakeProfileId("kept"), absl::InfiniteDuration(),
                         [](const auto& /*path*/) {});
  };
  const Client::CallId first = start();
  start();
  // Comes behind the two on their connection.
  ASSERT_TRUE(profiles.PathAndWait(MakeProfileId("any"), absl::InfiniteDuration()).ok());

  client->Cancel(first);
  WaitFor(PathCalls("CANCELLED"), 1);
  client = nullptr;
  WaitFor(PathCalls("CANCELLED"), 2);

  // What the host answers now is no other end.
  served_.RunOnServer([this] { served_.host().AnswerKept(); });
  EXPECT_EQ(Value(PathCalls("OK")), 1);
}

TEST_F(MetricsTest, WhatIsNoCallOfAMethodSharesOneLabel) {
  Exchange("/rpc.Profile/Nothing");
  Exchange("/made.Up/Name");
  Exchange("/rpc.Profile/Path", {{"grpc-timeout", "soon"}});
  Http2Peer(served_.address())
      .Exchange({{":method", "GET"}, {":scheme", "http"}, {":authority", "x"}, {":path", "/"}}, "");

  EXPECT_EQ(Value(Calls("unknown", "UNIMPLEMENTED")), 2);
  EXPECT_EQ(Value(Calls("unknown", "INTERNAL")), 1);
  EXPECT_EQ(Value(Calls("unknown", "UNKNOWN")), 1);
  EXPECT_EQ(Value(Calls("/made.Up/Name", "UNIMPLEMENTED")), -1);
}

TEST_F(MetricsTest, StreamsAreCountedFromTheirBeginningToTheirEnd) {
  peer_ = std::make_unique<StreamPeer>(served_.address());
  const auto closed = Subscribe("P");
  const auto reset = Subscribe("Q");
  const auto broken = Subscribe("R");
  const auto lost = Subscribe("S");
  WaitFor("varnic_subscriptions", 4);
  EXPECT_EQ(Value(Streams("open")), 4);

  closed->HalfClose();
  EXPECT_TRUE(closed->Finish().ok());
  reset->Reset();
  broken->Send("\xff");
  EXPECT_TRUE(absl::IsInvalidArgument(broken->Finish()));
  WaitFor(StreamsEnded("CANCELLED"), 1);
  EXPECT_EQ(Value("varnic_subscriptions"), 1);
  peer_->Disconnect();
  WaitFor(StreamsEnded("CANCELLED"), 2);

  EXPECT_EQ(Value(Streams("opened_total")), 4);
  EXPECT_EQ(Value(Streams("open")), 0);
  EXPECT_EQ(Value(StreamsEnded("OK")), 1);
  EXPECT_EQ(Value(StreamsEnded("INVALID_ARGUMENT")), 1);
  EXPECT_EQ(Value(Calls(kEvents, "OK")), 0);
  std::string text;
  served_.RunOnServer([&] { text = metrics_->Text(); });
  EXPECT_FALSE(absl::StrContains(text, "varnic_call_duration_seconds_count"));
}

TEST_F(MetricsTest, WhatWaitsForASlowReaderIsMeasured) {
  net::GrpcClientOptions options;
  options.http2.stream_window_bytes = 0;
  peer_ = std::make_unique<StreamPeer>(served_.address(), options);
  const auto stream = Subscribe("P");
  WaitFor("varnic_subscriptions", 1);

  for (int i = 0; i < 80; ++i) Publish("P", 8 << 10);

  EXPECT_EQ(Value("varnic_waiting_messages"), 64);
  EXPECT_GT(Value("varnic_waiting_bytes"), 64 * (8 << 10));
  EXPECT_GT(Value("varnic_conflated_events_total"), 10);
  stream->Send(Subscription("Q"));
  WaitFor("varnic_subscriptions", 2);

  Publish("Q", 1 << 20);
  WaitFor(StreamsEnded("RESOURCE_EXHAUSTED"), 1);

  EXPECT_EQ(Value("varnic_slow_readers_total"), 1);
  WaitFor("varnic_waiting_messages", 0);
  EXPECT_EQ(Value("varnic_waiting_bytes"), 0);
}

TEST_F(MetricsTest, ConnectionsAndTheirBytesAreCounted) {
  EXPECT_EQ(Value("varnic_sent_bytes_total"), 0);
  peer_ = std::make_unique<StreamPeer>(served_.address());
  EXPECT_TRUE(CallPath("any").ok());
  WaitFor("varnic_connections_accepted_total", 2);
  WaitFor("varnic_connections_open", 1);

  EXPECT_EQ(Value("varnic_connections_refused_total"), 0);
  EXPECT_GT(Value("varnic_received_bytes_total"), 100);
  EXPECT_GT(Value("varnic_sent_bytes_total"), 50);
}

std::atomic<int> g_lines{0};
bool CountLine(int /*severity*/, const char* /*file*/, int /*line*/, size_t /*message_start*/,
               const std::string& text) {
  if (absl::StrContains(text, "protobuf: ")) ++g_lines;
  return true;
}

TEST_F(MetricsTest, TextsThatAreNotUtf8AreCountedAndFillNoLog) {
  g_lines = 0;
  logging::SetLogMessageHandler(&CountLine);
  const absl::Time begin = absl::Now();
  const double before = Value("varnic_protobuf_complaints_total");
  Client client(loop_, served_.address());
  const auto& method = *rpc::ProfileRpc::descriptor()->FindMethodByName("Path");
  google::protobuf::BytesValue request;  // To the host, a ProfileId.
  request.set_value("\xc3(");
  google::protobuf::StringValue response;

  for (int i = 0; i < 1000; ++i) {
    const absl::Status status =
        client.CallAndWait(method, request, response, absl::InfiniteDuration());
    ASSERT_TRUE(absl::IsInternal(status)) << status;
  }

  EXPECT_EQ(Value("varnic_protobuf_complaints_total") - before, 1000);
  EXPECT_EQ(Value(PathCalls("INTERNAL")), 1000);
  EXPECT_LE(g_lines, absl::ToInt64Seconds(absl::Now() - begin) + 2);
  logging::SetLogMessageHandler(nullptr);
}

}  // namespace
}  // namespace varnic
