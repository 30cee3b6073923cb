#ifndef CORE_HOST_BROWSER_JSON_FIELD_H_
#define CORE_HOST_BROWSER_JSON_FIELD_H_

#include <string>

#include "core/host/browser/event_field.h"
#include "nlohmann/json.hpp"

namespace varnic::host {

// The text at `key` of `object`; empty if there is none, or something else.
inline std::string TextAt(const nlohmann::json& object, const char* key) {
  return EventText(object, {key});
}

// What stands at `key`, or null.
inline const nlohmann::json* FieldAt(const nlohmann::json& object, const char* key) {
  const auto it = object.find(key);
  return it != object.end() ? &*it : nullptr;
}

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_JSON_FIELD_H_
