#include "tools/password_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;

class PasswordFileTest : public ::testing::Test {
 protected:
  PasswordFileTest() {
    std::string pattern = ::testing::TempDir() + "password_file_XXXXXX";
    folder_ = mkdtemp(pattern.data());
    path_ = folder_ + "/password";
  }
  ~PasswordFileTest() override { std::filesystem::remove_all(folder_); }

  void Write(const std::string& content, mode_t mode = 0600) {
    std::ofstream(path_) << content;
    EXPECT_EQ(chmod(path_.c_str(), mode), 0);
  }

  std::string ErrorOfRead() {
    const absl::StatusOr<std::string> password = ReadPasswordFile(path_);
    EXPECT_FALSE(password.ok());
    EXPECT_THAT(password.status().message(), HasSubstr(path_));
    return std::string(password.status().message());
  }

  std::string folder_;
  std::string path_;
};

TEST_F(PasswordFileTest, EndOfTheLineIsNoPartOfThePassword) {
  for (const char* content : {"pass wörd ", "pass wörd \n", "pass wörd \r\n"}) {
    Write(content);
    EXPECT_EQ(ReadPasswordFile(path_).value_or(""), "pass wörd ");
  }
}

TEST_F(PasswordFileTest, FileThatChangesIsReadAnew) {
  Write("old\n");
  EXPECT_EQ(ReadPasswordFile(path_).value_or(""), "old");

  Write("new\n");

  EXPECT_EQ(ReadPasswordFile(path_).value_or(""), "new");
}

TEST_F(PasswordFileTest, FileThatOthersMayUseIsRefused) {
  for (const mode_t mode : {0644, 0604, 0602}) {
    Write("secret\n", mode);
    EXPECT_THAT(ErrorOfRead(), HasSubstr("open to other users"));
  }
  Write("secret\n", 0400);
  EXPECT_TRUE(ReadPasswordFile(path_).ok());
}

TEST_F(PasswordFileTest, FileOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  Write("secret\n");
  ASSERT_EQ(chown(path_.c_str(), 65534, 65534), 0);

  EXPECT_THAT(ErrorOfRead(), HasSubstr("somebody else's"));
}

TEST_F(PasswordFileTest, PipeIsRefusedWithoutWaitingForItsWriter) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);

  EXPECT_THAT(ErrorOfRead(), HasSubstr("not a regular file"));
}

TEST_F(PasswordFileTest, FileThatIsNotThereIsNamed) {
  EXPECT_THAT(ErrorOfRead(), HasSubstr("No such file"));
}

TEST_F(PasswordFileTest, WhatIsNoPasswordOfOneLineIsRefused) {
  Write("\n");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("empty"));
  Write("one\ntwo\n");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("more than one line"));
  Write("\xff\n");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("UTF-8"));
  Write(std::string(5000, 'a'));
  EXPECT_THAT(ErrorOfRead(), HasSubstr("4096"));
}

TEST(CoreDumpTest, ProcessWithPasswordsLeavesNone) {
  const pid_t child = fork();
  if (child == 0) {
    const bool before = prctl(PR_GET_DUMPABLE) != 0;
    KeepPasswordsOutOfCoreDumps();
    _exit(before && prctl(PR_GET_DUMPABLE) == 0 ? 0 : 1);
  }

  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace varnic::tools
