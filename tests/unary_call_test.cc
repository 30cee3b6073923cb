// Unary calls from varnic::Client through a real socket to a host's override and back.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/client/client.h"
#include "tests/served_host.h"

namespace varnic {
namespace {

constexpr std::size_t kMaxMessageBytes = 1 << 20;

ProfileId Id(const std::string& value) {
  ProfileId id;
  id.set_value(value);
  return id;
}

// A server in a thread of its own, and a client on this one.
class UnaryCallTest : public ::testing::TestWithParam<const char*> {
 protected:
  absl::Status CallPath(const std::string& id, absl::Duration timeout = absl::InfiniteDuration()) {
    return client_.CallAndWait(ProfileMethod("Path"), Id(id), path_, timeout);
  }

  ServedHost served_{GetParam()};
  net::EventLoop client_loop_;
  Client client_{client_loop_, served_.address()};
  google::protobuf::StringValue path_;
};

INSTANTIATE_TEST_SUITE_P(Sockets, UnaryCallTest, ::testing::Values("unix", "127.0.0.1:0"),
                         [](const auto& socket) {
                           return std::string(socket.param) == "unix" ? "Unix" : "Tcp";
                         });

TEST_P(UnaryCallTest, AnswerOfTheOverrideReachesTheCaller) {
  ASSERT_EQ(CallPath("one"), absl::OkStatus());

  EXPECT_EQ(path_.value(), "/profiles/one");
}

TEST_P(UnaryCallTest, OverrideMayAnswerLater) {
  ASSERT_EQ(CallPath("later"), absl::OkStatus());

  EXPECT_EQ(path_.value(), "/profiles/later");
}

TEST_P(UnaryCallTest, OverrideMayAnswerFromAPostByAnotherThread) {
  ASSERT_EQ(CallPath("elsewhere"), absl::OkStatus());

  EXPECT_EQ(path_.value(), "/profiles/elsewhere");
}

TEST_P(UnaryCallTest, SetFailedAloneIsUnknownWithItsText) {
  EXPECT_EQ(CallPath("failed"), absl::UnknownError("it failed: 100 %"));
}

TEST_P(UnaryCallTest, OverrideMayFailWithAnyStatus) {
  EXPECT_EQ(CallPath("missing"), absl::NotFoundError("no such profile"));
}

TEST_P(UnaryCallTest, StatusTextThatIsTooLongForAHeaderIsCut) {
  const absl::Status status = CallPath("long text");

  EXPECT_EQ(status.code(), absl::StatusCode::kInternal);
  EXPECT_EQ(status.message(), std::string(2048, '%'));
}

TEST_P(UnaryCallTest, MethodThatTheHostDoesNotServeIsUnimplementedWithTheSkeletonsText) {
  google::protobuf::StringValue name;

  EXPECT_EQ(client_.CallAndWait(ProfileMethod("Name"), Id("one"), name, absl::InfiniteDuration()),
            absl::UnimplementedError("Method Name() not implemented."));
}

TEST_P(UnaryCallTest, DeadlineIsVisibleToTheOverride) {
  ASSERT_EQ(CallPath("deadline", absl::Hours(2)), absl::OkStatus());

  const int seconds = std::stoi(path_.value());
  EXPECT_GT(seconds, 3600);
  EXPECT_LE(seconds, 7200);
}

TEST_P(UnaryCallTest, ManyCallsOnOneConnectionEachGetTheirOwnAnswer) {
  constexpr int kCalls = 1000;
  std::vector<google::protobuf::StringValue> answers(kCalls);
  int open = kCalls;
  for (int i = 0; i < kCalls; ++i) {
    client_.Call(ProfileMethod("Path"), Id(std::to_string(i)), answers[i], absl::InfiniteDuration(),
                 [&open](const absl::Status& status) {
                   EXPECT_EQ(status, absl::OkStatus());
                   --open;
                 });
  }

  client_loop_.RunUntil([&] { return open == 0; });

  for (int i = 0; i < kCalls; ++i) EXPECT_EQ(answers[i].value(), "/profiles/" + std::to_string(i));
}

TEST_P(UnaryCallTest, ThousandCallsMayWaitForTheirAnswersAtOnce) {
  constexpr int kCalls = 1000;
  google::protobuf::StringValue answer;
  int open = kCalls;
  for (int i = 0; i < kCalls; ++i) {
    client_.Call(ProfileMethod("Path"), Id("kept"), answer, absl::InfiniteDuration(),
                 [&open](const absl::Status& status) {
                   EXPECT_EQ(status, absl::OkStatus());
                   --open;
                 });
  }
  // Has come behind them on the same connection.
  ASSERT_EQ(CallPath("one"), absl::OkStatus());
  EXPECT_EQ(open, kCalls);

  served_.RunOnServer([this] { served_.host().AnswerKept(); });
  client_loop_.RunUntil([&] { return open == 0; });

  EXPECT_EQ(served_.host().notifications(), kCalls);
  EXPECT_EQ(served_.host().cancellations(), 0);
}

TEST_P(UnaryCallTest, LargeMessagesGoThroughInBothDirections) {
  for (const std::size_t size : {std::size_t{64} << 10, std::size_t{3} << 20}) {
    const std::string id(size, 'x');

    ASSERT_EQ(CallPath(id), absl::OkStatus());

    EXPECT_TRUE(path_.value() == "/profiles/" + id) << size;
  }
}

TEST_P(UnaryCallTest, ManyLargeCallsShareOneConnection) {
  const std::string id(64 << 10, 'x');
  std::vector<google::protobuf::StringValue> answers(100);
  std::size_t open = answers.size();
  for (google::protobuf::StringValue& answer : answers) {
    client_.Call(ProfileMethod("Path"), Id(id), answer, absl::InfiniteDuration(),
                 [&open](const absl::Status& status) {
                   EXPECT_EQ(status, absl::OkStatus());
                   --open;
                 });
  }

  client_loop_.RunUntil([&] { return open == 0; });

  for (const auto& answer : answers) EXPECT_TRUE(answer.value() == "/profiles/" + id);
}

// What ProfileId's field takes beside a value of that size.
std::string IdOfMessageSize(std::size_t size) {
  ProfileId id = Id(std::string(size, 'x'));
  id.mutable_value()->resize(2 * size - id.ByteSizeLong());
  return id.value();
}

TEST(UnaryCallLimitsTest, RequestMayBeAsLargeAsTheServerAllowsAndNoLarger) {
  ServerOptions options;
  options.max_message_bytes = kMaxMessageBytes;
  ServedHost served("unix", options);
  net::EventLoop loop;
  Client client(loop, served.address());
  google::protobuf::StringValue path;
  const auto call = [&](std::size_t size) {
    return client.CallAndWait(ProfileMethod("Path"), Id(IdOfMessageSize(size)), path,
                              absl::InfiniteDuration());
  };

  EXPECT_EQ(call(kMaxMessageBytes), absl::OkStatus());
  EXPECT_EQ(call(kMaxMessageBytes + 1),
            absl::ResourceExhaustedError(
                "received message is larger than allowed (1048577 vs. 1048576 bytes)"));
  EXPECT_EQ(call(100), absl::OkStatus());
}

TEST(UnaryCallLimitsTest, AnswerMayBeAsLargeAsTheClientAllowsAndNoLarger) {
  ServedHost served;
  net::EventLoop loop;
  ClientOptions options;
  options.max_message_bytes = 1000;
  Client client(loop, served.address(), options);
  google::protobuf::StringValue path;
  const auto call = [&](std::size_t size) {
    const std::string id = IdOfMessageSize(size).substr(std::string("/profiles/").size());
    return client.CallAndWait(ProfileMethod("Path"), Id(id), path, absl::InfiniteDuration());
  };

  EXPECT_EQ(call(1000), absl::OkStatus());
  EXPECT_EQ(call(1001).code(), absl::StatusCode::kResourceExhausted);
  EXPECT_EQ(call(1000), absl::OkStatus());
}

TEST(UnaryCallLimitsTest, CallsBeyondTheServersLimitWaitForTheirTurn) {
  ServerOptions options;
  options.max_concurrent_streams = 3;
  ServedHost served("unix", options);
  net::EventLoop loop;
  Client client(loop, served.address());
  google::protobuf::StringValue path;
  int open = 10;
  for (int i = 0; i < 10; ++i) {
    client.Call(ProfileMethod("Path"), Id("later"), path, absl::InfiniteDuration(),
                [&open](const absl::Status& status) {
                  EXPECT_EQ(status, absl::OkStatus());
                  --open;
                });
  }

  loop.RunUntil([&] { return open == 0; });

  EXPECT_EQ(path.value(), "/profiles/later");
}

}  // namespace
}  // namespace varnic
