#include "core/host/singleton_lock.h"

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "absl/strings/str_cat.h"
#include "core/host/testing/lock_holders.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using testing::DeadProcess;
using ::testing::HasSubstr;
using testing::HostName;
using testing::TemporaryFolder;

class SingletonLockTest : public ::testing::Test {
 protected:
  absl::Status CheckWithLock(const std::string& holder) {
    std::filesystem::create_symlink(holder, folder_.Path("SingletonLock"));
    return CheckNoBrowserRuns(folder_.path());
  }

  void ExpectHeldBy(const std::string& text, const absl::Status& status) {
    EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
    EXPECT_THAT(std::string(status.message()), HasSubstr(folder_.Path("SingletonLock")));
    EXPECT_THAT(std::string(status.message()), HasSubstr(text));
  }

  TemporaryFolder folder_;
};

TEST_F(SingletonLockTest, NoLockIsFree) {
  EXPECT_TRUE(CheckNoBrowserRuns(folder_.path()).ok());
}

TEST_F(SingletonLockTest, LivingProcessOfThisMachineHolds) {
  ExpectHeldBy(absl::StrCat("process ", ::getpid(), " of this machine"),
               CheckWithLock(absl::StrCat(HostName(), "-", ::getpid())));
}

TEST_F(SingletonLockTest, DeadProcessOfThisMachineDoesNot) {
  const absl::Status status = CheckWithLock(absl::StrCat(HostName(), "-", DeadProcess()));

  EXPECT_TRUE(status.ok()) << status;
}

TEST_F(SingletonLockTest, ZombieOfThisMachineDoesNot) {
  const pid_t zombie = ::fork();
  if (zombie == 0) ::_exit(0);
  siginfo_t info;
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT), 0);

  const absl::Status status = CheckWithLock(absl::StrCat(HostName(), "-", zombie));

  EXPECT_TRUE(status.ok()) << status;
  ::waitpid(zombie, nullptr, 0);
}

TEST_F(SingletonLockTest, ProcessOfAnotherMachineHolds) {
  ExpectHeldBy("process 7 of the machine \"another-machine\"", CheckWithLock("another-machine-7"));
}

TEST_F(SingletonLockTest, NameOfThisMachineMustMatchAsAWhole) {
  ExpectHeldBy("of the machine", CheckWithLock(absl::StrCat("x-", HostName(), "-", DeadProcess())));
}

TEST_F(SingletonLockTest, LockThatNamesNoProcessHolds) {
  ExpectHeldBy("does not name a process", CheckWithLock("nonsense"));
}

TEST_F(SingletonLockTest, LockWithAProcessIdOfNoProcessHolds) {
  for (const char* id : {"0", "x", "", "99999999999"}) {
    std::filesystem::remove(folder_.Path("SingletonLock"));
    ExpectHeldBy("does not name a process", CheckWithLock(absl::StrCat(HostName(), "-", id)));
  }
}

TEST_F(SingletonLockTest, LockThatIsNotALinkIsAnError) {
  folder_.Write("SingletonLock", "");

  EXPECT_FALSE(CheckNoBrowserRuns(folder_.path()).ok());
}

}  // namespace
}  // namespace varnic::host
