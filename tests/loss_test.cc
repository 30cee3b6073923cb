// A client in the middle of its work, and a host that is killed and comes back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/client/client.h"
#include "rpc/profile/profile.client.h"
#include "tests/served_host.h"

namespace varnic {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::Gt;
using ::testing::Le;

constexpr absl::Duration kPatience = absl::Seconds(60);

// A stream_host as a process of its own, which can only be killed.
class HostProcess {
 public:
  explicit HostProcess(const std::string& address) {
    std::string program = VARNIC_STREAM_HOST;
    std::string where = address;
    char* arguments[] = {program.data(), where.data(), nullptr};
    EXPECT_EQ(posix_spawn(&pid_, program.c_str(), nullptr, nullptr, arguments, environ), 0);
  }
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;
  ~HostProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_ = -1;
};

ClientOptions QuickToComeBack() {
  ClientOptions options;
  options.backoff.initial = absl::Milliseconds(20);
  options.backoff.max = absl::Milliseconds(100);
  return options;
}

class LossTest : public ::testing::Test {
 protected:
  LossTest() { host_.emplace(address_); }

  template <class Condition>
  void RunUntil(const Condition& condition) {
    bool late = false;
    net::Timer timer(loop_);
    timer.Start(kPatience, [&] { late = true; });
    ASSERT_TRUE(loop_.RunUntil([&] { return late || condition(); }));
    ASSERT_FALSE(late);
  }

  void KillAndRestart() {
    host_.reset();
    host_.emplace(address_);
  }

  const std::string address_ = NewSocketAddress();
  const ProfileId profile_ = MakeProfileId("P");
  std::optional<HostProcess> host_;
  net::EventLoop loop_;
  Client client_{loop_, address_, QuickToComeBack()};
  rpc::ProfileClient profiles_{client_};
};

// Keeps a hundred calls going until all have been made, and counts the ends of each. A loss lets it
// wait for Resume().
class ManyCalls {
 public:
  static constexpr std::size_t kCalls = 10'000;
  static constexpr std::size_t kOutstanding = 100;

  ManyCalls(rpc::ProfileClient& profiles, const ProfileId& profile)
      : profiles_(profiles), profile_(profile) {}

  void Resume() {
    paused_ = false;
    while (open_ < kOutstanding && started_ < kCalls) StartNext();
  }

  std::size_t answered() const { return answered_; }
  std::size_t lost() const { return lost_; }
  bool all_ended() const { return answered_ + lost_ == kCalls && open_ == 0; }
  // How often each call has ended.
  const std::vector<int>& ends() const { return ends_; }

 private:
  void StartNext() {
    const std::size_t number = started_++;
    ++open_;
    profiles_.IsDefault(profile_, kPatience,
                        [this, number](const absl::StatusOr<google::protobuf::BoolValue>& answer) {
                          ++ends_[number];
                          --open_;
                          End(answer.status());
                        });
  }

  void End(const absl::Status& status) {
    if (status.ok()) {
      ++answered_;
    } else {
      EXPECT_EQ(status.code(), absl::StatusCode::kUnavailable) << status;
      ++lost_;
      paused_ = true;
    }
    if (!paused_) Resume();
  }

  rpc::ProfileClient& profiles_;
  const ProfileId& profile_;
  bool paused_ = true;
  std::size_t started_ = 0;
  std::size_t open_ = 0;
  std::size_t answered_ = 0;
  std::size_t lost_ = 0;
  std::vector<int> ends_ = std::vector<int>(kCalls);
};

TEST_F(LossTest, EverythingThatWasOpenEndsOnceAndComesBackWhenTheHostIsKilledAndStartedAgain) {
  using Question = CallbackQuestion<rpc::CanAccessFile>;
  ManyCalls calls(profiles_, profile_);
  int ups = 0;
  int events = 0;
  StreamListeners listeners;
  listeners.on_up = [&] {
    ++ups;
    calls.Resume();
  };
  const auto subscription =
      profiles_.WhenNetworkChanged([&](const rpc::NetworkChanged&) { ++events; }, listeners);
  std::vector<Question> questions;
  int answerer_ups = 0;
  StreamListeners answerer_listeners;
  answerer_listeners.on_up = [&] { ++answerer_ups; };
  const auto answerer = profiles_.OnCanAccessFile(
      [&](Question question) { questions.push_back(std::move(question)); }, answerer_listeners);
  subscription->Subscribe(profile_);
  answerer->Subscribe(profile_);
  RunUntil([&] { return ups == 1 && answerer_ups == 1; });
  std::vector<absl::Status> asked;
  const auto ask = [&] {
    profiles_.Path(profile_, kPatience,
                   [&](const absl::StatusOr<google::protobuf::StringValue>& answer) {
                     asked.push_back(answer.status());
                   });
  };
  ask();
  RunUntil([&] { return questions.size() == 1 && calls.answered() >= ManyCalls::kCalls / 3; });

  KillAndRestart();

  RunUntil([&] { return ups == 2 && answerer_ups == 2 && calls.all_ended(); });
  EXPECT_THAT(calls.ends(), Each(1));
  EXPECT_THAT(calls.lost(), AllOf(Gt(0u), Le(ManyCalls::kOutstanding)));
  EXPECT_TRUE(questions[0].withdrawn());
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].code(), absl::StatusCode::kUnavailable) << asked[0];

  const int events_before = events;
  ASSERT_TRUE(profiles_.NameAndWait(profile_, kPatience).ok());  // Publishes.
  ask();
  RunUntil([&] { return events == events_before + 1 && questions.size() == 2; });
  rpc::CanAccessFile::Response allowed;
  allowed.set_allow(true);
  questions[1].Answer(allowed);
  RunUntil([&] { return asked.size() == 2; });
  EXPECT_EQ(asked[1], absl::OkStatus());
}

}  // namespace
}  // namespace varnic
