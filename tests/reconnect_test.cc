// A client that outlives its server, and meets the next one at the same address.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/client/client.h"
#include "rpc/profile/profile.client.h"
#include "tests/served_host.h"

namespace varnic {
namespace {

class ReconnectTest : public ::testing::Test {
 protected:
  absl::Status Call() {
    return profiles_.PathAndWait(ProfileId(), absl::InfiniteDuration()).status();
  }

  // Ends when the server's end has reached the client.
  absl::Status WaitForTheLossIn(ServedHost& served) {
    absl::Status status;
    bool ended = false;
    profiles_.Path(MakeProfileId("kept"), absl::InfiniteDuration(), [&](const auto& path) {
      status = path.status();
      ended = true;
    });
    EXPECT_EQ(Call(), absl::OkStatus());
    served.Stop();
    loop_.RunUntil([&] { return ended; });
    return status;
  }

  const std::string address_ = NewSocketAddress();
  net::EventLoop loop_;
  Client client_{loop_, address_};
  rpc::ProfileClient profiles_{client_};
};

TEST_F(ReconnectTest, CallsFailWhileThereIsNoServerAndWorkOnceThereIs) {
  const absl::Status before = Call();
  ServedHost served(address_);

  EXPECT_EQ(before.code(), absl::StatusCode::kUnavailable);
  EXPECT_NE(before.message().find(address_.substr(5)), absl::string_view::npos) << before;
  EXPECT_EQ(Call(), absl::OkStatus());
}

TEST_F(ReconnectTest, OpenCallFailsWithTheServerAndTheNextOneMeetsItsSuccessor) {
  auto first = std::make_unique<ServedHost>(address_);

  const absl::Status loss = WaitForTheLossIn(*first);
  EXPECT_EQ(loss.code(), absl::StatusCode::kUnavailable);
  EXPECT_EQ(loss.message().find("the connection was lost before the answer came"), 0u) << loss;
  EXPECT_EQ(Call().code(), absl::StatusCode::kUnavailable);

  first = nullptr;
  const ServedHost second(address_);
  EXPECT_EQ(Call(), absl::OkStatus());
  EXPECT_EQ(Call(), absl::OkStatus());
}

TEST_F(ReconnectTest, CallsFromTheCallbackOfALostCallGoToTheNextConnection) {
  auto first = std::make_unique<ServedHost>(address_);
  ASSERT_EQ(Call(), absl::OkStatus());
  absl::Status retried = absl::UnknownError("not retried");
  bool ended = false;
  std::unique_ptr<ServedHost> second;
  profiles_.Path(MakeProfileId("kept"), absl::InfiniteDuration(), [&](const auto& lost) {
    EXPECT_EQ(lost.status().code(), absl::StatusCode::kUnavailable);
    first = nullptr;
    second = std::make_unique<ServedHost>(address_);
    profiles_.Path(ProfileId(), absl::InfiniteDuration(), [&](const auto& path) {
      retried = path.status();
      ended = true;
    });
  });
  ASSERT_EQ(Call(), absl::OkStatus());

  first->Stop();
  loop_.RunUntil([&] { return ended; });

  EXPECT_EQ(retried, absl::OkStatus());
}

}  // namespace
}  // namespace varnic
