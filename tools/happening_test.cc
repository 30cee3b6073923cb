#include "tools/happening.h"

#include <gtest/gtest.h>

#include "absl/time/civil_time.h"

namespace varnic::tools {
namespace {

absl::Time SomeTime() {
  return absl::FromCivil(absl::CivilSecond(2026, 11, 21, 7, 46, 11), absl::UTCTimeZone()) +
         absl::Milliseconds(123);
}

TEST(HappeningTest, PeopleReadTheirOwnTimeAndAlignedProfiles) {
  const Happening happening = {"network", "Zoë", "online"};
  const Happening of_default = {"network", "", "online"};
  const absl::TimeZone zone = absl::FixedTimeZone(3600);

  EXPECT_EQ(LineForPeople(happening, SomeTime(), zone, 9),
            "2026-11-21 08:46:11  Zoë        online\n");
  EXPECT_EQ(LineForPeople(of_default, SomeTime(), zone, 9),
            "2026-11-21 08:46:11  (default)  online\n");
}

TEST(HappeningTest, LineAboutTheConnectionSaysWhoSpeaks) {
  EXPECT_EQ(LineForPeople({"up", std::nullopt, "connected"}, SomeTime(), absl::UTCTimeZone(), 9),
            "2026-11-21 07:46:11  varnicctl: connected\n");
}

TEST(HappeningTest, CharactersAreCountedAndNotTheirBytes) {
  EXPECT_EQ(CharacterCount("Zoë…"), 4U);
  EXPECT_EQ(Pad("Zoë", 5), "Zoë  ");
}

TEST(HappeningTest, ProgramsReadOneObjectInOneLine) {
  const Happening happening = {"network", "P", "online", {{"online", true}}};

  EXPECT_EQ(LineForPrograms(happening, SomeTime()),
            "{\"time\":\"2026-11-21T07:46:11.123Z\",\"type\":\"network\",\"profile\":\"P\","
            "\"online\":true}\n");
}

TEST(HappeningTest, ObjectsAreHarmlessOnATerminal) {
  const Happening happening = {"file", "\x1b[2J", "", {{"path", "/\xc2\x9b\x7f\n\u202E\xff"}}};

  const std::string line = LineForPrograms(happening, SomeTime());

  for (const char c : line.substr(0, line.size() - 1)) EXPECT_TRUE(c >= ' ' && c < 0x7f) << line;
  EXPECT_EQ(nlohmann::json::parse(line, nullptr, false)["profile"], "\x1b[2J");
}

TEST(HappeningTest, ProfileThatIsNoPlainWordIsQuoted) {
  EXPECT_EQ(ProfileLabel(""), "(default)");
  EXPECT_EQ(ProfileLabel("Profile 1"), "\"Profile 1\"");
  EXPECT_EQ(ProfileLabel("a\x1b"), "\"a\\x1b\"");
}

TEST(HappeningTest, PaddingCountsCharacters) {
  EXPECT_EQ(Pad("ëë", 4), "ëë  ");
  EXPECT_EQ(Pad("long", 2), "long");
}

}  // namespace
}  // namespace varnic::tools
