#include "core/host/user_agent_source.h"

#include <utility>

#include "absl/strings/str_cat.h"
#include "core/host/browser_version.h"

namespace varnic::host {

UserAgentSource::UserAgentSource(std::optional<UserAgent> given, std::string browser)
    : user_agent_(std::move(given)), browser_(std::move(browser)) {}

absl::StatusOr<UserAgent> UserAgentSource::Get() {
  if (user_agent_.has_value()) return *user_agent_;
  const absl::StatusOr<BrowserVersion> version = LookUpBrowserVersion(browser_);
  if (!version.ok()) {
    return absl::Status(
        version.status().code(),
        absl::StrCat("the user agent is not known: ", version.status().message(),
                     "; install Chromium (Debian's package \"chromium\"), or name the browser "
                     "with --browser, or the user agent with --user-agent"));
  }
  user_agent_ = UserAgentOf(*version);
  return *user_agent_;
}

}  // namespace varnic::host
