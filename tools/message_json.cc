#include "tools/message_json.h"

#include <google/protobuf/util/json_util.h>

namespace varnic::tools {

std::string MessageToJson(const google::protobuf::Message& message) {
  google::protobuf::util::JsonPrintOptions options;
  options.always_print_primitive_fields = true;
  std::string text;
  // Fails only for messages that hold others of unknown types; none here does.
  const auto status = google::protobuf::util::MessageToJsonString(message, &text, options);
  return status.ok() ? text : "null";
}

nlohmann::ordered_json MessageToJsonValue(const google::protobuf::Message& message) {
  return nlohmann::ordered_json::parse(MessageToJson(message), nullptr, /*allow_exceptions=*/false);
}

std::string JsonLine(const nlohmann::ordered_json& json) {
  return json.dump(-1, ' ', /*ensure_ascii=*/true,
                   nlohmann::ordered_json::error_handler_t::replace) +
         "\n";
}

}  // namespace varnic::tools
