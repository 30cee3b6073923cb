#include "tools/connection_text.h"

#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "tools/safe_text.h"

namespace varnic::tools {

nlohmann::ordered_json StatusToJson(const absl::Status& status) {
  return {{"code", static_cast<int>(status.code())},
          {"status", absl::StatusCodeToString(status.code())},
          {"message", std::string(status.message())}};
}

Happening DescribeUp(bool was_up) {
  return {"up", std::nullopt, was_up ? "connected again" : "connected"};
}

Happening DescribeDown(const absl::Status& why, absl::Duration retry_in, bool was_up,
                       const std::string& hint) {
  const double seconds = absl::ToDoubleSeconds(retry_in);
  const std::string retry = seconds < 0.05 ? "now" : absl::StrFormat("in %.1f s", seconds);
  return {"down",
          std::nullopt,
          absl::StrCat(was_up ? "connection lost: " : "no connection: ",
                       EscapeUnprintable(std::string(why.message())), " (",
                       absl::StatusCodeToString(why.code()), "); trying again ", retry,
                       hint.empty() ? "" : "\n", hint),
          {{"error", StatusToJson(why)}, {"retryInSeconds", seconds}}};
}

}  // namespace varnic::tools
