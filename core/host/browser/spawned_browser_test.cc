#include "core/host/browser/spawned_browser.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::HasSubstr;
using testing::TemporaryFolder;

const std::vector<std::string> kEnvironment = {"PATH=/usr/bin:/bin"};

absl::StatusOr<SpawnedBrowser> SpawnShell(const std::string& commands) {
  return SpawnBrowser({"/bin/sh", "-c", commands}, kEnvironment);
}

std::string ReadToEnd(int fd) {
  std::string text;
  char buffer[1000];
  pollfd ready{fd, POLLIN, 0};
  while (::poll(&ready, 1, -1) == 1) {
    const ssize_t size = ::read(fd, buffer, sizeof(buffer));
    if (size <= 0) break;
    text.append(buffer, static_cast<size_t>(size));
  }
  return text;
}

int WaitFor(const SpawnedBrowser& browser) {
  int status = 0;
  EXPECT_EQ(::waitpid(browser.pid, &status, 0), browser.pid);
  return status;
}

TEST(SpawnedBrowserTest, DescriptorsThreeAndFourAreThePipe) {
  const auto browser = SpawnShell("head -c 5 <&3 >&4");
  ASSERT_TRUE(browser.ok()) << browser.status();

  ASSERT_EQ(::write(browser->to_browser.get(), "hello", 5), 5);

  EXPECT_EQ(ReadToEnd(browser->from_browser.get()), "hello");
  WaitFor(*browser);
}

TEST(SpawnedBrowserTest, OutputAndErrorsAreRead) {
  const auto browser = SpawnShell("echo one; echo two >&2; cat");
  ASSERT_TRUE(browser.ok()) << browser.status();

  EXPECT_EQ(ReadToEnd(browser->output.get()), "one\ntwo\n");
  WaitFor(*browser);
}

TEST(SpawnedBrowserTest, ChildHasNoOtherDescriptors) {
  const FileDescriptor inheritable(::open("/dev/null", O_RDONLY));
  // No pipeline: while it makes one, a shell has descriptors of its own. And not as the last
  // command, which a shell may turn itself into.
  const auto browser = SpawnShell("ls /proc/$$/fd; true");
  ASSERT_TRUE(browser.ok()) << browser.status();

  EXPECT_EQ(ReadToEnd(browser->output.get()), "0\n1\n2\n3\n4\n");
  WaitFor(*browser);
}

TEST(SpawnedBrowserTest, WorksWhileOurLowDescriptorsAreClosed) {
  const FileDescriptor input(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 20));
  ::close(STDIN_FILENO);

  const auto browser = SpawnShell("head -c 5 <&3 >&4");

  ::dup2(input.get(), STDIN_FILENO);
  ASSERT_TRUE(browser.ok()) << browser.status();
  ASSERT_EQ(::write(browser->to_browser.get(), "hello", 5), 5);
  EXPECT_EQ(ReadToEnd(browser->from_browser.get()), "hello");
  WaitFor(*browser);
}

TEST(SpawnedBrowserTest, ChildLeadsAGroupAndHasTheGivenEnvironment) {
  const auto browser = SpawnShell("echo $PATH; cut -d ' ' -f 5 /proc/$$/stat");
  ASSERT_TRUE(browser.ok()) << browser.status();

  EXPECT_EQ(ReadToEnd(browser->output.get()), absl::StrCat("/usr/bin:/bin\n", browser->pid, "\n"));
  WaitFor(*browser);
}

TEST(SpawnedBrowserTest, IgnoredAndBlockedSignalsAreNotInherited) {
  const auto former = ::signal(SIGTERM, SIG_IGN);
  sigset_t term, mask;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &term, &mask);

  const auto browser = SpawnBrowser({"sleep", "600"}, kEnvironment);

  ::sigprocmask(SIG_SETMASK, &mask, nullptr);
  ::signal(SIGTERM, former);
  ASSERT_TRUE(browser.ok()) << browser.status();
  ::kill(browser->pid, SIGTERM);
  const int status = WaitFor(*browser);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
}

TEST(SpawnedBrowserTest, ExitIsReadable) {
  const auto browser = SpawnShell("exit 3");
  ASSERT_TRUE(browser.ok()) << browser.status();

  pollfd ready{browser->exit.get(), POLLIN, 0};

  EXPECT_EQ(::poll(&ready, 1, -1), 1);
  EXPECT_EQ(WEXITSTATUS(WaitFor(*browser)), 3);
}

TEST(SpawnedBrowserTest, ProgramThatCannotBeRunIsNamedAndLeavesNoChild) {
  const TemporaryFolder folder;
  const std::string plain = folder.Write("plain", "#!/bin/sh\n");

  const absl::Status absent = SpawnBrowser({folder.Path("absent")}, kEnvironment).status();
  const absl::Status refused = SpawnBrowser({plain}, kEnvironment).status();

  EXPECT_TRUE(absl::IsNotFound(absent)) << absent;
  EXPECT_THAT(std::string(absent.message()), HasSubstr(folder.Path("absent")));
  EXPECT_TRUE(absl::IsPermissionDenied(refused)) << refused;
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

}  // namespace
}  // namespace varnic::host
