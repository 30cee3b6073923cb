#ifndef CORE_HOST_USER_AGENT_SOURCE_H_
#define CORE_HOST_USER_AGENT_SOURCE_H_

#include <optional>
#include <string>

#include "absl/status/statusor.h"
#include "core/host/user_agent.h"

namespace varnic::host {

// What the profiles of a host call themselves: what somebody said, or what the installed browser
// calls itself.
//
// Blocks while it asks the browser's program; any thread, one at a time.
class UserAgentSource {
 public:
  // `given` is the answer if it is there. `browser` is a path, or a name in PATH; empty: the
  // system's Chromium.
  UserAgentSource(std::optional<UserAgent> given, std::string browser);

  // What was found once is kept; a failure is not. FAILED_PRECONDITION or UNAVAILABLE as
  // LookUpBrowserVersion(), with a text that says what to do.
  absl::StatusOr<UserAgent> Get();

 private:
  std::optional<UserAgent> user_agent_;
  const std::string browser_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_USER_AGENT_SOURCE_H_
