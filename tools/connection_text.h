#ifndef TOOLS_CONNECTION_TEXT_H_
#define TOOLS_CONNECTION_TEXT_H_

#include <string>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "nlohmann/json.hpp"
#include "tools/happening.h"

// What a long-running command tells about its connection.
namespace varnic::tools {

// {"code":14,"status":"UNAVAILABLE","message":"..."}.
nlohmann::ordered_json StatusToJson(const absl::Status& status);

// Type "up"; `was_up`: and not for the first time.
Happening DescribeUp(bool was_up);

// Type "down", with "error" (StatusToJson()) and "retryInSeconds". `was_up`: there was a connection
// before. `hint` is for people, may be empty, and is fit for a terminal.
Happening DescribeDown(const absl::Status& why, absl::Duration retry_in, bool was_up,
                       const std::string& hint);

}  // namespace varnic::tools

#endif  // TOOLS_CONNECTION_TEXT_H_
