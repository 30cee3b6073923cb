#include "core/host/atomic_file.h"

#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "absl/status/status.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::TemporaryFolder;

mode_t ModeOf(const std::string& path) {
  struct stat info = {};
  EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

// The code of what `action` returns in a process of its own.
absl::StatusCode CodeInChild(const std::function<absl::Status()>& action) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(static_cast<int>(action().code()));
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  return static_cast<absl::StatusCode>(WEXITSTATUS(status));
}

// Gives up the special rights of this process, if it has any.
bool BecomeOrdinaryUser() {
  constexpr id_t kNobody = 65534;
  return ::geteuid() != 0 ||
         (::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0);
}

// Lets this process write no file longer than `bytes`.
bool LimitFiles(rlim_t bytes) {
  const rlimit limit = {bytes, bytes};
  return ::signal(SIGXFSZ, SIG_IGN) != SIG_ERR && ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

TEST(ReadFileTest, ReturnsTheWholeFile) {
  const TemporaryFolder folder;
  const std::string contents = std::string(200000, 'x') + std::string("\0end", 4);
  const std::string path = folder.Write("file", contents);

  const absl::StatusOr<std::string> read = ReadFile(path);

  ASSERT_TRUE(read.ok()) << read.status();
  EXPECT_EQ(*read, contents);
}

TEST(ReadFileTest, NamesTheMissingFile) {
  const TemporaryFolder folder;

  const absl::Status status = ReadFile(folder.Path("absent")).status();

  EXPECT_TRUE(absl::IsNotFound(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr(folder.Path("absent")));
  EXPECT_THAT(std::string(status.message()), HasSubstr("No such file or directory"));
}

TEST(ReadFileTest, RefusesAFileOverTheLimit) {
  const TemporaryFolder folder;
  const std::string path = folder.Write("file", "12345");

  EXPECT_TRUE(ReadFile(path, 5).ok());
  EXPECT_TRUE(absl::IsResourceExhausted(ReadFile(path, 4).status()));
}

TEST(ReadFileTest, NeitherWaitsForAFifoNorReadsAFolder) {
  const TemporaryFolder folder;
  ASSERT_EQ(::mkfifo(folder.Path("fifo").c_str(), 0600), 0);

  EXPECT_TRUE(absl::IsFailedPrecondition(ReadFile(folder.Path("fifo")).status()));
  EXPECT_TRUE(absl::IsFailedPrecondition(ReadFile(folder.path()).status()));
}

TEST(ReplaceFileTest, ReplacesContentsAndKeepsTheMode) {
  const TemporaryFolder folder;
  const std::string path = folder.Write("file", "old");
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);

  const absl::Status status = ReplaceFile(path, "new contents");

  EXPECT_TRUE(status.ok()) << status;
  EXPECT_EQ(folder.Read("file"), "new contents");
  EXPECT_EQ(ModeOf(path), 0640u);
  EXPECT_THAT(folder.Names(), ElementsAre("file"));
}

TEST(ReplaceFileTest, KeepsTheOwnerOfTheFile) {
  const TemporaryFolder folder;
  const std::string path = folder.Write("file", "old");
  const uid_t owner = ::geteuid() == 0 ? 12345 : ::geteuid();
  ASSERT_EQ(::chown(path.c_str(), owner, static_cast<gid_t>(-1)), 0);

  ASSERT_TRUE(ReplaceFile(path, "new").ok());

  struct stat info = {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, owner);
}

TEST(ReplaceFileTest, MakesAMissingFileForItsOwnerAlone) {
  const TemporaryFolder folder;

  ASSERT_TRUE(ReplaceFile(folder.Path("file"), "new").ok());

  EXPECT_EQ(folder.Read("file"), "new");
  EXPECT_EQ(ModeOf(folder.Path("file")), 0600u);
}

TEST(ReplaceFileTest, ReplacesTheTargetOfALink) {
  const TemporaryFolder folder;
  folder.Write("elsewhere/file", "old");
  std::filesystem::create_symlink("elsewhere/file", folder.Path("link"));

  ASSERT_TRUE(ReplaceFile(folder.Path("link"), "new").ok());

  EXPECT_TRUE(std::filesystem::is_symlink(folder.Path("link")));
  EXPECT_EQ(folder.Read("elsewhere/file"), "new");
}

TEST(ReplaceFileTest, RefusesALinkToNothing) {
  const TemporaryFolder folder;
  std::filesystem::create_symlink("absent", folder.Path("link"));

  EXPECT_TRUE(absl::IsNotFound(ReplaceFile(folder.Path("link"), "new")));
  EXPECT_THAT(folder.Names(), ElementsAre("link"));
}

TEST(ReplaceFileTest, RefusesWhatIsNotARegularFile) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.Path("sub"));

  EXPECT_TRUE(absl::IsFailedPrecondition(ReplaceFile(folder.Path("sub"), "new")));
  EXPECT_THAT(folder.Names(), ElementsAre("sub"));
}

TEST(ReplaceFileTest, NamesTheMissingFolder) {
  const TemporaryFolder folder;

  const absl::Status status = ReplaceFile(folder.Path("absent/file"), "new");

  EXPECT_TRUE(absl::IsNotFound(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr(folder.Path("absent")));
}

TEST(ReplaceFileTest, LeavesTheFileAloneInAFolderThatIsReadOnly) {
  const TemporaryFolder folder;
  const std::string path = folder.Write("sub/file", "old");
  ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(folder.Path("sub").c_str(), 0555), 0);

  const absl::StatusCode code = CodeInChild([&] {
    return BecomeOrdinaryUser() ? ReplaceFile(path, "new") : absl::InternalError("still root");
  });

  ASSERT_EQ(::chmod(folder.Path("sub").c_str(), 0755), 0);
  EXPECT_EQ(code, absl::StatusCode::kPermissionDenied);
  EXPECT_EQ(folder.Read("sub/file"), "old");
  EXPECT_THAT(folder.Names("sub"), ElementsAre("file"));
}

TEST(ReplaceFileTest, RemovesTheTemporaryFileWhenWritingFails) {
  const TemporaryFolder folder;
  const std::string path = folder.Write("file", "old");

  const absl::StatusCode code = CodeInChild([&] {
    return LimitFiles(1000) ? ReplaceFile(path, std::string(5000, 'x'))
                            : absl::InternalError("no limit");
  });

  EXPECT_EQ(code, absl::StatusCode::kOutOfRange);
  EXPECT_EQ(folder.Read("file"), "old");
  EXPECT_THAT(folder.Names(), ElementsAre("file"));
}

}  // namespace
}  // namespace varnic::host
