#ifndef CORE_HOST_USER_AGENT_H_
#define CORE_HOST_USER_AGENT_H_

#include <string>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "core/host/browser_version.h"
#include "rpc/profile/profile.pb.h"

namespace varnic::host {

// What a browser tells pages and servers about itself: the user-agent string, and the client hints
// that go with it.
struct UserAgent {
  std::string text;
  rpc::UserAgentMetadata metadata;
};

// What `browser` sends on this machine when it is run with a window: the reduced string, which
// names the major version alone, and the hints that a page gets.
UserAgent UserAgentOf(const BrowserVersion& browser);

// A user agent with a given string, and with hints that agree with it as far as it tells: the
// version after "Chrome/", the platform, mobile or not. A string that names no version of Chrome
// gets no brands and no versions. INVALID_ARGUMENT: the string is empty, too long or has characters
// that a header cannot carry.
absl::StatusOr<UserAgent> UserAgentFromText(absl::string_view text);

}  // namespace varnic::host

#endif  // CORE_HOST_USER_AGENT_H_
