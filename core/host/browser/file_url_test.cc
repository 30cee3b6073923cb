#include "core/host/browser/file_url.h"

#include <limits.h>

#include <string>
#include <string_view>

#include "gtest/gtest.h"

namespace varnic::host {
namespace {

std::string PathOf(std::string_view url) {
  const absl::StatusOr<std::string> path = LocalPathOf(url);
  return path.ok() ? *path : std::string(path.status().message());
}

TEST(FileUrlTest, OtherSchemesAreNoFiles) {
  EXPECT_TRUE(IsFileUrl("file:///etc"));
  EXPECT_TRUE(IsFileUrl("FILE:///etc"));
  EXPECT_FALSE(IsFileUrl("http://file/"));
  EXPECT_FALSE(IsFileUrl("filesystem:file:///x"));
  EXPECT_FALSE(IsFileUrl(""));
  EXPECT_EQ(PathOf("http://host/etc"), "the URL is not that of a file");
}

TEST(FileUrlTest, PathIsDecoded) {
  EXPECT_EQ(PathOf("file:///etc/hostname"), "/etc/hostname");
  EXPECT_EQ(PathOf("file:///a%20b/%C3%BC"), "/a b/ü");
  EXPECT_EQ(PathOf("file:///C:/x"), "/C:/x");
  EXPECT_EQ(PathOf("file:///a%5Cb"), "/a\\b");
}

TEST(FileUrlTest, WhatIsNoEscapeStandsForItself) {
  EXPECT_EQ(PathOf("file:///d%zz%"), "/d%zz%");
  EXPECT_EQ(PathOf("file:///a%252fb"), "/a%2fb");
}

TEST(FileUrlTest, QueryAndFragmentAreNotOfThePath) {
  EXPECT_EQ(PathOf("file:///a?b/c"), "/a");
  EXPECT_EQ(PathOf("file:///a#b?c"), "/a");
  EXPECT_EQ(PathOf("file:///a%3Fb%23c"), "/a?b#c");
}

TEST(FileUrlTest, FileHasOneName) {
  EXPECT_EQ(PathOf("file:///"), "/");
  EXPECT_EQ(PathOf("file:////"), "/");
  EXPECT_EQ(PathOf("file:///etc/"), "/etc");
  EXPECT_EQ(PathOf("file:////etc//ssl///"), "/etc/ssl");
  EXPECT_EQ(PathOf("file://localhost/etc"), "/etc");
  EXPECT_EQ(PathOf("FILE://LocalHost/etc"), "/etc");
}

TEST(FileUrlTest, OtherHostsHaveNoFilesHere) {
  EXPECT_EQ(PathOf("file://server/etc"), "the file is another host's");
  EXPECT_EQ(PathOf("file://localhost.example/etc"), "the file is another host's");
  EXPECT_EQ(PathOf("file://127.0.0.1/etc"), "the file is another host's");
}

TEST(FileUrlTest, EncodedSeparatorsAreRefused) {
  EXPECT_EQ(PathOf("file:///etc%2Fhostname"), "the path has an encoded slash or NUL");
  EXPECT_EQ(PathOf("file:///etc%2fhostname"), "the path has an encoded slash or NUL");
  EXPECT_EQ(PathOf("file:///etc/host%00name"), "the path has an encoded slash or NUL");
  EXPECT_EQ(PathOf(std::string_view("file:///a\0b", 11)), "the path has an encoded slash or NUL");
}

TEST(FileUrlTest, DotSegmentsAreRefused) {
  EXPECT_EQ(PathOf("file:///etc/../root"), "the path has a dot segment");
  EXPECT_EQ(PathOf("file:///etc/%2e%2E/root"), "the path has a dot segment");
  EXPECT_EQ(PathOf("file:///etc/."), "the path has a dot segment");
  EXPECT_EQ(PathOf("file:///etc/..."), "/etc/...");
}

TEST(FileUrlTest, PathThatIsNoTextIsRefused) {
  EXPECT_EQ(PathOf("file:///h%FFname"), "the path is not UTF-8");
}

TEST(FileUrlTest, PathThatNoFileCanHaveIsRefused) {
  const std::string longest = "/" + std::string(PATH_MAX - 2, 'a');

  EXPECT_EQ(PathOf("file://" + longest), longest);
  EXPECT_EQ(PathOf("file://" + longest + "a"), "the path is too long");
}

TEST(FileUrlTest, UrlWithoutAPathIsRefused) {
  EXPECT_EQ(PathOf("file://"), "the URL has no path");
  EXPECT_EQ(PathOf("file://localhost"), "the URL has no path");
  EXPECT_EQ(PathOf("file://?/etc"), "the URL has no path");
  EXPECT_EQ(PathOf("file:etc"), "the URL is not that of a file");
}

}  // namespace
}  // namespace varnic::host
