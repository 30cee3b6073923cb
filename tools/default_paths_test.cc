#include "tools/default_paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace varnic::tools {
namespace {

Environment With(const std::map<std::string, std::string>& variables) {
  return [variables](const char* name) -> const char* {
    const auto found = variables.find(name);
    return found == variables.end() ? nullptr : found->second.c_str();
  };
}

TEST(DefaultPathsTest, SocketIsInTheRuntimeDirectory) {
  EXPECT_EQ(DefaultAddress(With({{"XDG_RUNTIME_DIR", "/run/user/7"}})),
            "unix:/run/user/7/varnic/host.sock");
}

TEST(DefaultPathsTest, WithoutARuntimeDirectoryTheUserHasAFolderInTheTemporaryOne) {
  const std::string user = std::to_string(getuid());

  EXPECT_EQ(DefaultRuntimeFolder(With({})), "/tmp/varnic-" + user);
  EXPECT_EQ(DefaultRuntimeFolder(With({{"TMPDIR", "/var/tmp"}})), "/var/tmp/varnic-" + user);
}

TEST(DefaultPathsTest, RelativePathsInTheEnvironmentAreIgnored) {
  EXPECT_EQ(DefaultRuntimeFolder(With({{"XDG_RUNTIME_DIR", "run"}})),
            "/tmp/varnic-" + std::to_string(getuid()));
}

TEST(DefaultPathsTest, ProfilesAreInTheDataHome) {
  EXPECT_EQ(DefaultProfilesFolder(With({{"HOME", "/home/a"}})),
            "/home/a/.local/share/varnic/profiles");
  EXPECT_EQ(DefaultProfilesFolder(With({{"HOME", "/home/a"}, {"XDG_DATA_HOME", "/data"}})),
            "/data/varnic/profiles");
}

class PrivateFolderTest : public ::testing::Test {
 protected:
  PrivateFolderTest()
      : root_(std::filesystem::path(::testing::TempDir()) /
              ("private_folder_" + std::to_string(getpid()))) {
    std::filesystem::create_directory(root_);
  }
  ~PrivateFolderTest() override { std::filesystem::remove_all(root_); }

  std::string Path(const std::string& name) const { return (root_ / name).string(); }

  const std::filesystem::path root_;
};

TEST_F(PrivateFolderTest, IsMadeForItsUserAlone) {
  ASSERT_TRUE(MakePrivateFolder(Path("a/b")).ok());

  struct stat info;
  ASSERT_EQ(stat(Path("a/b").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700U);
}

TEST_F(PrivateFolderTest, MayBeThereAlready) {
  ASSERT_TRUE(MakePrivateFolder(Path("a")).ok());

  EXPECT_TRUE(MakePrivateFolder(Path("a")).ok());
}

TEST_F(PrivateFolderTest, FolderThatOthersCanEnterIsRefused) {
  ASSERT_EQ(mkdir(Path("a").c_str(), 0700), 0);
  ASSERT_EQ(chmod(Path("a").c_str(), 0711), 0);

  EXPECT_EQ(MakePrivateFolder(Path("a")),
            absl::FailedPreconditionError(Path("a") +
                                          " is open to other users; its mode has to be 0700"));
}

TEST_F(PrivateFolderTest, LinkIsRefused) {
  ASSERT_EQ(mkdir(Path("a").c_str(), 0700), 0);
  std::filesystem::create_symlink(Path("a"), Path("link"));

  EXPECT_EQ(MakePrivateFolder(Path("link")),
            absl::FailedPreconditionError(Path("link") + " is not a folder"));
}

TEST_F(PrivateFolderTest, FolderBelowAFileCannotBeMade) {
  std::ofstream(Path("file")).put('x');

  EXPECT_EQ(MakePrivateFolder(Path("file/a")).code(), absl::StatusCode::kFailedPrecondition);
}

TEST_F(PrivateFolderTest, CheckOfAMissingFolderIsFine) {
  EXPECT_TRUE(CheckPrivateFolder(Path("none")).ok());
  EXPECT_FALSE(std::filesystem::exists(Path("none")));
}

}  // namespace
}  // namespace varnic::tools
