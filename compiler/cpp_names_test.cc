#include "compiler/cpp_names.h"

#include <gtest/gtest.h>

#include <string>

namespace varnic::compiler {
namespace {

TEST(CanBeCppNameTest, KeywordsAndMacrosOfTheStandardHeadersCannot) {
  EXPECT_FALSE(CanBeCppName("delete"));
  EXPECT_FALSE(CanBeCppName("co_await"));
  EXPECT_FALSE(CanBeCppName("errno"));
  EXPECT_FALSE(CanBeCppName("NULL"));
}

TEST(CanBeCppNameTest, WhatIsWrittenAsMacrosAreCannot) {
  for (const std::string name : {"EINTR", "INT_MAX", "VARNIC_CHECK", "M_PIf128", "SYS_open",
                                 "linux", "offsetof", "st_atime", "_m_pxor", "__linux__"}) {
    EXPECT_FALSE(CanBeCppName(name)) << name;
  }
  for (const std::string name : {"F", "V1", "GetURL", "HTTP_Get", "Linux"}) {
    EXPECT_TRUE(CanBeCppName(name)) << name;
  }
}

TEST(CanBeCppNameTest, WhatIsNoIdentifierCannot) {
  EXPECT_FALSE(CanBeCppName(""));
  EXPECT_FALSE(CanBeCppName("1st"));
}

TEST(CanBeCppNameTest, WhatOnlyLooksLikeAKeywordCan) {
  EXPECT_TRUE(CanBeCppName("Delete"));
  EXPECT_TRUE(CanBeCppName("delete_"));
  EXPECT_TRUE(CanBeCppName("override"));
}

TEST(CanBeIncludedTest, QuotesBackslashesAndControlCharactersCannot) {
  EXPECT_TRUE(CanBeIncluded("rpc/my profile-1.proto"));
  EXPECT_TRUE(CanBeIncluded("\xc3\xbc.proto"));
  EXPECT_FALSE(CanBeIncluded("a\"b.proto"));
  EXPECT_FALSE(CanBeIncluded("a\\b.proto"));
  EXPECT_FALSE(CanBeIncluded("a\nb.proto"));
}

}  // namespace
}  // namespace varnic::compiler
