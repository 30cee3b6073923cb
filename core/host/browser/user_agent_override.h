#ifndef CORE_HOST_BROWSER_USER_AGENT_OVERRIDE_H_
#define CORE_HOST_BROWSER_USER_AGENT_OVERRIDE_H_

#include <map>
#include <string>

#include "core/host/user_agent.h"
#include "nlohmann/json.hpp"

// A user agent as Chromium has to be told of it. Any thread.

namespace varnic::host {

// The parameters of Emulation.setUserAgentOverride. All that a page can ask for is in it, empty if
// the user agent does not say it: what is missing, a browser fills in from itself.
nlohmann::json UserAgentOverride(const UserAgent& user_agent);

// The headers of the client hints, by their names in lower case. The browser makes the first
// request of a window that a page opens without an opener before it can be told of an override.
std::map<std::string, std::string> ClientHintHeaders(const UserAgent& user_agent);

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_USER_AGENT_OVERRIDE_H_
