#include "core/host/browser/singleton_files.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "absl/strings/str_cat.h"
#include "core/host/file_descriptor.h"
#include "core/host/testing/lock_holders.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using testing::DeadProcess;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::HostName;
using ::testing::IsEmpty;
using testing::TemporaryFolder;

class SingletonFilesTest : public ::testing::Test {
 protected:
  SingletonFilesTest() { std::filesystem::create_directory(directory_); }

  void MakeLinks(const std::string& holder, const std::string& socket) {
    std::filesystem::create_symlink(holder, directory_ + "/SingletonLock");
    std::filesystem::create_symlink("123456", directory_ + "/SingletonCookie");
    std::filesystem::create_symlink(socket, directory_ + "/SingletonSocket");
  }

  std::string MakeSocket(const std::string& folder) {
    std::filesystem::create_directory(folder_.Path(folder));
    const std::string path = folder_.Path(folder) + "/SingletonSocket";
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof(address.sun_path));
    path.copy(address.sun_path, path.size());
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    return path;
  }

  TemporaryFolder folder_;
  const std::string directory_ = folder_.Path("data");
};

TEST_F(SingletonFilesTest, DirectoryWithoutThemIsReady) {
  EXPECT_TRUE(ClearStaleSingletonFiles(directory_).ok());
}

TEST_F(SingletonFilesTest, ThoseOfADeadProcessAreRemoved) {
  MakeLinks(absl::StrCat(HostName(), "-", DeadProcess()), "/nowhere/SingletonSocket");
  folder_.Write("data/Local State", "{}");

  const absl::Status status = ClearStaleSingletonFiles(directory_);

  EXPECT_TRUE(status.ok()) << status;
  EXPECT_THAT(folder_.Names("data"), ElementsAre("Local State"));
}

TEST_F(SingletonFilesTest, SocketOfADeadProcessIsRemovedWithItsFolder) {
  const std::string socket = MakeSocket("org.chromium.Chromium.AbCdEf");
  std::filesystem::create_symlink("123456",
                                  folder_.Path("org.chromium.Chromium.AbCdEf/SingletonCookie"));
  MakeLinks(absl::StrCat(HostName(), "-", DeadProcess()), socket);

  const absl::Status status = ClearStaleSingletonFiles(directory_);

  EXPECT_TRUE(status.ok()) << status;
  EXPECT_THAT(folder_.Names(), ElementsAre("data"));
}

TEST_F(SingletonFilesTest, WhatTheLinkWronglyNamesStays) {
  folder_.Write("org.chromium.Chromium.AbCdEf/SingletonSocket", "a file");
  const std::string other = MakeSocket("mine");
  MakeLinks(absl::StrCat(HostName(), "-", DeadProcess()), other);

  EXPECT_TRUE(ClearStaleSingletonFiles(directory_).ok());
  MakeLinks(absl::StrCat(HostName(), "-", DeadProcess()),
            folder_.Path("org.chromium.Chromium.AbCdEf/SingletonSocket"));
  EXPECT_TRUE(ClearStaleSingletonFiles(directory_).ok());

  EXPECT_THAT(folder_.Names("mine"), ElementsAre("SingletonSocket"));
  EXPECT_THAT(folder_.Names("org.chromium.Chromium.AbCdEf"), ElementsAre("SingletonSocket"));
  EXPECT_THAT(folder_.Names("data"), IsEmpty());
}

TEST_F(SingletonFilesTest, ThoseOfALivingProcessStay) {
  MakeLinks(absl::StrCat(HostName(), "-", ::getpid()), "/nowhere/SingletonSocket");

  const absl::Status status = ClearStaleSingletonFiles(directory_);

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(std::string(status.message()),
              HasSubstr(absl::StrCat("process ", ::getpid(), " of this machine; close that")));
  EXPECT_EQ(folder_.Names("data").size(), 3u);
}

TEST_F(SingletonFilesTest, ThoseOfAnotherMachineStay) {
  MakeLinks("another-machine-7", "/nowhere/SingletonSocket");

  const absl::Status status = ClearStaleSingletonFiles(directory_);

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("\"another-machine\""));
  EXPECT_EQ(folder_.Names("data").size(), 3u);
}

TEST_F(SingletonFilesTest, LockThatIsNotALinkIsAnError) {
  folder_.Write("data/SingletonLock", "");

  EXPECT_FALSE(ClearStaleSingletonFiles(directory_).ok());
  EXPECT_THAT(folder_.Names("data"), ElementsAre("SingletonLock"));
}

}  // namespace
}  // namespace varnic::host
