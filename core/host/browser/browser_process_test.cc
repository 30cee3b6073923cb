#include "core/host/browser/browser_process.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/host/browser/testing/process_list.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using testing::ComesTrue;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::LivingProcessesOfGroup;
using testing::TemporaryFolder;

// Of the fake browser; see testing/fake_browser.cc.
BrowserProcessOptions FakeOptions(std::vector<std::string> arguments = {}) {
  BrowserProcessOptions options;
  options.launch.program = VARNIC_FAKE_BROWSER;
  options.launch.user_data_dir = "/nowhere";
  options.launch.without_sandbox = true;  // So that root may run it.
  options.launch.more_arguments = std::move(arguments);
  return options;
}

class BrowserProcessTest : public ::testing::Test, protected BrowserProcess::Visitor {
 protected:
  // Nothing may be left of any test.
  ~BrowserProcessTest() override {
    process_ = nullptr;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_TRUE(pid_ == 0 || ComesTrue([this] { return LivingProcessesOfGroup(pid_).empty(); }));
  }

  void OnBrowserUp(const RunningBrowser& browser) override { up_ = browser; }
  void OnBrowserEnded(const absl::Status& why) override {
    ended_.push_back(why);
    if (destroy_at_end_) process_ = nullptr;
  }

  absl::Status Start(BrowserProcessOptions options) {
    auto process = BrowserProcess::Start(loop_, std::move(options), *this);
    if (!process.ok()) return process.status();
    process_ = *std::move(process);
    pid_ = process_->pid();
    return absl::OkStatus();
  }
  void StartUp(BrowserProcessOptions options) {
    const absl::Status status = Start(std::move(options));
    ASSERT_TRUE(status.ok()) << status;
    loop_.RunUntil([this] { return up_.has_value() || !ended_.empty(); });
    ASSERT_TRUE(up_.has_value()) << ended_[0];
  }
  absl::Status WaitForEnd() {
    loop_.RunUntil([this] { return !ended_.empty(); });
    return ended_[0];
  }
  absl::StatusOr<Json> Call(const std::string& method, const Json& params = Json::object()) {
    std::optional<absl::StatusOr<Json>> answer;
    process_->devtools().Call({method, params},
                              [&answer](absl::StatusOr<Json> result) { answer = result; });
    loop_.RunUntil([&answer] { return answer.has_value(); });
    return *answer;
  }

  net::EventLoop loop_;
  std::optional<RunningBrowser> up_;
  std::vector<absl::Status> ended_;
  bool destroy_at_end_ = false;
  pid_t pid_ = 0;
  std::unique_ptr<BrowserProcess> process_;
};

TEST_F(BrowserProcessTest, IsUpOnceItHasToldItsVersion) {
  StartUp(FakeOptions());

  EXPECT_EQ(up_->product, "Chrome/156.0.8078.79");
  EXPECT_EQ(up_->user_agent, "Mozilla/5.0 Fake");
  EXPECT_THAT(ended_, IsEmpty());
}

TEST_F(BrowserProcessTest, AnswersCommandsOverItsPipe) {
  StartUp(FakeOptions());

  const absl::StatusOr<Json> answer = Call("A.b", {{"text", std::string(300'000, 'x')}});

  ASSERT_TRUE(answer.ok()) << answer.status();
  EXPECT_EQ((*answer)["text"].get<std::string>().size(), 300'000u);
}

TEST_F(BrowserProcessTest, EndsInOrderWhenAsked) {
  StartUp(FakeOptions());

  process_->Close();

  EXPECT_EQ(WaitForEnd(), absl::OkStatus());
  EXPECT_EQ(::kill(pid_, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST_F(BrowserProcessTest, CommandsOfABrowserThatHasEndedFail) {
  StartUp(FakeOptions());
  process_->Close();
  EXPECT_EQ(WaitForEnd(), absl::OkStatus());

  EXPECT_TRUE(absl::IsUnavailable(Call("A.b").status()));
}

TEST_F(BrowserProcessTest, CrashEndsCommandsAndIsTold) {
  StartUp(FakeOptions());

  const absl::StatusOr<Json> answer = Call("Test.crash");
  const absl::Status why = WaitForEnd();

  EXPECT_TRUE(absl::IsUnavailable(answer.status())) << answer.status();
  EXPECT_TRUE(absl::IsUnavailable(why)) << why;
  EXPECT_THAT(std::string(why.message()), HasSubstr("was ended by signal 9"));
}

TEST_F(BrowserProcessTest, BrowserThatIgnoresEverythingIsKilled) {
  BrowserProcessOptions options = FakeOptions({"--ignore-everything"});
  options.close_time = options.terminate_time = absl::Milliseconds(10);
  StartUp(std::move(options));

  process_->Close();

  EXPECT_EQ(WaitForEnd(), absl::OkStatus());
}

TEST_F(BrowserProcessTest, BrowserThatDoesNotAnswerIsGivenUp) {
  BrowserProcessOptions options = FakeOptions({"--mute"});
  options.start_time = absl::Milliseconds(50);
  ASSERT_TRUE(Start(std::move(options)).ok());

  const absl::Status why = WaitForEnd();

  EXPECT_TRUE(absl::IsUnavailable(why)) << why;
  EXPECT_THAT(std::string(why.message()), HasSubstr("did not come up within 50ms"));
  EXPECT_FALSE(up_.has_value());
}

TEST_F(BrowserProcessTest, BrowserThatStopsAnsweringIsEnded) {
  BrowserProcessOptions options = FakeOptions();
  options.ping_period = absl::Milliseconds(1);
  options.ping_time = absl::Milliseconds(100);
  options.terminate_time = absl::Milliseconds(1);
  StartUp(options);

  ::kill(process_->pid(), SIGSTOP);

  const absl::Status why = WaitForEnd();
  EXPECT_TRUE(absl::IsUnavailable(why)) << why;
  EXPECT_THAT(std::string(why.message()), HasSubstr("did not answer for 100ms"));
}

TEST_F(BrowserProcessTest, BrowserThatAnswersPingsStays) {
  BrowserProcessOptions options = FakeOptions();
  options.ping_period = absl::ZeroDuration();
  StartUp(options);

  for (int i = 0; i < 100; ++i) EXPECT_TRUE(Call("Browser.getVersion").ok());

  EXPECT_THAT(ended_, IsEmpty());
}

TEST_F(BrowserProcessTest, CanBeClosedBeforeItIsUp) {
  ASSERT_TRUE(Start(FakeOptions({"--mute"})).ok());

  process_->Close();

  EXPECT_EQ(WaitForEnd(), absl::OkStatus());
  EXPECT_FALSE(up_.has_value());
}

TEST_F(BrowserProcessTest, BrowserThatNeverReadsIsSentNoMoreThanTheBound) {
  BrowserProcessOptions options = FakeOptions({"--never-read"});
  options.limits.waiting_bytes = 1'000'000;
  options.close_time = absl::Milliseconds(10);
  StartUp(std::move(options));
  std::vector<absl::Status> answers;

  for (int i = 0; i < 20; ++i) {
    process_->devtools().Call(
        {"A.b", {{"text", std::string(100'000, 'x')}}},
        [&answers](const absl::StatusOr<Json>& answer) { answers.push_back(answer.status()); });
  }
  loop_.RunUntil([&answers] { return !answers.empty(); });

  EXPECT_TRUE(absl::IsResourceExhausted(answers[0])) << answers[0];
  EXPECT_LE(process_->devtools().waiting_bytes(), 1'000'000u);
  process_->Close();
  EXPECT_EQ(WaitForEnd(), absl::OkStatus());
  EXPECT_EQ(answers.size(), 20u);
}

TEST_F(BrowserProcessTest, FloodOfOutputHoldsNothingUp) {
  StartUp(FakeOptions({"--flood-output"}));

  EXPECT_TRUE(Call("A.b").ok());
}

TEST_F(BrowserProcessTest, FloodOfEventsIsHeardToItsEnd) {
  StartUp(FakeOptions());
  int heard = 0;
  process_->devtools().Listen("", "Test.flooded", [&heard](const Json&) { ++heard; });

  EXPECT_TRUE(Call("Test.flood").ok());

  EXPECT_EQ(heard, 100);
}

TEST_F(BrowserProcessTest, BrowserWithoutItsPipeIsEnded) {
  BrowserProcessOptions options = FakeOptions();
  options.close_time = absl::Milliseconds(10);
  StartUp(std::move(options));

  EXPECT_TRUE(absl::IsUnavailable(Call("Test.closePipe").status()));

  EXPECT_TRUE(absl::IsUnavailable(WaitForEnd())) << ended_[0];
}

TEST_F(BrowserProcessTest, WhatItLeavesBehindIsKilled) {
  BrowserProcessOptions options = FakeOptions({"--leave-child"});
  options.leftover_time = absl::Milliseconds(10);
  StartUp(std::move(options));
  EXPECT_EQ(LivingProcessesOfGroup(pid_).size(), 2u);

  process_->Close();

  EXPECT_EQ(WaitForEnd(), absl::OkStatus());
  EXPECT_TRUE(ComesTrue([this] { return LivingProcessesOfGroup(pid_).empty(); }));
}

TEST_F(BrowserProcessTest, TooOldABrowserIsRefused) {
  ASSERT_TRUE(Start(FakeOptions({"--version=Chrome/90.0.1.2"})).ok());

  const absl::Status why = WaitForEnd();

  EXPECT_TRUE(absl::IsFailedPrecondition(why)) << why;
  EXPECT_THAT(std::string(why.message()), HasSubstr("version 132 of Chromium or a later one"));
  EXPECT_FALSE(up_.has_value());
}

TEST_F(BrowserProcessTest, WhatIsNoBrowserIsRefused) {
  ASSERT_TRUE(Start(FakeOptions({"--version=hello"})).ok());

  EXPECT_TRUE(absl::IsFailedPrecondition(WaitForEnd())) << ended_[0];
}

TEST_F(BrowserProcessTest, DirectoryInUseIsToldByItsExitCode) {
  ASSERT_TRUE(Start(FakeOptions({"--exit=21"})).ok());

  const absl::Status why = WaitForEnd();

  EXPECT_TRUE(absl::IsFailedPrecondition(why)) << why;
  EXPECT_THAT(std::string(why.message()), HasSubstr("another browser uses \"/nowhere\""));
}

TEST_F(BrowserProcessTest, MissingSandboxIsToldByItsOutput) {
  ASSERT_TRUE(Start(FakeOptions({"--say=FATAL: No usable sandbox! Update", "--exit=1"})).ok());

  const absl::Status why = WaitForEnd();

  EXPECT_TRUE(absl::IsFailedPrecondition(why)) << why;
  EXPECT_THAT(std::string(why.message()), HasSubstr("allow unprivileged user namespaces"));
}

TEST_F(BrowserProcessTest, ExitBeforeItIsUpNamesTheProgramAndTheCode) {
  ASSERT_TRUE(Start(FakeOptions({"--exit=3"})).ok());

  EXPECT_EQ(WaitForEnd(),
            absl::UnavailableError(absl::StrCat("the browser \"", VARNIC_FAKE_BROWSER,
                                                "\" ended with exit code 3 before it was up")));
}

TEST_F(BrowserProcessTest, MissingProgramIsNamedWithAdvice) {
  BrowserProcessOptions options = FakeOptions();
  options.launch.program = "/nowhere/browser";

  const absl::Status status = Start(std::move(options));

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("/nowhere/browser"));
  EXPECT_THAT(std::string(status.message()), HasSubstr("install Chromium"));
}

TEST_F(BrowserProcessTest, FileThatIsNoProgramIsNamedWithAdvice) {
  const TemporaryFolder folder;
  BrowserProcessOptions options = FakeOptions();
  options.launch.program = folder.Write("browser", "");

  const absl::Status status = Start(std::move(options));

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("that the host's user may run"));
}

TEST_F(BrowserProcessTest, BrowserHasOurPipeAndNothingElse) {
  StartUp(FakeOptions());

  const absl::StatusOr<Json> answer = Call("Test.files");

  ASSERT_TRUE(answer.ok()) << answer.status();
  EXPECT_EQ((*answer)["files"], Json({0, 1, 2, 3, 4}));
}

TEST_F(BrowserProcessTest, BrowserUsesItsTemporaryFolder) {
  BrowserProcessOptions options = FakeOptions();
  options.launch.temporary_dir = "/tmp/its-own";
  StartUp(std::move(options));

  const absl::StatusOr<Json> answer = Call("Test.variable", {{"name", "TMPDIR"}});

  ASSERT_TRUE(answer.ok()) << answer.status();
  EXPECT_EQ((*answer)["value"], "/tmp/its-own");
}

TEST_F(BrowserProcessTest, DestroyingItKillsTheBrowserAndEndsCommands) {
  StartUp(FakeOptions({"--ignore-everything", "--leave-child"}));
  std::vector<absl::Status> answers;
  process_->devtools().Call({"A.b"}, [&answers](const absl::StatusOr<Json>& answer) {
    answers.push_back(answer.status());
  });

  process_ = nullptr;

  EXPECT_EQ(::kill(pid_, 0), -1);
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_TRUE(absl::IsUnavailable(answers[0])) << answers[0];
  EXPECT_THAT(ended_, IsEmpty());
}

TEST_F(BrowserProcessTest, MayBeDestroyedWhenItHasEnded) {
  destroy_at_end_ = true;
  StartUp(FakeOptions());

  process_->Close();

  EXPECT_EQ(WaitForEnd(), absl::OkStatus());
}

// Runs a host in another process until its browser is up, kills the host, and waits for the end of
// the browser.
void ExpectBrowserEndsWithItsHost(const std::string& argument) {
  class Reporter : public BrowserProcess::Visitor {
   public:
    explicit Reporter(int fd) : fd_(fd) {}
    void OnBrowserUp(const RunningBrowser&) override { Report(process->pid()); }
    void OnBrowserEnded(const absl::Status&) override { Report(0); }
    std::unique_ptr<BrowserProcess> process;

   private:
    void Report(pid_t pid) {
      if (::write(fd_, &pid, sizeof(pid)) < 0) ::_exit(1);
    }
    const int fd_;
  };
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  const FileDescriptor report(fds[0]);
  FileDescriptor reported(fds[1]);
  const pid_t host = ::fork();
  if (host == 0) {
    net::EventLoop loop;
    Reporter reporter(reported.get());
    auto process = BrowserProcess::Start(loop, FakeOptions({argument}), reporter);
    if (!process.ok()) ::_exit(1);
    reporter.process = *std::move(process);
    loop.Run();
  }
  reported.Close();
  pid_t browser = 0;
  ASSERT_EQ(::read(report.get(), &browser, sizeof(browser)), static_cast<ssize_t>(sizeof(browser)));
  ASSERT_GT(browser, 0);
  const FileDescriptor exit(static_cast<int>(::syscall(SYS_pidfd_open, browser, 0)));

  ::kill(host, SIGKILL);

  EXPECT_EQ(::waitpid(host, nullptr, 0), host);
  pollfd ended{exit.get(), POLLIN, 0};
  EXPECT_EQ(::poll(&ended, 1, 30'000), 1);
}

TEST(BrowserOfAHostThatDiesTest, EndsWithItsPipe) {
  ExpectBrowserEndsWithItsHost("--none");
}

TEST(BrowserOfAHostThatDiesTest, EndsThoughItDoesNotReadItsPipe) {
  ExpectBrowserEndsWithItsHost("--ignore-pipe-end");
}

}  // namespace
}  // namespace varnic::host
