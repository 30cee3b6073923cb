#include "core/host/child_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::HasSubstr;
using testing::TemporaryFolder;

constexpr ChildLimits kPatient = {1000, absl::Seconds(60)};

absl::StatusOr<std::string> RunShell(const std::string& commands,
                                     const ChildLimits& limits = kPatient) {
  return ReadChildOutput({"/bin/sh", "-c", commands}, limits);
}

TEST(ChildOutputTest, ReturnsStandardOutputAlone) {
  const absl::StatusOr<std::string> output = RunShell("echo one; echo noise >&2; echo two");

  ASSERT_TRUE(output.ok()) << output.status();
  EXPECT_EQ(*output, "one\ntwo\n");
}

TEST(ChildOutputTest, PassesArgumentsWithoutAShell) {
  const absl::StatusOr<std::string> output = ReadChildOutput({"echo", "$HOME; `id`"}, kPatient);

  ASSERT_TRUE(output.ok()) << output.status();
  EXPECT_EQ(*output, "$HOME; `id`\n");
}

TEST(ChildOutputTest, GivesTheChildNothingToRead) {
  EXPECT_EQ(RunShell("cat").value_or("failed"), "");
}

TEST(ChildOutputTest, GivesTheChildOnlyThreeDescriptors) {
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);

  const absl::StatusOr<std::string> output =
      RunShell(absl::StrCat("test -e /proc/self/fd/", fd, " && echo inherited; echo done"));

  ::close(fd);
  EXPECT_EQ(output.value_or("failed"), "done\n");
}

TEST(ChildOutputTest, NamesAProgramThatCannotBeRun) {
  const TemporaryFolder folder;
  const std::string plain = folder.Write("plain", "#!/bin/sh\n");

  const absl::Status absent = ReadChildOutput({folder.Path("absent")}, kPatient).status();
  const absl::Status refused = ReadChildOutput({plain}, kPatient).status();

  EXPECT_TRUE(absl::IsNotFound(absent)) << absent;
  EXPECT_THAT(std::string(absent.message()), HasSubstr(folder.Path("absent")));
  EXPECT_TRUE(absl::IsPermissionDenied(refused)) << refused;
}

TEST(ChildOutputTest, ReportsTheExitCodeAndTheSignal) {
  EXPECT_EQ(RunShell("echo output; exit 21").status(),
            absl::FailedPreconditionError("\"/bin/sh\" ended with exit code 21"));
  EXPECT_EQ(RunShell("kill -TERM $$").status(),
            absl::FailedPreconditionError("\"/bin/sh\" was ended by signal 15"));
}

TEST(ChildOutputTest, EndsAChildThatTakesTooLong) {
  const absl::Status status =
      RunShell("echo started; sleep 600", {1000, absl::Milliseconds(50)}).status();

  EXPECT_EQ(status, absl::UnavailableError("\"/bin/sh\" did not finish within 50ms"));
}

TEST(ChildOutputTest, EndsAChildThatClosesItsOutputAndStays) {
  const absl::Status status =
      RunShell("exec >&-; sleep 600", {1000, absl::Milliseconds(50)}).status();

  EXPECT_TRUE(absl::IsUnavailable(status)) << status;
}

TEST(ChildOutputTest, EndsAChildThatWritesWithoutEnd) {
  EXPECT_EQ(RunShell("yes").status(),
            absl::ResourceExhaustedError("\"/bin/sh\" wrote more than 1000 bytes"));
}

TEST(ChildOutputTest, DoesNotWaitForWhatTheChildLeavesBehind) {
  EXPECT_EQ(RunShell("sleep 600 & echo done").value_or("failed"), "done\n");
}

}  // namespace
}  // namespace varnic::host
