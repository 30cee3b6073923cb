#ifndef CORE_HOST_BROWSER_EVENT_FIELD_H_
#define CORE_HOST_BROWSER_EVENT_FIELD_H_

#include <initializer_list>
#include <string>

#include "nlohmann/json.hpp"

namespace varnic::host {

// The text at a path of keys in an event; empty if there is none. A reference into the event, or to
// an empty text that stays. Any thread.
const std::string& EventText(const nlohmann::json& event, std::initializer_list<const char*> path);

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_EVENT_FIELD_H_
