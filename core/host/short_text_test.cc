#include "core/host/short_text.h"

#include <gtest/gtest.h>

#include <string>

namespace varnic::host {
namespace {

TEST(ShortTextTest, BeginningEndsBetweenCharacters) {
  EXPECT_EQ(BeginningOf("ab\xc3\xa4", 4), "ab\xc3\xa4");
  EXPECT_EQ(BeginningOf("ab\xc3\xa4", 3), "ab");
  EXPECT_EQ(BeginningOf("\xe2\x82\xac", 2), "");
  EXPECT_EQ(BeginningOf("abc", 2), "ab");
}

TEST(ShortTextTest, QuoteOfALongTextSaysThatItGoesOn) {
  EXPECT_EQ(ShortQuote(std::string(99, 'x') + "\xc3\xa4"), "\"" + std::string(99, 'x') + "…\"");
  EXPECT_EQ(ShortQuote(std::string(100, 'x')), "\"" + std::string(100, 'x') + "\"");
}

TEST(ShortTextTest, QuoteKeepsToItsLine) {
  EXPECT_EQ(ShortQuote(std::string("a\n\"\0z", 5)), "\"a\\n\\\"\\x00z\"");
}

TEST(ShortTextTest, MissingProfileIsNamed) {
  EXPECT_EQ(NoSuchProfile("../x"), absl::NotFoundError("there is no profile \"../x\""));
}

}  // namespace
}  // namespace varnic::host
