#include "core/host/user_agent.h"

#include <string>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// In the form of the header that carries them.
template <typename BrandList>
std::string AsHeader(const BrandList& brands) {
  std::string header;
  for (const auto& brand : brands) {
    absl::StrAppend(&header, header.empty() ? "" : ", ", "\"", brand.brand(), "\";v=\"",
                    brand.version(), "\"");
  }
  return header;
}

std::string BrandsOf(const std::string& product, const std::string& version) {
  return AsHeader(UserAgentOf({product, version}).metadata.brands());
}

UserAgent FromText(const std::string& text) {
  const absl::StatusOr<UserAgent> user_agent = UserAgentFromText(text);
  EXPECT_TRUE(user_agent.ok()) << user_agent.status();
  return user_agent.value_or(UserAgent());
}

TEST(UserAgentTest, StringNamesTheMajorVersionAlone) {
  EXPECT_EQ(UserAgentOf({"Chromium", "156.0.8078.79"}).text,
            "Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) "
            "Chrome/156.0.0.0 Safari/537.36");
}

// As a page in Chromium 156.0.8078.79 on Debian sees it.
TEST(UserAgentTest, MetadataIsWhatAPageOfTheBrowserSees) {
  const rpc::UserAgentMetadata metadata = UserAgentOf({"Chromium", "156.0.8078.79"}).metadata;

  EXPECT_EQ(AsHeader(metadata.brands()), R"("Not:A-Brand";v="8", "Chromium";v="156")");
  EXPECT_EQ(AsHeader(metadata.full_version_list()),
            R"("Not:A-Brand";v="8.0.0.0", "Chromium";v="156.0.8078.79")");
  EXPECT_EQ(metadata.full_version(), "156.0.8078.79");
  EXPECT_EQ(metadata.platform(), "Linux");
  EXPECT_EQ(metadata.platform_version(), "");
  EXPECT_EQ(metadata.bitness(), sizeof(void*) == 8 ? "64" : "32");
  EXPECT_EQ(metadata.model(), "");
  EXPECT_FALSE(metadata.mobile());
  EXPECT_FALSE(metadata.wow64());
  EXPECT_THAT(metadata.form_factors(), ElementsAre("Desktop"));
#if defined(__x86_64__)
  EXPECT_EQ(metadata.architecture(), "x86");
#endif
}

// As the released versions of Chrome with these numbers send them.
TEST(UserAgentTest, BrandsFollowTheMajorVersion) {
  EXPECT_EQ(BrandsOf("Google Chrome", "110.0.1.2"),
            R"("Chromium";v="110", "Not A(Brand";v="24", "Google Chrome";v="110")");
  EXPECT_EQ(BrandsOf("Google Chrome", "111.0.1.2"),
            R"("Google Chrome";v="111", "Not(A:Brand";v="8", "Chromium";v="111")");
  EXPECT_EQ(BrandsOf("Google Chrome", "120.0.1.2"),
            R"("Not_A Brand";v="8", "Chromium";v="120", "Google Chrome";v="120")");
  EXPECT_EQ(BrandsOf("Google Chrome", "124.0.1.2"),
            R"("Chromium";v="124", "Google Chrome";v="124", "Not-A.Brand";v="99")");
  EXPECT_EQ(BrandsOf("Chromium", "157.0.1.2"), R"("Chromium";v="157", "Not-A.Brand";v="99")");
}

TEST(UserAgentTest, TextGivesItsVersionToTheMetadata) {
  const UserAgent user_agent = FromText(UserAgentOf({"Chromium", "156.0.8078.79"}).text);

  EXPECT_EQ(user_agent.metadata.full_version(), "156.0.0.0");
  EXPECT_EQ(AsHeader(user_agent.metadata.brands()), R"("Not:A-Brand";v="8", "Chromium";v="156")");
  EXPECT_EQ(user_agent.metadata.platform(), "Linux");
}

TEST(UserAgentTest, TextWithoutChromeGetsNoBrands) {
  for (const char* text : {"Robot", "Robot Chrome/", "Robot Chrome/x.1", "Chrome/99999999999999"}) {
    const UserAgent user_agent = FromText(text);

    EXPECT_EQ(user_agent.text, text);
    EXPECT_THAT(user_agent.metadata.brands(), IsEmpty()) << text;
    EXPECT_THAT(user_agent.metadata.full_version_list(), IsEmpty()) << text;
    EXPECT_EQ(user_agent.metadata.full_version(), "") << text;
  }
}

TEST(UserAgentTest, TextGivesItsPlatformToTheMetadata) {
  const auto metadata = [](const std::string& text) { return FromText(text).metadata; };

  EXPECT_EQ(metadata("Mozilla/5.0 (Windows NT 10.0; Win64; x64)").platform(), "Windows");
  EXPECT_EQ(metadata("Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7)").platform(), "macOS");
  EXPECT_EQ(metadata("Mozilla/5.0 (X11; CrOS x86_64 14541.0.0)").platform(), "Chrome OS");
  EXPECT_EQ(metadata("Robot").platform(), "Unknown");
}

TEST(UserAgentTest, TextOfATelephoneIsMobile) {
  const rpc::UserAgentMetadata metadata =
      FromText("Mozilla/5.0 (Linux; Android 10; K) Chrome/156.0.0.0 Mobile Safari/537.36").metadata;

  EXPECT_EQ(metadata.platform(), "Android");
  EXPECT_TRUE(metadata.mobile());
  EXPECT_EQ(metadata.architecture(), "");
  EXPECT_THAT(metadata.form_factors(), ElementsAre("Mobile"));
}

TEST(UserAgentTest, RefusesTextThatAHeaderCannotCarry) {
  for (const std::string& text : {std::string(), std::string("a\r\nb: c"), std::string("Käfer"),
                                  std::string("a\0b", 3), std::string(1025, 'x')}) {
    EXPECT_TRUE(absl::IsInvalidArgument(UserAgentFromText(text).status())) << text;
  }
}

}  // namespace
}  // namespace varnic::host
