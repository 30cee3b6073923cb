// grpc.health.v1.Health of a running server.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "grpc/health/v1/health.pb.h"
#include "tests/served_host.h"
#include "tests/stream_peer.h"

namespace varnic {
namespace {

using grpc::health::v1::HealthCheckRequest;
using grpc::health::v1::HealthCheckResponse;
using grpc::health::v1::HealthListResponse;
using Stream = std::unique_ptr<StreamPeer::Stream>;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

std::string Request(const std::string& service) {
  HealthCheckRequest request;
  request.set_service(service);
  return request.SerializeAsString();
}

// "SERVING", say; empty if there was no message.
std::string StatusIn(const std::string& response) {
  if (response.empty()) return "";
  HealthCheckResponse parsed;
  EXPECT_TRUE(parsed.ParseFromString(response));
  return HealthCheckResponse::ServingStatus_Name(parsed.status());
}

class HealthTest : public ::testing::Test {
 protected:
  // A call of a method that gets one message.
  Stream Call(const std::string& method, const std::string& request) {
    Stream stream = peer_.OpenPath("/grpc.health.v1.Health/" + method);
    stream->Send(request);
    stream->HalfClose();
    return stream;
  }
  std::string Check(const std::string& service) {
    const Stream stream = Call("Check", Request(service));
    const std::string status = StatusIn(stream->Receive());
    EXPECT_EQ(stream->Finish(), absl::OkStatus());
    return status;
  }
  Stream Watch(const std::string& service) { return Call("Watch", Request(service)); }

  void SetServing(const std::string& service, bool serving) {
    served_.RunOnServer([&] { served_.server().health().SetServing(service, serving); });
  }
  void Drain() {
    served_.RunOnServer([this] { served_.server().Drain(absl::InfiniteDuration()); });
  }

  ServedHost served_;
  StreamPeer peer_{served_.address()};
};

TEST_F(HealthTest, EveryServiceThatWasAddedIsServing) {
  EXPECT_EQ(Check(""), "SERVING");
  EXPECT_EQ(Check("rpc.Profile"), "SERVING");
  EXPECT_EQ(Check("grpc.health.v1.Health"), "SERVING");
}

TEST_F(HealthTest, CheckOfAnUnknownServiceIsNotFound) {
  const Stream stream = Call("Check", Request("rpc.Unknown"));

  const absl::Status status = stream->Finish();

  EXPECT_EQ(status.code(), absl::StatusCode::kNotFound);
  EXPECT_TRUE(absl::StrContains(status.message(), "rpc.Unknown")) << status;
}

TEST_F(HealthTest, ServiceIsWhatTheHostSaysAndTheOthersStay) {
  SetServing("rpc.Profile", false);

  EXPECT_EQ(Check("rpc.Profile"), "NOT_SERVING");
  EXPECT_EQ(Check(""), "SERVING");
  SetServing("rpc.Profile", true);
  EXPECT_EQ(Check("rpc.Profile"), "SERVING");
}

TEST_F(HealthTest, ListNamesEveryServiceAndTheWhole) {
  SetServing("of the host's own", false);

  const Stream stream = Call("List", "");

  HealthListResponse response;
  ASSERT_TRUE(response.ParseFromString(stream->Receive()));
  std::map<std::string, std::string> statuses;
  for (const auto& [name, status] : response.statuses()) {
    statuses[name] = HealthCheckResponse::ServingStatus_Name(status.status());
  }
  EXPECT_THAT(statuses, UnorderedElementsAre(Pair("", "SERVING"), Pair("rpc.Profile", "SERVING"),
                                             Pair("grpc.health.v1.Health", "SERVING"),
                                             Pair("of the host's own", "NOT_SERVING")));
  EXPECT_EQ(stream->Finish(), absl::OkStatus());
}

TEST_F(HealthTest, ListOfMoreThanAHundredIsTooLong) {
  for (int i = 0; i < 97; ++i) SetServing(absl::StrCat("service ", i), true);
  EXPECT_EQ(Call("List", "")->Finish(), absl::OkStatus());

  SetServing("one more", true);

  EXPECT_EQ(Call("List", "")->Finish().code(), absl::StatusCode::kResourceExhausted);
}

TEST_F(HealthTest, WatchTellsTheStatusAtOnceAndThenEachChange) {
  const Stream watch = Watch("rpc.Profile");

  EXPECT_EQ(StatusIn(watch->Receive()), "SERVING");
  SetServing("rpc.Profile", true);
  SetServing("another", false);
  SetServing("rpc.Profile", false);
  EXPECT_EQ(StatusIn(watch->Receive()), "NOT_SERVING");
  SetServing("rpc.Profile", true);
  EXPECT_EQ(StatusIn(watch->Receive()), "SERVING");
}

TEST_F(HealthTest, WatchOfAnUnknownServiceWaitsUntilItIsKnown) {
  const Stream watch = Watch("later");
  EXPECT_EQ(StatusIn(watch->Receive()), "SERVICE_UNKNOWN");

  SetServing("later", true);

  EXPECT_EQ(StatusIn(watch->Receive()), "SERVING");
}

TEST_F(HealthTest, SlowWatcherGetsTheNewestStatusAndNotAllThoseBetween) {
  constexpr int kChanges = 100'000;
  const Stream watch = Watch("");
  EXPECT_EQ(StatusIn(watch->Receive()), "SERVING");

  served_.RunOnServer([this] {
    for (int i = 1; i <= kChanges; ++i) served_.server().health().SetServing("", i % 2 == 0);
    served_.server().health().SetServing("", false);
  });
  Drain();

  int messages = 0;
  std::string last;
  for (std::string next = watch->Receive(); !next.empty(); next = watch->Receive()) {
    last = StatusIn(next);
    ++messages;
  }
  EXPECT_EQ(last, "NOT_SERVING");
  EXPECT_LT(messages, kChanges / 10);
}

TEST_F(HealthTest, DrainTellsWatchersAndEndsThem) {
  const Stream profile = Watch("rpc.Profile");
  const Stream unknown = Watch("rpc.Unknown");
  const Stream stopped = Watch("stopped");
  SetServing("stopped", false);
  EXPECT_EQ(StatusIn(profile->Receive()), "SERVING");
  EXPECT_EQ(StatusIn(unknown->Receive()), "SERVICE_UNKNOWN");
  while (StatusIn(stopped->Receive()) != "NOT_SERVING") {
  }

  Drain();

  EXPECT_EQ(StatusIn(profile->Receive()), "NOT_SERVING");
  for (const Stream* watch : {&profile, &unknown, &stopped}) {
    EXPECT_EQ((*watch)->Receive(), "");
    EXPECT_EQ((*watch)->Finish().code(), absl::StatusCode::kUnavailable);
  }
  peer_.Disconnect();
  EXPECT_TRUE(served_.WaitUntilStopped());
}

TEST_F(HealthTest, DrainWaitsForNoRequestThatIsHalfThere) {
  const Stream check = peer_.OpenPath("/grpc.health.v1.Health/Check");
  check->Send(Request(""));
  EXPECT_EQ(Check(""), "SERVING");

  Drain();

  EXPECT_EQ(check->Finish().code(), absl::StatusCode::kUnavailable);
}

TEST_F(HealthTest, WatcherMayLeaveAtAnyTime) {
  const Stream reset = Watch("");
  const Stream lost = Watch("");
  EXPECT_EQ(StatusIn(reset->Receive()), "SERVING");
  EXPECT_EQ(StatusIn(lost->Receive()), "SERVING");

  reset->Reset();
  EXPECT_EQ(Check(""), "SERVING");
  SetServing("", false);
  EXPECT_EQ(StatusIn(lost->Receive()), "NOT_SERVING");
  peer_.Disconnect();
  SetServing("", true);

  EXPECT_EQ(FreshCall(served_.address()), absl::OkStatus());
}

TEST_F(HealthTest, RequestsThatAreNoneEndTheirCalls) {
  EXPECT_EQ(Call("Check", "\xff")->Finish().code(), absl::StatusCode::kInternal);
  EXPECT_EQ(Call("Watch", Request(std::string(1025, 'x')))->Finish().code(),
            absl::StatusCode::kInvalidArgument);
  const Stream two = peer_.OpenPath("/grpc.health.v1.Health/Check");
  two->Send(Request(""));
  two->Send(Request(""));
  EXPECT_EQ(two->Finish().code(), absl::StatusCode::kUnimplemented);
  const Stream none = peer_.OpenPath("/grpc.health.v1.Health/Watch");
  none->HalfClose();
  EXPECT_EQ(none->Finish().code(), absl::StatusCode::kUnimplemented);
  EXPECT_EQ(Call("Guess", "")->Finish().code(), absl::StatusCode::kUnimplemented);
}

TEST(HealthOptionsTest, HealthIsServedOnlyIfTheHostWantsIt) {
  ServerOptions options;
  options.serve_health = false;
  const ServedHost served("unix", options);
  StreamPeer peer(served.address());

  const Stream check = peer.OpenPath("/grpc.health.v1.Health/Check");

  EXPECT_EQ(check->Finish().code(), absl::StatusCode::kUnimplemented);
}

}  // namespace
}  // namespace varnic
