#ifndef TOOLS_MESSAGE_JSON_H_
#define TOOLS_MESSAGE_JSON_H_

#include <google/protobuf/message.h>

#include <string>

#include "nlohmann/json.hpp"

namespace varnic::tools {

// The JSON form of a message, as protobuf's language guide defines it, with fields that have their
// default values.
std::string MessageToJson(const google::protobuf::Message& message);
nlohmann::ordered_json MessageToJsonValue(const google::protobuf::Message& message);

// `json` in one line, and its end. In ASCII, so that it does no harm on a terminal either; bytes
// that are no UTF-8, as a host may send them, become U+FFFD.
std::string JsonLine(const nlohmann::ordered_json& json);

}  // namespace varnic::tools

#endif  // TOOLS_MESSAGE_JSON_H_
