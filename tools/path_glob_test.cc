#include "tools/path_glob.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;

bool Matches(const std::string& glob, const std::string& path) {
  const auto parsed = PathGlob::Parse(glob);
  EXPECT_TRUE(parsed.ok()) << parsed.status();
  return parsed.ok() && parsed->Matches(path);
}

bool MatchesOrHolds(const std::string& glob, const std::string& path) {
  return PathGlob::Parse(glob)->MatchesPathOrFolder(path);
}

std::string ErrorOf(const std::string& glob) {
  const auto parsed = PathGlob::Parse(glob);
  EXPECT_EQ(parsed.status().code(), absl::StatusCode::kInvalidArgument) << glob;
  return std::string(parsed.status().message());
}

TEST(PathGlobTest, PlainPathMatchesItselfOnly) {
  EXPECT_TRUE(Matches("/etc/motd", "/etc/motd"));
  EXPECT_FALSE(Matches("/etc/motd", "/etc/motd2"));
  EXPECT_FALSE(Matches("/etc/motd", "/etc/mot"));
  EXPECT_FALSE(Matches("/etc/motd", "/etc/MOTD"));
  EXPECT_FALSE(Matches("/etc/motd", "/chroot/etc/motd"));
}

TEST(PathGlobTest, StarStaysWithinAName) {
  EXPECT_TRUE(Matches("/tmp/*.txt", "/tmp/a.txt"));
  EXPECT_TRUE(Matches("/tmp/*.txt", "/tmp/.txt"));
  EXPECT_TRUE(Matches("/tmp/*", "/tmp/.hidden"));
  EXPECT_TRUE(Matches("/*/b/*", "/a/b/c"));
  EXPECT_FALSE(Matches("/tmp/*.txt", "/tmp/a/b.txt"));
  EXPECT_FALSE(Matches("/tmp/*", "/tmp"));
}

TEST(PathGlobTest, DoubleStarGoesThroughFolders) {
  EXPECT_TRUE(Matches("/a/**", "/a/b"));
  EXPECT_TRUE(Matches("/a/**", "/a/b/c/.d"));
  EXPECT_TRUE(Matches("/a/**.txt", "/a/b/c.txt"));
  EXPECT_TRUE(Matches("**", "/anything/at/all"));
  EXPECT_FALSE(Matches("/a/**", "/a"));
  EXPECT_FALSE(Matches("/a/**", "/ab/c"));
}

TEST(PathGlobTest, DoubleStarBeforeASlashIsAnyNumberOfWholeFolders) {
  EXPECT_TRUE(Matches("/a/**/b", "/a/b"));
  EXPECT_TRUE(Matches("/a/**/b", "/a/x/y/b"));
  EXPECT_TRUE(Matches("**/.ssh/*", "/home/zoë/.ssh/id"));
  EXPECT_TRUE(Matches("**/b", "/b"));
  EXPECT_FALSE(Matches("/a/**/b", "/a/xb"));
  EXPECT_FALSE(Matches("/a/**/b", "/a/x/yb"));
  EXPECT_FALSE(Matches("/a/**/b", "/ab"));
}

TEST(PathGlobTest, QuestionMarkIsOneCharacterOfAName) {
  EXPECT_TRUE(Matches("/a?c", "/abc"));
  EXPECT_TRUE(Matches("/zo?", "/zoë"));
  EXPECT_FALSE(Matches("/a?c", "/ac"));
  EXPECT_FALSE(Matches("/a?c", "/a/c"));
}

TEST(PathGlobTest, SetIsOneCharacterOfAName) {
  EXPECT_TRUE(Matches("/[a-cx]", "/b"));
  EXPECT_TRUE(Matches("/[a-cx]", "/x"));
  EXPECT_TRUE(Matches("/[]-]", "/]"));
  EXPECT_TRUE(Matches("/[]-]", "/-"));
  EXPECT_TRUE(Matches("/[\\]]", "/]"));
  EXPECT_TRUE(Matches("/[à-ÿ]", "/ë"));
  EXPECT_TRUE(Matches("/[!a-c]", "/d"));
  EXPECT_FALSE(Matches("/[a-cx]", "/d"));
  EXPECT_FALSE(Matches("/[^a-c]", "/b"));
  EXPECT_FALSE(Matches("/a[!b]c", "/a/c"));
  EXPECT_FALSE(Matches("/a[.-0]c", "/a/c"));
}

TEST(PathGlobTest, BackslashTakesTheNextCharacterAsItIs) {
  EXPECT_TRUE(Matches("/\\*\\[\\\\", "/*[\\"));
  EXPECT_FALSE(Matches("/\\*", "/a"));
}

TEST(PathGlobTest, FolderThatMatchesHoldsWhatIsInIt) {
  EXPECT_TRUE(MatchesOrHolds("/home/*/.ssh", "/home/zoë/.ssh"));
  EXPECT_TRUE(MatchesOrHolds("/home/*/.ssh", "/home/zoë/.ssh/keys/id"));
  EXPECT_FALSE(MatchesOrHolds("/home/*/.ssh", "/home/zoë/.sshx/id"));
  EXPECT_FALSE(MatchesOrHolds("/home/*/.ssh", "/home/zoë"));
}

TEST(PathGlobTest, SlashAtTheEndIsTheFolderAndEverythingInIt) {
  for (const char* path : {"/etc", "/etc/motd", "/etc/ssl/key"}) {
    EXPECT_TRUE(Matches("/etc/", path)) << path;
    EXPECT_TRUE(MatchesOrHolds("/etc\\/", path)) << path;
    EXPECT_TRUE(Matches("/etc/**/", path)) << path;
  }
  EXPECT_FALSE(Matches("/etc/", "/etcetera"));
  EXPECT_FALSE(Matches("/etc/", "/"));
  EXPECT_TRUE(Matches("**/.ssh/", "/home/zoë/.ssh/id"));
}

TEST(PathGlobTest, SlashAloneIsEverything) {
  for (const char* glob : {"/", "**/", "/**/"}) {
    EXPECT_TRUE(Matches(glob, "/")) << glob;
    EXPECT_TRUE(Matches(glob, "/a/b")) << glob;
  }
}

TEST(PathGlobTest, NamesThatNoPlainPathHasAreRefused) {
  for (const char* glob : {"//", "/home//a", "/a//", "**//a", "/**//"}) {
    EXPECT_THAT(ErrorOf(glob), HasSubstr("empty name")) << glob;
  }
  for (const char* glob : {"/.", "/home/./a", "/home/../a", "**/..", "/a/../", "/\\./a"}) {
    EXPECT_THAT(ErrorOf(glob), HasSubstr(". or ..")) << glob;
  }
  EXPECT_TRUE(Matches("/.../.a/a./..b", "/.../.a/a./..b"));
  EXPECT_TRUE(Matches("/.*/..?", "/.a/..b"));
}

TEST(PathGlobTest, PathThatIsNoTextMatchesNothing) {
  EXPECT_FALSE(Matches("**", "/\xff"));
}

TEST(PathGlobTest, LongPathsDoNotMakeManyStarsSlow) {
  std::string glob = "/";
  for (int i = 0; i < 50; ++i) glob += "*a";

  EXPECT_FALSE(Matches(glob + "b", "/" + std::string(4000, 'a')));
  EXPECT_TRUE(Matches(glob, "/" + std::string(4000, 'a')));
}

TEST(PathGlobTest, ErrorsQuoteTheGlob) {
  EXPECT_THAT(ErrorOf(""), HasSubstr("\"\": it has to begin with / or **"));
  EXPECT_THAT(ErrorOf("etc/*"), HasSubstr("etc/*: it has to begin with / or **"));
  EXPECT_THAT(ErrorOf("*.txt"), HasSubstr("begin with"));
  EXPECT_THAT(ErrorOf("/[abc"), HasSubstr("no ]"));
  EXPECT_THAT(ErrorOf("/["), HasSubstr("no ]"));
  EXPECT_THAT(ErrorOf("/[a-"), HasSubstr("no ]"));
  EXPECT_THAT(ErrorOf("/[a\\"), HasSubstr("no ]"));
  EXPECT_THAT(ErrorOf("/[z-a]"), HasSubstr("backwards"));
  EXPECT_THAT(ErrorOf("/a\\"), HasSubstr("backslash"));
  EXPECT_THAT(ErrorOf("/\xff"), HasSubstr("UTF-8"));
}

}  // namespace
}  // namespace varnic::tools
