#include "core/host/browser/temporary_dir.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "core/host/browser/testing/scoped_variable.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::IsEmpty;
using testing::ScopedVariable;
using ::testing::StartsWith;
using testing::TemporaryFolder;

TEST(TemporaryDirTest, IsForThisUserAlone) {
  const auto made = TemporaryDir::Make();
  ASSERT_TRUE(made.ok()) << made.status();

  struct stat info;
  ASSERT_EQ(::stat((*made)->path().c_str(), &info), 0);

  EXPECT_EQ(info.st_mode & 07777, 0700u);
}

TEST(TemporaryDirTest, GoesWithAllThatIsInIt) {
  const TemporaryFolder folder;
  ASSERT_LT(folder.path().size(), 48u) << "the tests' own folder is too deep for this one";
  const ScopedVariable temporary("TMPDIR", folder.path());
  {
    const auto made = TemporaryDir::Make();
    ASSERT_TRUE(made.ok()) << made.status();
    EXPECT_THAT((*made)->path(), StartsWith(folder.path() + "/varnic-"));
    std::filesystem::create_directories((*made)->path() + "/a/b");
    std::ofstream((*made)->path() + "/a/b/file") << "text";
  }

  EXPECT_THAT(folder.Names(), IsEmpty());
}

TEST(TemporaryDirTest, PathHasRoomForASocket) {
  const TemporaryFolder folder;
  const std::string deep = folder.Path(std::string(80, 'd'));
  std::filesystem::create_directory(deep);
  const ScopedVariable temporary("TMPDIR", deep);

  const auto made = TemporaryDir::Make();

  ASSERT_TRUE(made.ok()) << made.status();
  EXPECT_THAT((*made)->path(), StartsWith("/tmp/varnic-"));
}

TEST(TemporaryDirTest, FolderThatCannotBeMadeIsAnError) {
  const ScopedVariable temporary("TMPDIR", "/nowhere");

  EXPECT_FALSE(TemporaryDir::Make().ok());
}

}  // namespace
}  // namespace varnic::host
