#include "core/net/config_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "core/net/testing/test_certificates.h"

namespace varnic::net {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

class ConfigFileTest : public ::testing::Test {
 protected:
  testing::TestFolder folder_;
};

TEST_F(ConfigFileTest, IsReadWhole) {
  const std::string contents("text\0with a NUL\n", 16);

  EXPECT_EQ(*ReadConfigFile(folder_.Write("file", contents)), contents);
  EXPECT_EQ(*ReadConfigFile(folder_.Write("empty", "")), "");
}

TEST_F(ConfigFileTest, WhatCannotBeReadIsNamed) {
  const std::string pipe = folder_.Path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::string large = folder_.Write("large", std::string((1 << 20) + 1, 'x'));

  for (const auto& [path, why] :
       {std::pair(folder_.Path("missing"), "No such file"),
        std::pair(folder_.Path(""), "not a regular file"), std::pair(pipe, "not a regular file"),
        std::pair(large, "larger than 1 MiB")}) {
    const absl::Status status = ReadConfigFile(path).status();

    EXPECT_THAT(std::string(status.message()), AllOf(HasSubstr(path), HasSubstr(why)));
  }
}

TEST_F(ConfigFileTest, EveryChangeIsSeenOnce) {
  const std::string path = folder_.Write("file", "first");
  const std::string other = folder_.Path("other");
  ConfigFileWatch watch({path, other}, absl::ZeroDuration());
  EXPECT_FALSE(watch.Changed());

  folder_.Write("file", "other");  // As long as the first, and perhaps within a tick of the clock.
  EXPECT_TRUE(watch.Changed());
  EXPECT_FALSE(watch.Changed());

  std::ofstream(path, std::ios::app) << "more";
  EXPECT_TRUE(watch.Changed());
  EXPECT_FALSE(watch.Changed());

  folder_.Write("other", "appears");
  EXPECT_TRUE(watch.Changed());
  EXPECT_FALSE(watch.Changed());

  std::filesystem::remove(other);
  EXPECT_TRUE(watch.Changed());
  EXPECT_FALSE(watch.Changed());
}

TEST_F(ConfigFileTest, FilesAreNotLookedAtMoreOftenThanTheIntervalSays) {
  const std::string path = folder_.Write("file", "first");
  ConfigFileWatch watch({path}, absl::Hours(1));

  folder_.Write("file", "second");

  EXPECT_FALSE(watch.Changed());
}

}  // namespace
}  // namespace varnic::net
