#include "tools/profile_changes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace varnic::tools {
namespace {

using rpc::BrowserInfo;
using rpc::ProfileInfo;
using rpc::ProfilesChanged;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

ProfileInfo& Add(ProfilesChanged& state, const std::string& id) {
  ProfileInfo& profile = *state.add_profiles();
  profile.mutable_id()->set_value(id);
  profile.set_name("Name");
  return profile;
}

BrowserInfo& Open(ProfileInfo& profile, int64_t id, const std::string& url) {
  BrowserInfo& browser = *profile.add_browsers();
  browser.mutable_id()->set_value(id);
  browser.set_url(url);
  browser.set_title("T");
  return browser;
}

// "profile-1: created: Name".
std::vector<std::string> Lines(const std::vector<Happening>& told) {
  std::vector<std::string> lines;
  for (const Happening& happening : told) {
    lines.push_back(*happening.profile + ": " + happening.for_people);
  }
  return lines;
}

TEST(ProfileChangesTest, FirstEventTellsWhatThereIs) {
  ProfilesChanged state;
  Add(state, "default").set_running(true);
  Open(*state.mutable_profiles(0), 1, "about:blank").set_headless(true);
  Add(state, "profile-1");

  EXPECT_THAT(Lines(ProfileChanges().Take(state)),
              ElementsAre("default: is there: Name (running)",
                          "default: browser 1 is open: about:blank T (headless)",
                          "profile-1: is there: Name"));
}

TEST(ProfileChangesTest, SameStateTellsNothing) {
  ProfilesChanged state;
  Open(Add(state, "default"), 1, "about:blank");
  ProfileChanges changes;
  changes.Take(state);

  EXPECT_THAT(changes.Take(state), IsEmpty());
}

TEST(ProfileChangesTest, ProfilesComeWithTheirBrowsersAndGoWithThem) {
  ProfilesChanged before;
  Open(Add(before, "profile-1"), 1, "a");
  ProfilesChanged now;
  Open(Add(now, "profile-2"), 2, "b");
  ProfileChanges changes;
  changes.Take(before);

  EXPECT_THAT(Lines(changes.Take(now)),
              ElementsAre("profile-1: browser 1 closed", "profile-1: deleted",
                          "profile-2: created: Name", "profile-2: browser 2 opened: b T (window)"));
}

TEST(ProfileChangesTest, StartComesBeforeItsBrowsersAndEndBehindThem) {
  ProfilesChanged stopped;
  Add(stopped, "default");
  ProfilesChanged running;
  Open(Add(running, "default"), 1, "a");
  running.mutable_profiles(0)->set_running(true);
  ProfileChanges changes;
  changes.Take(stopped);

  EXPECT_THAT(Lines(changes.Take(running)),
              ElementsAre("default: started", "default: browser 1 opened: a T (window)"));
  EXPECT_THAT(Lines(changes.Take(stopped)),
              ElementsAre("default: browser 1 closed", "default: stopped"));
}

TEST(ProfileChangesTest, PageNameAndDefaultAreToldWhenTheyChange) {
  ProfilesChanged state;
  Open(Add(state, "default"), 1, "a");
  ProfileChanges changes;
  changes.Take(state);

  state.mutable_profiles(0)->mutable_browsers(0)->set_url("b c");
  EXPECT_THAT(Lines(changes.Take(state)), ElementsAre("default: browser 1 shows \"b c\" T"));
  state.mutable_profiles(0)->set_name("Other");
  state.mutable_profiles(0)->set_is_default(true);
  EXPECT_THAT(Lines(changes.Take(state)),
              ElementsAre("default: renamed: Other", "default: is the default profile"));
}

TEST(ProfileChangesTest, ProfileThatIsNotThereYetIsSaid) {
  ProfilesChanged state;
  state.mutable_profile_id()->set_value("profile-1");
  ProfileChanges changes;

  EXPECT_THAT(Lines(changes.Take(state)), ElementsAre("profile-1: is not there"));
  Add(state, "profile-1");
  EXPECT_THAT(Lines(changes.Take(state)), ElementsAre("profile-1: created: Name"));
}

TEST(ProfileChangesTest, KeysAreToldApart) {
  ProfilesChanged one;
  one.mutable_profile_id()->set_value("one");
  Add(one, "one");
  ProfilesChanged two;
  two.mutable_profile_id()->set_value("two");
  Add(two, "two");
  ProfileChanges changes;
  changes.Take(one);
  changes.Take(two);

  EXPECT_THAT(changes.Take(one), IsEmpty());
  one.clear_profiles();
  EXPECT_THAT(Lines(changes.Take(one)), ElementsAre("one: deleted"));
}

TEST(ProfileChangesTest, TextOfPagesDoesNothingToTheTerminal) {
  ProfilesChanged state;
  Open(Add(state, "default"), 1, "\x1b[2J\nx").set_title("\u202E");

  EXPECT_THAT(Lines(ProfileChanges().Take(state)),
              ElementsAre("default: is there: Name",
                          "default: browser 1 is open: \"\\x1b[2J\\nx\" \"\\xe2\\x80\\xae\" "
                          "(window)"));
}

TEST(ProfileChangesTest, ProgramsGetTheWholeState) {
  ProfilesChanged state;
  Open(Add(state, "default"), 7, "a");

  const std::vector<Happening> told = ProfileChanges().Take(state);

  ASSERT_EQ(told.size(), 2U);
  EXPECT_EQ(told[0].type, "profile");
  EXPECT_EQ(told[0].fields["change"], "present");
  EXPECT_EQ(told[0].fields["state"]["name"], "Name");
  EXPECT_EQ(told[0].fields["state"]["running"], false);
  EXPECT_FALSE(told[0].fields["state"].contains("browsers"));
  EXPECT_EQ(told[1].type, "browser");
  EXPECT_EQ(told[1].fields["browser"]["id"]["value"], "7");
  EXPECT_EQ(told[1].fields["browser"]["url"], "a");
}

}  // namespace
}  // namespace varnic::tools
