#include "core/host/browser/event_field.h"

namespace varnic::host {

const std::string& EventText(const nlohmann::json& event, std::initializer_list<const char*> path) {
  static const std::string* const none = new std::string;
  const nlohmann::json* value = &event;
  for (const char* const key : path) {
    const auto it = value->find(key);
    if (it == value->end()) return *none;
    value = &*it;
  }
  const std::string* const text = value->get_ptr<const std::string*>();
  return text == nullptr ? *none : *text;
}

}  // namespace varnic::host
