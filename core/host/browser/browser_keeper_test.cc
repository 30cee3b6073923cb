#include "core/host/browser/browser_keeper.h"

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/host/browser/testing/scoped_variable.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::ScopedVariable;
using testing::TemporaryFolder;

class BrowserKeeperTest : public ::testing::Test, public BrowserKeeper::Visitor {
 protected:
  BrowserKeeperTest() {
    std::filesystem::create_directory(folder_.Path("data"));
    std::filesystem::create_directory(folder_.Path("tmp"));
    options_.process.launch.program = VARNIC_FAKE_BROWSER;
    options_.process.launch.user_data_dir = folder_.Path("data");
    options_.process.launch.without_sandbox = true;  // So that root may run it.
    options_.pacing.first_delay = absl::Hours(1);
  }
  ~BrowserKeeperTest() override {
    keeper_ = nullptr;
    files_ = nullptr;
    while (loop_.RunPending() != 0) continue;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_THAT(folder_.Names("tmp"), IsEmpty());
  }

  void OnBrowserUp(DevToolsPipe& devtools, const RunningBrowser& browser) override {
    EXPECT_TRUE(devtools.is_open());
    log_.push_back("up " + browser.product);
  }
  void OnBrowserGone(const absl::Status& why) override {
    log_.push_back(absl::StrCat("gone ", absl::StatusCodeToString(why.code())));
    if (on_gone_ != nullptr) on_gone_();
  }

  void MakeKeeper() { keeper_ = std::make_unique<BrowserKeeper>(loop_, *files_, options_, *this); }
  // What came of it; waits.
  absl::StatusOr<DevToolsPipe*> Get() {
    absl::StatusOr<DevToolsPipe*> got = absl::UnknownError("");
    bool is_done = false;
    keeper_->Get([&](absl::StatusOr<DevToolsPipe*> result) {
      got = result;
      is_done = true;
    });
    loop_.RunUntil([&is_done] { return is_done; });
    return got;
  }
  void Crash(DevToolsPipe& devtools) {
    const size_t events = log_.size();
    devtools.Call({"Test.crash"}, [](const absl::StatusOr<Json>&) {});
    loop_.RunUntil([&] { return log_.size() > events; });
  }
  void Close() {
    bool is_closed = false;
    keeper_->Close([&is_closed] { is_closed = true; });
    loop_.RunUntil([&is_closed] { return is_closed; });
  }

  TemporaryFolder folder_;
  const ScopedVariable temporary_{"TMPDIR", folder_.Path("tmp")};
  net::EventLoop loop_;
  std::unique_ptr<TaskThread> files_ = std::make_unique<TaskThread>(
      [this](std::function<void()> function) { loop_.Post(std::move(function)); });
  BrowserKeeperOptions options_;
  std::vector<std::string> log_;
  std::function<void()> on_gone_;
  std::unique_ptr<BrowserKeeper> keeper_;
};

TEST_F(BrowserKeeperTest, StartsABrowserOnDemand) {
  MakeKeeper();
  EXPECT_FALSE(keeper_->is_up());

  const auto devtools = Get();

  ASSERT_TRUE(devtools.ok()) << devtools.status();
  EXPECT_TRUE((*devtools)->is_open());
  EXPECT_THAT(log_, ElementsAre("up Chrome/156.0.8078.79"));
}

TEST_F(BrowserKeeperTest, AllWhoWaitGetTheSameBrowser) {
  MakeKeeper();
  std::vector<DevToolsPipe*> pipes;
  for (int i = 0; i < 3; ++i) {
    keeper_->Get([&pipes](absl::StatusOr<DevToolsPipe*> pipe) { pipes.push_back(*pipe); });
  }

  const auto last = Get();

  ASSERT_TRUE(last.ok()) << last.status();
  EXPECT_THAT(pipes, ElementsAre(*last, *last, *last));
  EXPECT_EQ(log_.size(), 1u);
}

TEST_F(BrowserKeeperTest, ClosesInOrderAndLeavesNothing) {
  MakeKeeper();
  ASSERT_TRUE(Get().ok());

  Close();

  EXPECT_THAT(log_, ElementsAre("up Chrome/156.0.8078.79", "gone OK"));
  EXPECT_TRUE(absl::IsUnavailable(Get().status()));
}

TEST_F(BrowserKeeperTest, ClosesWithoutABrowser) {
  MakeKeeper();

  Close();

  EXPECT_THAT(log_, IsEmpty());
}

TEST_F(BrowserKeeperTest, ClosingWhileABrowserStartsAnswersWhoWaits) {
  options_.process.launch.more_arguments = {"--mute"};
  MakeKeeper();
  std::vector<absl::Status> answers;
  keeper_->Get([&](const absl::StatusOr<DevToolsPipe*>& got) { answers.push_back(got.status()); });

  Close();

  ASSERT_EQ(answers.size(), 1u);
  EXPECT_TRUE(absl::IsUnavailable(answers[0])) << answers[0];
  EXPECT_THAT(log_, IsEmpty());
}

TEST_F(BrowserKeeperTest, StartsAgainAfterACrash) {
  options_.pacing.first_delay = absl::ZeroDuration();
  MakeKeeper();
  auto devtools = Get();
  ASSERT_TRUE(devtools.ok()) << devtools.status();
  Crash(**devtools);
  EXPECT_THAT(log_, ElementsAre("up Chrome/156.0.8078.79", "gone UNAVAILABLE"));

  devtools = Get();

  EXPECT_TRUE(devtools.ok()) << devtools.status();
}

TEST_F(BrowserKeeperTest, DoesNotStartAgainAtOnceAfterACrash) {
  MakeKeeper();
  const auto devtools = Get();
  ASSERT_TRUE(devtools.ok()) << devtools.status();
  Crash(**devtools);

  const absl::Status status = Get().status();

  EXPECT_TRUE(absl::IsUnavailable(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("was ended by signal 9"));
  EXPECT_THAT(std::string(status.message()), HasSubstr("the next start can be in "));
}

TEST_F(BrowserKeeperTest, WhoAsksWhileABrowserEndsGetsTheNext) {
  options_.pacing.first_delay = absl::ZeroDuration();
  MakeKeeper();
  const auto devtools = Get();
  ASSERT_TRUE(devtools.ok()) << devtools.status();
  bool is_pipe_closed = false;
  (*devtools)->Call({"Test.crash"},
                    [&is_pipe_closed](const absl::StatusOr<Json>&) { is_pipe_closed = true; });
  loop_.RunUntil([&is_pipe_closed] { return is_pipe_closed; });

  const auto next = Get();

  ASSERT_TRUE(next.ok()) << next.status();
  EXPECT_TRUE((*next)->is_open());
}

TEST_F(BrowserKeeperTest, FailureGoesToAllWhoWaitAndIsRepeated) {
  options_.process.launch.program = "/nowhere/browser";
  MakeKeeper();

  const absl::Status first = Get().status();
  const absl::Status second = Get().status();

  EXPECT_TRUE(absl::IsFailedPrecondition(first)) << first;
  EXPECT_THAT(std::string(first.message()), HasSubstr("install Chromium"));
  EXPECT_TRUE(absl::IsFailedPrecondition(second)) << second;
  EXPECT_THAT(std::string(second.message()), HasSubstr("the next start can be in "));
}

TEST_F(BrowserKeeperTest, DirectoryOfAnotherBrowserIsLeftAlone) {
  std::filesystem::create_symlink("another-machine-7", folder_.Path("data/SingletonLock"));
  MakeKeeper();

  const absl::Status status = Get().status();

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("\"another-machine\""));
  EXPECT_THAT(folder_.Names("data"), ElementsAre("SingletonLock"));
}

TEST_F(BrowserKeeperTest, EachBrowserHasATemporaryFolderThatGoesWithIt) {
  MakeKeeper();
  ASSERT_TRUE(Get().ok());
  EXPECT_EQ(folder_.Names("tmp").size(), 1u);

  Close();
  files_ = nullptr;  // Waits for what it was given.

  EXPECT_THAT(folder_.Names("tmp"), IsEmpty());
  keeper_ = nullptr;
}

TEST_F(BrowserKeeperTest, DestroyedKeeperAnswersWhoWaits) {
  MakeKeeper();
  std::vector<absl::Status> answers;
  keeper_->Get([&](const absl::StatusOr<DevToolsPipe*>& got) { answers.push_back(got.status()); });

  keeper_ = nullptr;

  ASSERT_EQ(answers.size(), 1u);
  EXPECT_TRUE(absl::IsUnavailable(answers[0])) << answers[0];
}

TEST_F(BrowserKeeperTest, MayBeDestroyedByWhomItAnswers) {
  MakeKeeper();
  std::vector<absl::Status> answers;
  for (int i = 0; i < 3; ++i) {
    keeper_->Get([&](const absl::StatusOr<DevToolsPipe*>& got) {
      answers.push_back(got.status());
      keeper_ = nullptr;
    });
  }

  EXPECT_TRUE(loop_.RunUntil([&answers] { return answers.size() == 3; }));

  EXPECT_TRUE(answers[0].ok()) << answers[0];
  EXPECT_TRUE(absl::IsUnavailable(answers[1])) << answers[1];
  EXPECT_TRUE(absl::IsUnavailable(answers[2])) << answers[2];
}

TEST_F(BrowserKeeperTest, VisitorMayAskForTheNextBrowserAtOnce) {
  options_.pacing.first_delay = absl::ZeroDuration();
  MakeKeeper();
  const auto devtools = Get();
  ASSERT_TRUE(devtools.ok()) << devtools.status();
  absl::StatusOr<DevToolsPipe*> next = absl::UnknownError("none yet");
  on_gone_ = [&] { keeper_->Get([&](absl::StatusOr<DevToolsPipe*> got) { next = got; }); };

  Crash(**devtools);
  loop_.RunUntil([&] { return !absl::IsUnknown(next.status()); });

  EXPECT_TRUE(next.ok()) << next.status();
  on_gone_ = nullptr;
}

TEST_F(BrowserKeeperTest, EndedBrowserMakesRoomForOneOfTheOtherMode) {
  MakeKeeper();
  ASSERT_TRUE(Get().ok());

  keeper_->SetHeadless(!keeper_->launch().headless);
  keeper_->End();
  EXPECT_FALSE(keeper_->is_up());
  EXPECT_TRUE(keeper_->is_busy());
  const auto next = Get();

  EXPECT_TRUE(next.ok()) << next.status();
  EXPECT_THAT(log_, ElementsAre("up Chrome/156.0.8078.79", "gone OK", "up Chrome/156.0.8078.79"));
}

TEST_F(BrowserKeeperTest, WhoWaitsForABrowserThatIsEndedGetsTheNext) {
  MakeKeeper();
  absl::StatusOr<DevToolsPipe*> first = absl::UnknownError("none yet");
  keeper_->Get([&first](absl::StatusOr<DevToolsPipe*> got) { first = got; });
  files_->Run([] { return 0; }, [this](int) { keeper_->End(); });  // Behind the preparation.

  const auto second = Get();

  EXPECT_TRUE(first.ok()) << first.status();
  EXPECT_TRUE(second.ok()) << second.status();
  EXPECT_THAT(log_, ElementsAre("up Chrome/156.0.8078.79"));
}

TEST_F(BrowserKeeperTest, PreparationRunsBeforeEachStartAndMayFailIt) {
  options_.pacing.first_delay = absl::ZeroDuration();
  std::vector<absl::Status> results = {absl::OkStatus(), absl::DataLossError("no file")};
  options_.prepare = [&results] {
    const absl::Status result = results.back();
    results.pop_back();
    return result;
  };
  MakeKeeper();

  EXPECT_EQ(Get().status(), absl::DataLossError("no file"));
  EXPECT_TRUE(Get().ok());

  EXPECT_THAT(results, IsEmpty());
}

TEST_F(BrowserKeeperTest, IsNotUpForWhomItsDestructionEnds) {
  MakeKeeper();
  const auto devtools = Get();
  ASSERT_TRUE(devtools.ok()) << devtools.status();
  bool was_up = true;
  BrowserKeeper* const keeper = keeper_.get();
  (*devtools)->Call({"Test.variable", {{"name", "HOME"}}},
                    [&](const absl::StatusOr<Json>&) { was_up = keeper->is_up(); });

  keeper_.reset();

  EXPECT_FALSE(was_up);
}

}  // namespace
}  // namespace varnic::host
