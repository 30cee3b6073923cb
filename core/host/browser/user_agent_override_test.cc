#include "core/host/browser/user_agent_override.h"

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::Contains;
using ::testing::Pair;

TEST(UserAgentOverrideTest, NamesWhatTheUserAgentSaysAndLeavesNothingToTheBrowser) {
  UserAgent user_agent;
  user_agent.text = "Agent/1";
  user_agent.metadata.set_platform("Plan 9");
  auto* const brand = user_agent.metadata.add_brands();
  brand->set_brand("Agent");
  brand->set_version("1");
  user_agent.metadata.add_form_factors("Desktop");

  const nlohmann::json params = UserAgentOverride(user_agent);

  EXPECT_EQ(params, nlohmann::json::parse(R"({
    "userAgent": "Agent/1",
    "userAgentMetadata": {
      "brands": [{"brand": "Agent", "version": "1"}], "fullVersionList": [], "fullVersion": "",
      "platform": "Plan 9", "platformVersion": "", "architecture": "", "model": "",
      "mobile": false, "bitness": "", "wow64": false, "formFactors": ["Desktop"]}})"));
}

TEST(UserAgentOverrideTest, WritesTheHeadersOfClientHints) {
  UserAgent user_agent;
  user_agent.metadata.set_platform("a\"b");
  user_agent.metadata.set_mobile(true);
  for (const char* name : {"One", "Two"}) {
    auto* const brand = user_agent.metadata.add_brands();
    brand->set_brand(name);
    brand->set_version("7");
  }

  const auto headers = ClientHintHeaders(user_agent);

  EXPECT_THAT(headers, Contains(Pair("sec-ch-ua", R"("One";v="7", "Two";v="7")")));
  EXPECT_THAT(headers, Contains(Pair("sec-ch-ua-mobile", "?1")));
  EXPECT_THAT(headers, Contains(Pair("sec-ch-ua-platform", R"("a\"b")")));
}

}  // namespace
}  // namespace varnic::host
