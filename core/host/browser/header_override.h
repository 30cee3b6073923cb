#ifndef CORE_HOST_BROWSER_HEADER_OVERRIDE_H_
#define CORE_HOST_BROWSER_HEADER_OVERRIDE_H_

#include <map>
#include <string>
#include <utility>

#include "nlohmann/json.hpp"

namespace varnic::host {

// What the headers of requests are to be, where they differ from it. A request that has no such
// header does not get one. One thread only.
class HeaderOverride {
 public:
  HeaderOverride() = default;
  // By their names in lower case.
  explicit HeaderOverride(std::map<std::string, std::string> headers)
      : headers_(std::move(headers)) {}

  // For a Fetch.requestPaused event: all headers of the request, as Fetch.continueRequest wants
  // them, if one has to be replaced; otherwise null. Without the referrer: the browser adds it all
  // the same, but one that it is told it would send to all whom the request is redirected to.
  nlohmann::json HeadersFor(const nlohmann::json& event) const;

 private:
  // Null if the header may stay as it is.
  const std::string* ValueFor(const std::string& name, const nlohmann::json& value) const;

  std::map<std::string, std::string> headers_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_HEADER_OVERRIDE_H_
