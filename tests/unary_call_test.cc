// Unary calls from a generated client through a real socket to a host's override and back.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/client/client.h"
#include "rpc/profile/profile.client.h"
#include "tests/served_host.h"

namespace varnic {
namespace {

constexpr std::size_t kMaxMessageBytes = 1 << 20;

// A server in a thread of its own, and a client on this one.
class UnaryCallTest : public ::testing::TestWithParam<const char*> {
 protected:
  using Path = absl::StatusOr<google::protobuf::StringValue>;

  Path CallPath(const std::string& id, absl::Duration timeout = absl::InfiniteDuration()) {
    return profiles_.PathAndWait(MakeProfileId(id), timeout);
  }

  ServedHost served_{GetParam()};
  net::EventLoop client_loop_;
  Client client_{client_loop_, served_.address()};
  rpc::ProfileClient profiles_{client_};
};

INSTANTIATE_TEST_SUITE_P(Sockets, UnaryCallTest, ::testing::Values("unix", "127.0.0.1:0"),
                         [](const auto& socket) {
                           return std::string(socket.param) == "unix" ? "Unix" : "Tcp";
                         });

TEST_P(UnaryCallTest, AnswerOfTheOverrideReachesTheCaller) {
  const Path path = CallPath("one");

  ASSERT_EQ(path.status(), absl::OkStatus());
  EXPECT_EQ(path->value(), "/profiles/one");
}

TEST_P(UnaryCallTest, OverrideMayAnswerLater) {
  const Path path = CallPath("later");

  ASSERT_EQ(path.status(), absl::OkStatus());
  EXPECT_EQ(path->value(), "/profiles/later");
}

TEST_P(UnaryCallTest, OverrideMayAnswerFromAPostByAnotherThread) {
  const Path path = CallPath("elsewhere");

  ASSERT_EQ(path.status(), absl::OkStatus());
  EXPECT_EQ(path->value(), "/profiles/elsewhere");
}

TEST_P(UnaryCallTest, SetFailedAloneIsUnknownWithItsText) {
  EXPECT_EQ(CallPath("failed").status(), absl::UnknownError("it failed: 100 %"));
}

TEST_P(UnaryCallTest, OverrideMayFailWithAnyStatus) {
  EXPECT_EQ(CallPath("missing").status(), absl::NotFoundError("no such profile"));
}

TEST_P(UnaryCallTest, StatusTextThatIsTooLongForAHeaderIsCut) {
  const absl::Status status = CallPath("long text").status();

  EXPECT_EQ(status.code(), absl::StatusCode::kInternal);
  EXPECT_EQ(status.message(), std::string(2048, '%'));
}

TEST_P(UnaryCallTest, MethodThatTheHostDoesNotServeIsUnimplementedWithTheSkeletonsText) {
  EXPECT_EQ(profiles_.NameAndWait(MakeProfileId("one"), absl::InfiniteDuration()).status(),
            absl::UnimplementedError("Method Name() not implemented."));
}

TEST_P(UnaryCallTest, DeadlineIsVisibleToTheOverride) {
  const Path path = CallPath("deadline", absl::Hours(2));

  ASSERT_EQ(path.status(), absl::OkStatus());
  const int seconds = std::stoi(path->value());
  EXPECT_GT(seconds, 3600);
  EXPECT_LE(seconds, 7200);
}

TEST_P(UnaryCallTest, ManyCallsOnOneConnectionEachGetTheirOwnAnswer) {
  constexpr int kCalls = 1000;
  int open = kCalls;
  for (int i = 0; i < kCalls; ++i) {
    const std::string id = std::to_string(i);
    profiles_.Path(MakeProfileId(id), absl::InfiniteDuration(), [&open, id](const Path& path) {
      EXPECT_EQ(path.status(), absl::OkStatus());
      EXPECT_TRUE(path.ok() && path->value() == "/profiles/" + id) << id;
      --open;
    });
  }

  client_loop_.RunUntil([&] { return open == 0; });
}

TEST_P(UnaryCallTest, ThousandCallsMayWaitForTheirAnswersAtOnce) {
  constexpr int kCalls = 1000;
  int open = kCalls;
  for (int i = 0; i < kCalls; ++i) {
    profiles_.Path(MakeProfileId("kept"), absl::InfiniteDuration(), [&open](const Path& path) {
      EXPECT_EQ(path.status(), absl::OkStatus());
      --open;
    });
  }
  // Has come behind them on the same connection.
  ASSERT_EQ(CallPath("one").status(), absl::OkStatus());
  EXPECT_EQ(open, kCalls);

  served_.RunOnServer([this] { served_.host().AnswerKept(); });
  client_loop_.RunUntil([&] { return open == 0; });

  EXPECT_EQ(served_.host().notifications(), kCalls);
  EXPECT_EQ(served_.host().cancellations(), 0);
}

TEST_P(UnaryCallTest, LargeMessagesGoThroughInBothDirections) {
  for (const std::size_t size : {std::size_t{64} << 10, std::size_t{3} << 20}) {
    const std::string id(size, 'x');

    const Path path = CallPath(id);

    ASSERT_EQ(path.status(), absl::OkStatus());
    EXPECT_TRUE(path->value() == "/profiles/" + id) << size;
  }
}

TEST_P(UnaryCallTest, ManyLargeCallsShareOneConnection) {
  const std::string id(64 << 10, 'x');
  int open = 100;
  for (int i = 0; i < 100; ++i) {
    profiles_.Path(MakeProfileId(id), absl::InfiniteDuration(), [&](const Path& path) {
      EXPECT_EQ(path.status(), absl::OkStatus());
      EXPECT_TRUE(path.ok() && path->value() == "/profiles/" + id);
      --open;
    });
  }

  client_loop_.RunUntil([&] { return open == 0; });
}

// What ProfileId's field takes beside a value of that size.
std::string IdOfMessageSize(std::size_t size) {
  ProfileId id = MakeProfileId(std::string(size, 'x'));
  id.mutable_value()->resize(2 * size - id.ByteSizeLong());
  return id.value();
}

TEST(UnaryCallLimitsTest, RequestMayBeAsLargeAsTheServerAllowsAndNoLarger) {
  ServerOptions options;
  options.max_message_bytes = kMaxMessageBytes;
  ServedHost served("unix", options);
  net::EventLoop loop;
  Client client(loop, served.address());
  const auto call = [&](std::size_t size) {
    return rpc::ProfileClient(client)
        .PathAndWait(MakeProfileId(IdOfMessageSize(size)), absl::InfiniteDuration())
        .status();
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
  const auto call = [&](std::size_t size) {
    const std::string id = IdOfMessageSize(size).substr(std::string("/profiles/").size());
    return rpc::ProfileClient(client)
        .PathAndWait(MakeProfileId(id), absl::InfiniteDuration())
        .status();
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
  rpc::ProfileClient profiles(client);
  int open = 10;
  for (int i = 0; i < 10; ++i) {
    profiles.Path(MakeProfileId("later"), absl::InfiniteDuration(), [&open](const auto& path) {
      EXPECT_EQ(path.status(), absl::OkStatus());
      EXPECT_TRUE(path.ok() && path->value() == "/profiles/later");
      --open;
    });
  }

  loop.RunUntil([&] { return open == 0; });
}

}  // namespace
}  // namespace varnic
