// Calls that nobody waits for any more, as their override sees them.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/client/client.h"
#include "rpc/profile/profile.client.h"
#include "tests/served_host.h"

namespace varnic {
namespace {

class CallCancellationTest : public ::testing::TestWithParam<const char*> {
 protected:
  // Starts a call that the host keeps, and waits until it does.
  Client::CallId StartKeptCall(absl::Duration timeout = absl::InfiniteDuration()) {
    const Client::CallId id = profiles().Path(kept_, timeout, [this](const auto& path) {
      status_ = path.status();
      ++ends_;
    });
    EXPECT_EQ(CallOther(), absl::OkStatus());
    EXPECT_TRUE(host().WaitForKept(1));
    return id;
  }

  // Comes behind what was sent on the connection before.
  absl::Status CallOther() {
    return profiles().PathAndWait(ProfileId(), absl::InfiniteDuration()).status();
  }

  rpc::ProfileClient profiles() { return rpc::ProfileClient(*client_); }
  TestHost& host() { return served_.host(); }
  void AnswerKept() {
    served_.RunOnServer([this] { host().AnswerKept(); });
  }

  ServedHost served_{GetParam()};
  net::EventLoop loop_;
  std::unique_ptr<Client> client_ = std::make_unique<Client>(loop_, served_.address());
  const ProfileId kept_ = MakeProfileId("kept");
  absl::Status status_;
  int ends_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Sockets, CallCancellationTest, ::testing::Values("unix", "127.0.0.1:0"),
                         [](const auto& socket) {
                           return std::string(socket.param) == "unix" ? "Unix" : "Tcp";
                         });

TEST_P(CallCancellationTest, ClientsCancelReachesTheOverride) {
  const Client::CallId id = StartKeptCall();

  client_->Cancel(id);
  ASSERT_EQ(CallOther(), absl::OkStatus());

  EXPECT_TRUE(host().WaitForCancelled(1));
  EXPECT_EQ(status_, absl::CancelledError("the caller cancelled the call"));
}

TEST_P(CallCancellationTest, LateAnswerIsHarmlessAndNotifiesNobodyAgain) {
  const Client::CallId id = StartKeptCall();
  client_->Cancel(id);
  ASSERT_EQ(CallOther(), absl::OkStatus());
  ASSERT_TRUE(host().WaitForCancelled(1));

  AnswerKept();

  EXPECT_EQ(CallOther(), absl::OkStatus());
  EXPECT_EQ(host().notifications(), 1);
  EXPECT_EQ(ends_, 1);
}

TEST_P(CallCancellationTest, OverrideMayAnswerInsideTheNotification) {
  served_.RunOnServer([this] { host().AnswerWhenCancelled(); });
  const Client::CallId id = StartKeptCall();

  client_->Cancel(id);

  EXPECT_EQ(CallOther(), absl::OkStatus());
  EXPECT_TRUE(host().WaitForCancelled(1));
}

TEST_P(CallCancellationTest, AnswerWithoutCancellationNotifiesOnceAtTheEnd) {
  StartKeptCall();

  AnswerKept();
  loop_.RunUntil([this] { return ends_ == 1; });

  EXPECT_EQ(status_, absl::OkStatus());
  EXPECT_EQ(host().notifications(), 1);
  EXPECT_EQ(host().cancellations(), 0);
}

TEST_P(CallCancellationTest, DeadlineReachesTheOverride) {
  StartKeptCall(absl::Milliseconds(500));

  loop_.RunUntil([this] { return ends_ == 1; });

  EXPECT_EQ(status_.code(), absl::StatusCode::kDeadlineExceeded);
  EXPECT_TRUE(host().WaitForCancelled(1));
}

TEST_P(CallCancellationTest, LostConnectionReachesTheOverride) {
  StartKeptCall();

  client_ = nullptr;

  EXPECT_TRUE(host().WaitForCancelled(1));
  EXPECT_EQ(status_, absl::CancelledError("the caller cancelled the call"));
  AnswerKept();
  EXPECT_EQ(FreshCall(served_.address()), absl::OkStatus());
}

TEST_P(CallCancellationTest, OneNotificationMayAnswerAllCallsOfALostConnection) {
  served_.RunOnServer([this] { host().AnswerWhenCancelled(); });
  for (int i = 0; i < 10; ++i) {
    profiles().Path(kept_, absl::InfiniteDuration(), [](const auto& /*path*/) {});
  }
  ASSERT_EQ(CallOther(), absl::OkStatus());

  client_ = nullptr;

  ASSERT_TRUE(host().WaitForCancelled(1));
  EXPECT_EQ(FreshCall(served_.address()), absl::OkStatus());
  EXPECT_EQ(host().notifications(), 10);
}

TEST_P(CallCancellationTest, EndOfTheServerCancelsAndALaterAnswerIsHarmless) {
  StartKeptCall();

  served_.Stop();

  EXPECT_EQ(host().cancellations(), 1);
  host().AnswerKept();
  EXPECT_EQ(host().notifications(), 1);
  loop_.RunUntil([this] { return ends_ == 1; });
  EXPECT_EQ(status_.code(), absl::StatusCode::kUnavailable);
}

TEST_P(CallCancellationTest, OneNotificationMayAnswerAllCallsOfAServerThatEnds) {
  served_.RunOnServer([this] { host().AnswerWhenCancelled(); });
  Client other(loop_, served_.address());
  rpc::ProfileClient both[] = {profiles(), rpc::ProfileClient(other)};
  for (int i = 0; i < 4; ++i) {
    both[i % 2].Path(kept_, absl::InfiniteDuration(), [this](const auto& /*path*/) { ++ends_; });
  }
  for (rpc::ProfileClient& one : both) {
    ASSERT_EQ(one.PathAndWait(ProfileId(), absl::InfiniteDuration()).status(), absl::OkStatus());
  }

  served_.Stop();
  loop_.RunUntil([this] { return ends_ == 4; });

  EXPECT_EQ(host().notifications(), 4);
}

}  // namespace
}  // namespace varnic
