#include "core/host/accept_language.h"

#include <string>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::HasSubstr;

std::string Normalized(absl::string_view list) {
  const absl::StatusOr<std::string> result = NormalizeAcceptLanguage(list);
  return result.ok() ? *result : result.status().ToString();
}

// The text with which `list` is refused; empty if it is not.
std::string Refusal(absl::string_view list) {
  const absl::Status status = NormalizeAcceptLanguage(list).status();
  EXPECT_TRUE(absl::IsInvalidArgument(status)) << list << ": " << status;
  return std::string(status.message());
}

TEST(AcceptLanguageTest, KeepsOrderAndSpellingOfTags) {
  EXPECT_EQ(Normalized("fr-FR,fr,en"), "fr-FR,fr,en");
  EXPECT_EQ(Normalized("zh-hant-tw,DE-de,sr-Latn"), "zh-hant-tw,DE-de,sr-Latn");
  EXPECT_EQ(Normalized("de-DE-u-co-phonebk"), "de-DE-u-co-phonebk");
  EXPECT_EQ(Normalized("i-klingon,x-own,iw,de-1996"), "i-klingon,x-own,iw,de-1996");
}

TEST(AcceptLanguageTest, DropsBlanksAroundCommas) {
  EXPECT_EQ(Normalized("  fr-FR , fr,\ten "), "fr-FR,fr,en");
}

TEST(AcceptLanguageTest, DropsLanguagesThatComeAgain) {
  EXPECT_EQ(Normalized("de,fr,DE,de,fr-FR"), "de,fr,fr-FR");
}

TEST(AcceptLanguageTest, AcceptsATagLongerThanIcusOwnBuffer) {
  std::string tag = "x";
  while (tag.size() < 400) tag += "-abcdefgh";

  EXPECT_EQ(Normalized(tag), tag);
}

TEST(AcceptLanguageTest, RefusesQualityValuesWithAHint) {
  EXPECT_EQ(Refusal("fr, de;q=0.9"),
            "\"de;q=0.9\": quality values are not allowed; the order of the list says which "
            "language is wanted most");
}

TEST(AcceptLanguageTest, RefusesWildcardAndMissingTags) {
  EXPECT_THAT(Refusal("fr,*"), HasSubstr("\"*\": a wildcard is not allowed"));
  EXPECT_THAT(Refusal("fr,,de"), HasSubstr("missing"));
  EXPECT_THAT(Refusal("fr,"), HasSubstr("missing"));
  EXPECT_THAT(Refusal(",fr"), HasSubstr("missing"));
  EXPECT_THAT(Refusal(""), HasSubstr("empty"));
  EXPECT_THAT(Refusal("  "), HasSubstr("empty"));
}

TEST(AcceptLanguageTest, RefusesWhatIsNotWhollyATag) {
  for (const char* tag : {"en_US", "en-US-", "en--US", "en-US-US", "日本", "e", "en US",
                          "abcdefghi", "de-1996-1996", "\"fr\"", "fr\r", "x-"}) {
    EXPECT_THAT(Refusal(absl::StrCat("fr,", tag)), HasSubstr("not a well-formed language tag"))
        << tag;
  }
  EXPECT_THAT(Refusal("日本"), HasSubstr("\"日本\""));
  EXPECT_THAT(Refusal("fr\nX: y"), HasSubstr("\"fr\\nX: y\""));
  EXPECT_THAT(Refusal(absl::string_view("en\0-US", 6)), HasSubstr("\"en\\x00-US\""));
}

TEST(AcceptLanguageTest, RefusesAListOverTheLimit) {
  std::string list(kMaxAcceptLanguageBytes + 1, ' ');
  list[0] = 'f';
  list[1] = 'r';

  EXPECT_THAT(Refusal(list), HasSubstr("1025 bytes; the limit is 1024"));
  list.pop_back();
  EXPECT_EQ(Normalized(list), "fr");
}

}  // namespace
}  // namespace varnic::host
