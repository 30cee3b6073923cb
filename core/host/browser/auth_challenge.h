#ifndef CORE_HOST_BROWSER_AUTH_CHALLENGE_H_
#define CORE_HOST_BROWSER_AUTH_CHALLENGE_H_

#include <optional>

#include "nlohmann/json.hpp"
#include "rpc/profile/profile.pb.h"

namespace varnic::host {

// The question of a Fetch.authRequired event, without first_attempt. The challenger's host and port
// are those of its origin, an IPv6 address without brackets; the port is the scheme's own if the
// origin has none, and 0 if that is not known. The URL comes without credentials and fragment.
// Nothing if the event has no challenge or no URL, or more of both than 64 KiB: pages choose them,
// and many such questions may wait. Any thread.
std::optional<rpc::Authenticate::Request> LoginQuestion(const nlohmann::json& event);

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_AUTH_CHALLENGE_H_
