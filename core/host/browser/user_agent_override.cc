#include "core/host/browser/user_agent_override.h"

#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "absl/strings/str_replace.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

template <class List>
Json BrandList(const List& brands) {
  Json list = Json::array();
  for (const auto& brand : brands) {
    list.push_back({{"brand", brand.brand()}, {"version", brand.version()}});
  }
  return list;
}

// Structured Field Values (RFC 8941).
std::string Quoted(const std::string& text) {
  return absl::StrCat("\"", absl::StrReplaceAll(text, {{"\\", "\\\\"}, {"\"", "\\\""}}), "\"");
}

std::string Flag(bool value) {
  return value ? "?1" : "?0";
}

template <class List>
std::string BrandHeader(const List& brands) {
  std::vector<std::string> items;
  for (const auto& brand : brands) {
    items.push_back(absl::StrCat(Quoted(brand.brand()), ";v=", Quoted(brand.version())));
  }
  return absl::StrJoin(items, ", ");
}

}  // namespace

Json UserAgentOverride(const UserAgent& user_agent) {
  const rpc::UserAgentMetadata& hints = user_agent.metadata;
  Json form_factors = Json::array();
  for (const std::string& form_factor : hints.form_factors()) form_factors.push_back(form_factor);
  Json metadata = {{"brands", BrandList(hints.brands())},
                   {"fullVersionList", BrandList(hints.full_version_list())},
                   {"fullVersion", hints.full_version()},
                   {"platform", hints.platform()},
                   {"platformVersion", hints.platform_version()},
                   {"architecture", hints.architecture()},
                   {"model", hints.model()},
                   {"mobile", hints.mobile()},
                   {"bitness", hints.bitness()},
                   {"wow64", hints.wow64()},
                   {"formFactors", std::move(form_factors)}};
  return {{"userAgent", user_agent.text}, {"userAgentMetadata", std::move(metadata)}};
}

std::map<std::string, std::string> ClientHintHeaders(const UserAgent& user_agent) {
  const rpc::UserAgentMetadata& hints = user_agent.metadata;
  std::vector<std::string> form_factors;
  for (const std::string& form_factor : hints.form_factors()) {
    form_factors.push_back(Quoted(form_factor));
  }
  return {{"sec-ch-ua", BrandHeader(hints.brands())},
          {"sec-ch-ua-mobile", Flag(hints.mobile())},
          {"sec-ch-ua-platform", Quoted(hints.platform())},
          {"sec-ch-ua-platform-version", Quoted(hints.platform_version())},
          {"sec-ch-ua-arch", Quoted(hints.architecture())},
          {"sec-ch-ua-bitness", Quoted(hints.bitness())},
          {"sec-ch-ua-model", Quoted(hints.model())},
          {"sec-ch-ua-full-version", Quoted(hints.full_version())},
          {"sec-ch-ua-full-version-list", BrandHeader(hints.full_version_list())},
          {"sec-ch-ua-wow64", Flag(hints.wow64())},
          {"sec-ch-ua-form-factors", absl::StrJoin(form_factors, ", ")}};
}

}  // namespace varnic::host
