#include "core/host/browser/header_override.h"

#include <map>
#include <string>

#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using Headers = std::map<std::string, std::string>;

Json Event(const Json& headers) {
  return {{"request", {{"headers", headers}}}};
}

TEST(HeaderOverrideTest, RequestThatAgreesStaysAsItIs) {
  const HeaderOverride headers(Headers{{"sec-ch-ua", "A"}});

  EXPECT_TRUE(headers.HeadersFor(Event({{"sec-ch-ua", "A"}, {"Accept", "*/*"}})).is_null());
  EXPECT_TRUE(headers.HeadersFor(Event({{"Accept", "*/*"}})).is_null());
}

TEST(HeaderOverrideTest, OneOtherValueHasAllHeadersTold) {
  const HeaderOverride headers(Headers{{"sec-ch-ua", "A"}, {"sec-ch-ua-mobile", "?1"}});

  const Json told = headers.HeadersFor(Event({{"Accept", "*/*"}, {"Sec-CH-UA", "B"}}));

  EXPECT_EQ(told, Json::parse(R"([{"name":"Accept","value":"*/*"},
                                  {"name":"Sec-CH-UA","value":"A"}])"));
}

TEST(HeaderOverrideTest, ReferrerIsLeftToTheBrowser) {
  const HeaderOverride headers(Headers{{"sec-ch-ua", "A"}});

  const Json told = headers.HeadersFor(Event({{"Referer", "http://a/x"}, {"sec-ch-ua", "B"}}));

  EXPECT_EQ(told, Json::parse(R"([{"name":"sec-ch-ua","value":"A"}])"));
}

TEST(HeaderOverrideTest, WithoutOverridesNothingIsReplaced) {
  EXPECT_TRUE(HeaderOverride().HeadersFor(Event({{"sec-ch-ua", "B"}})).is_null());
}

TEST(HeaderOverrideTest, EventOfAnotherFormStaysAsItIs) {
  const HeaderOverride headers(Headers{{"a", "A"}});

  EXPECT_TRUE(headers.HeadersFor(Json::object()).is_null());
  EXPECT_TRUE(headers.HeadersFor({{"request", 7}}).is_null());
  EXPECT_TRUE(headers.HeadersFor(Event("a")).is_null());
}

}  // namespace
}  // namespace varnic::host
