#include "tools/profile_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

rpc::ProfileInfo& Add(rpc::ProfileList& list, const std::string& id, const std::string& name) {
  rpc::ProfileInfo& profile = *list.add_profiles();
  profile.mutable_id()->set_value(id);
  profile.set_name(name);
  return profile;
}

TEST(ProfileTableTest, ProfilesHaveALineEach) {
  rpc::ProfileList list;
  rpc::ProfileInfo& first = Add(list, "default", "Zoë");
  first.set_is_default(true);
  first.set_running(true);
  first.add_browsers();
  first.add_browsers();
  Add(list, "default-incognito-1", "Zoë").set_is_incognito(true);
  Add(list, "profile-1", "For work");

  EXPECT_EQ(FormatProfiles(list),
            "ID                   NAME        STATE             BROWSERS\n"
            "default              Zoë         default, running  2\n"
            "default-incognito-1  Zoë         incognito         0\n"
            "profile-1            \"For work\"  -                 0\n");
}

TEST(ProfileTableTest, BrowsersHaveALineEach) {
  rpc::BrowserList list;
  rpc::BrowserInfo& browser = *list.add_browsers();
  browser.mutable_id()->set_value(12);
  browser.mutable_profile_id()->set_value("default");
  browser.set_url("https://example.com/");
  browser.set_title("Example Domain");
  list.add_browsers()->set_headless(true);

  EXPECT_EQ(FormatBrowsers(list),
            "ID  PROFILE  KIND      URL                   TITLE\n"
            "12  default  window    https://example.com/  \"Example Domain\"\n"
            "0   \"\"       headless  \"\"                    \"\"\n");
}

TEST(ProfileTableTest, NothingIsATableWithoutLines) {
  EXPECT_EQ(FormatBrowsers(rpc::BrowserList()), "ID  PROFILE  KIND  URL  TITLE\n");
}

TEST(ProfileTableTest, NewProfileIsItsId) {
  rpc::ProfileInfo profile;
  profile.mutable_id()->set_value("profile-1");
  profile.set_name("Work");

  EXPECT_EQ(FormatProfileId(profile), "profile-1\n");
}

TEST(ProfileTableTest, TextOfPagesDoesNothingToTheTerminalAndIsShort) {
  rpc::BrowserList list;
  list.add_browsers()->set_title("\x1b[2J\nTITLE");
  list.mutable_browsers(0)->set_url(std::string(4096, 'x'));

  const std::string table = FormatBrowsers(list);

  EXPECT_THAT(table, HasSubstr("\"\\x1b[2J\\nTITLE\"\n"));
  EXPECT_THAT(table, HasSubstr("(4096 bytes)"));
  EXPECT_THAT(table, Not(HasSubstr(std::string(100, 'x'))));
}

}  // namespace
}  // namespace varnic::tools
