#include "core/host/network_dump.h"

#include <memory>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "core/common/rpc/testing/fake_scheduler.h"
#include "core/host/testing/own_network.h"
#include "core/server/loop_scheduler.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using testing::OwnNetwork;

// Asks the kernel of the machine that runs the tests.
class NetworkDumpTest : public ::testing::Test {
 protected:
  std::unique_ptr<NetworkDump> Start(NetworkDump::OnDone on_done) {
    auto dump = NetworkDump::Start(loop_, scheduler_, std::move(on_done));
    EXPECT_TRUE(dump.ok()) << dump.status();
    return dump.ok() ? *std::move(dump) : nullptr;
  }

  net::EventLoop loop_;
  LoopScheduler scheduler_{loop_};
};

TEST_F(NetworkDumpTest, EndsOnceAndNotWithinItsStart) {
  int ends = 0;
  const auto dump = Start([&](const absl::StatusOr<NetworkSnapshot>& snapshot) {
    EXPECT_TRUE(snapshot.ok() || absl::IsAborted(snapshot.status())) << snapshot.status();
    ++ends;
  });
  ASSERT_NE(dump, nullptr);
  EXPECT_EQ(ends, 0);

  EXPECT_TRUE(loop_.RunUntil([&] { return ends != 0; }));

  while (loop_.RunPending() != 0) continue;
  EXPECT_EQ(ends, 1);
}

TEST_F(NetworkDumpTest, MayBeDestroyedAtItsEnd) {
  bool ended = false;
  std::unique_ptr<NetworkDump> dump;
  dump = Start([&](const absl::StatusOr<NetworkSnapshot>& /*snapshot*/) {
    dump = nullptr;
    ended = true;
  });

  EXPECT_TRUE(loop_.RunUntil([&] { return ended; }));
}

TEST_F(NetworkDumpTest, SaysNothingOnceItIsDestroyed) {
  auto dump = Start([](const absl::StatusOr<NetworkSnapshot>& /*snapshot*/) { ADD_FAILURE(); });
  dump = nullptr;

  bool other_ended = false;
  const auto other = Start([&](const auto& /*snapshot*/) { other_ended = true; });
  EXPECT_TRUE(loop_.RunUntil([&] { return other_ended; }));
}

TEST_F(NetworkDumpTest, KernelThatDoesNotAnswerEndsItInTime) {
  ::varnic::testing::FakeScheduler scheduler;
  absl::Status status;
  const auto dump = NetworkDump::Start(
      loop_, scheduler,
      [&](const absl::StatusOr<NetworkSnapshot>& snapshot) { status = snapshot.status(); });
  ASSERT_TRUE(dump.ok()) << dump.status();

  // The loop does not run, so no answer is seen.
  scheduler.Advance(NetworkDump::kPatience);

  EXPECT_TRUE(absl::IsDeadlineExceeded(status)) << status;
}

// The last one: it takes the process elsewhere.
TEST_F(NetworkDumpTest, ListsWhatIsThereOverManyDatagrams) {
  const absl::Status entered = testing::EnterOwnNetwork();
  if (!entered.ok()) GTEST_SKIP() << entered;
  const absl::Status status = OwnNetwork::AddCable("first", "second");
  if (!status.ok()) GTEST_SKIP() << "this kernel has no such interfaces: " << status;
  for (int i = 0; i < 40; ++i) {
    const std::string name = "pair" + std::to_string(i);
    ASSERT_TRUE(OwnNetwork::AddCable(name, name + "b").ok());
  }
  OwnNetwork::AddAddress("first", "192.0.2.1");
  OwnNetwork::AddDefaultRoute("first");
  rpc::NetworkChanged state;
  std::unique_ptr<NetworkDump> dump;
  const NetworkDump::OnDone on_done = [&](const absl::StatusOr<NetworkSnapshot>& snapshot) {
    if (snapshot.ok())
      state = snapshot->Describe([](const std::string& /*name*/) { return false; });
    // The kernel may still be at work on what was made.
    if (!state.online()) dump = Start(on_done);
  };

  dump = Start(on_done);
  EXPECT_TRUE(loop_.RunUntil([&] { return state.online(); }));

  EXPECT_EQ(state.interfaces_size(), 82);
}

}  // namespace
}  // namespace varnic::host
