#include "core/host/browser/browser_command_line.h"

#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

BrowserLaunch SomeLaunch() {
  BrowserLaunch launch;
  launch.program = "/opt/browser";
  launch.user_data_dir = "/data dir";
  return launch;
}

TEST(BrowserCommandLineTest, ServesThePipeAndOpensNoWindow) {
  EXPECT_THAT(BrowserArguments(SomeLaunch()),
              AllOf(Contains("--user-data-dir=/data dir"), Contains("--remote-debugging-pipe"),
                    Contains("--no-startup-window"), Contains("--headless=new")));
}

TEST(BrowserCommandLineTest, BeginsWithTheProgram) {
  EXPECT_EQ(BrowserArguments(SomeLaunch()).front(), "/opt/browser");
}

TEST(BrowserCommandLineTest, KeepsTheSandboxUnlessToldOtherwise) {
  BrowserLaunch launch = SomeLaunch();
  EXPECT_THAT(BrowserArguments(launch), Not(Contains("--no-sandbox")));

  launch.without_sandbox = true;

  EXPECT_THAT(BrowserArguments(launch), Contains("--no-sandbox"));
}

TEST(BrowserCommandLineTest, PassesAUserAgentAsOneArgument) {
  BrowserLaunch launch = SomeLaunch();
  EXPECT_THAT(BrowserArguments(launch), Not(Contains(StartsWith("--user-agent"))));

  launch.user_agent = "Mozilla/5.0 (X11) \"quoted\"";

  EXPECT_THAT(BrowserArguments(launch), Contains("--user-agent=Mozilla/5.0 (X11) \"quoted\""));
}

TEST(BrowserCommandLineTest, RefusesRootWithASandbox) {
  const absl::Status status = CheckLaunch(SomeLaunch(), /*user_id=*/0);

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("run the host as an ordinary user"));
}

TEST(BrowserCommandLineTest, TakesAnOrdinaryUserAndRootWithoutASandbox) {
  BrowserLaunch launch = SomeLaunch();
  EXPECT_TRUE(CheckLaunch(launch, /*user_id=*/1000).ok());

  launch.without_sandbox = true;

  EXPECT_TRUE(CheckLaunch(launch, /*user_id=*/0).ok());
}

TEST(BrowserCommandLineTest, RefusesALaunchWithoutADirectory) {
  EXPECT_TRUE(absl::IsFailedPrecondition(CheckLaunch({}, /*user_id=*/1000)));
}

TEST(BrowserCommandLineTest, KeepsWhatTheServiceManagerSaidFromTheBrowser) {
  const char* const environment[] = {
      "HOME=/root",   "NOTIFY_SOCKET=/run/x", "WATCHDOG_USEC=1", "WATCHDOG_PID=1",
      "LISTEN_FDS=1", "LISTEN_PID=1",         "TMPDIR=/var/t",   nullptr};

  EXPECT_THAT(BrowserEnvironment(SomeLaunch(), environment),
              ElementsAre("HOME=/root", "TMPDIR=/var/t"));
}

TEST(BrowserCommandLineTest, GivesTheBrowserItsOwnTemporaryFolder) {
  const char* const environment[] = {"TMPDIR=/var/t", "HOME=/root", nullptr};
  BrowserLaunch launch = SomeLaunch();
  launch.temporary_dir = "/tmp/one";

  EXPECT_THAT(BrowserEnvironment(launch, environment),
              ElementsAre("HOME=/root", "TMPDIR=/tmp/one"));
}

}  // namespace
}  // namespace varnic::host
