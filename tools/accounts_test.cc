#include "tools/accounts.h"

#include <gtest/gtest.h>

#include <string>

namespace varnic::tools {
namespace {

TEST(AccountsTest, NamesOfTheSystemAreKnown) {
  EXPECT_EQ(FindUser("root").value_or(1), 0u);
  EXPECT_EQ(FindGroup("root").value_or(1), 0u);
}

TEST(AccountsTest, NumbersNeedNoAccount) {
  EXPECT_EQ(FindUser("54321").value_or(0), 54321u);
  EXPECT_EQ(FindGroup("54321").value_or(0), 54321u);
}

TEST(AccountsTest, WhoIsNotThereIsNamed) {
  for (const std::string text : {"no such account", "", "-1", "4294967295", "99999999999", "1x"}) {
    EXPECT_EQ(FindUser(text).status(), absl::NotFoundError("there is no user " + text));
    EXPECT_EQ(FindGroup(text).status(), absl::NotFoundError("there is no group " + text));
  }
}

}  // namespace
}  // namespace varnic::tools
