#include "core/host/browser/header_override.h"

#include "absl/strings/ascii.h"
#include "absl/strings/match.h"

namespace varnic::host {

using Json = nlohmann::json;

const std::string* HeaderOverride::ValueFor(const std::string& name, const Json& value) const {
  const auto it = headers_.find(absl::AsciiStrToLower(name));
  return it == headers_.end() || value == it->second ? nullptr : &it->second;
}

Json HeaderOverride::HeadersFor(const Json& event) const {
  if (headers_.empty()) return nullptr;
  const auto request = event.find("request");
  if (request == event.end()) return nullptr;
  const auto headers = request->find("headers");
  if (headers == request->end() || !headers->is_object()) return nullptr;
  Json result = Json::array();
  bool is_changed = false;
  for (const auto& [name, value] : headers->items()) {
    if (absl::EqualsIgnoreCase(name, "referer")) continue;
    const std::string* const replaced = ValueFor(name, value);
    is_changed = is_changed || replaced != nullptr;
    result.push_back({{"name", name}, {"value", replaced == nullptr ? value : Json(*replaced)}});
  }
  return is_changed ? result : Json();
}

}  // namespace varnic::host
