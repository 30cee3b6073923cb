#include "core/host/browser/event_field.h"

namespace varnic::host {

const std::string& EventText(const nlohmann::json& event, std::initializer_list<const char*> path) {
  static const std::string* const kNone = new std::string;
  const nlohmann::json* value = &event;
  for (const char* const key : path) {
    const auto it = value->find(key);
    if (it == value->end()) return *kNone;
    value = &*it;
  }
  const std::string* const text = value->get_ptr<const std::string*>();
  return text == nullptr ? *kNone : *text;
}

}  // namespace varnic::host
