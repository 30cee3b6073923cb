#include "core/host/browser/devtools_message.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

#include "absl/strings/escaping.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "core/host/browser/json_field.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

// Deeper than a browser nests; copying what is deeper still would need a deep stack.
constexpr int kMaxDepth = 500;
constexpr size_t kMaxQuotedBytes = 300;

std::string Quoted(const std::string& text) {
  const bool is_cut = text.size() > kMaxQuotedBytes;
  return absl::StrCat(absl::Utf8SafeCHexEscape(text.substr(0, kMaxQuotedBytes)), is_cut ? "…" : "");
}

std::optional<int64_t> NumberAt(const Json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_number_integer()) return std::nullopt;
  return it->get<int64_t>();
}

absl::StatusCode CodeOf(int64_t error_code) {
  switch (error_code) {
    case -32001:
      return absl::StatusCode::kNotFound;
    case -32601:
      return absl::StatusCode::kUnimplemented;
    case -32600:
    case -32602:
      return absl::StatusCode::kInvalidArgument;
    case -32603:
      return absl::StatusCode::kInternal;
    default:
      return absl::StatusCode::kUnknown;
  }
}

absl::Status StatusFrom(const Json& error) {
  if (!error.is_object()) return absl::InternalError("the browser tells an error without a text");
  const int64_t code = NumberAt(error, "code").value_or(0);
  const std::string data = TextAt(error, "data");
  return absl::Status(CodeOf(code),
                      absl::StrCat(Quoted(TextAt(error, "message")), data.empty() ? "" : ": ",
                                   Quoted(data), " (code ", code, ")"));
}

absl::StatusOr<Json> ResultOf(Json& message) {
  if (const auto error = message.find("error"); error != message.end()) return StatusFrom(*error);
  const auto result = message.find("result");
  if (result != message.end() && result->is_object()) return std::move(*result);
  return absl::InternalError("the browser's answer has neither a result nor an error");
}

absl::StatusOr<DevToolsEvent> EventFrom(Json& message) {
  DevToolsEvent event{TextAt(message, "method"), TextAt(message, "sessionId"), Json::object()};
  const auto params = message.find("params");
  if (params == message.end()) return event;
  if (!params->is_object()) return absl::InvalidArgumentError("an event's params are no object");
  event.params = std::move(*params);
  return event;
}

// Whether `text` opens more than kMaxDepth lists and objects in each other; of what is not JSON, it
// may say anything. Before parsing, which takes long for a text that only opens them.
bool IsTooDeep(std::string_view text) {
  int depth = 0;
  bool in_string = false;
  for (size_t i = 0; i < text.size() && depth <= kMaxDepth; ++i) {
    const char c = text[i];
    if (c == '"') {
      in_string = !in_string;
    } else if (in_string) {
      if (c == '\\') ++i;
    } else if (c == '[' || c == '{') {
      ++depth;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return depth > kMaxDepth;
}

absl::StatusOr<Json> ParseObject(std::string_view text) {
  if (IsTooDeep(text)) return absl::InvalidArgumentError("a message is nested too deeply");
  Json json = Json::parse(text.begin(), text.end(), /*cb=*/nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return absl::InvalidArgumentError("a message is not valid JSON");
  if (!json.is_object()) return absl::InvalidArgumentError("a message is not a JSON object");
  return json;
}

// The code unit of an escape such as \ud83d that stands at `position`; 0 if there is none.
unsigned EscapedUnitAt(std::string_view text, size_t position) {
  const std::string_view escape = text.substr(std::min(position, text.size()), 6);
  unsigned unit = 0;
  if (escape.size() < 6 || escape[0] != '\\' || escape[1] != 'u') return 0;
  return absl::SimpleHexAtoi(absl::string_view(escape.data() + 2, 4), &unit) ? unit : 0;
}

bool IsHighSurrogate(unsigned unit) {
  return unit >= 0xD800 && unit < 0xDC00;
}
bool IsLowSurrogate(unsigned unit) {
  return unit >= 0xDC00 && unit < 0xE000;
}

// A copy of `text` in which halves of pairs are replaced; empty if there are none.
std::string WithoutLoneSurrogates(std::string_view text) {
  std::string mended;
  size_t position = text.find('\\');
  while (position < text.size()) {
    const unsigned unit = EscapedUnitAt(text, position);
    size_t size = unit == 0 ? 2 : 6;  // Of any other escape, enough not to see its second byte.
    if (IsHighSurrogate(unit) && IsLowSurrogate(EscapedUnitAt(text, position + 6))) {
      size = 12;
    } else if (IsHighSurrogate(unit) || IsLowSurrogate(unit)) {
      if (mended.empty()) mended = text;
      mended.replace(position, 6, "\\ufffd");
    }
    position = text.find('\\', position + size);
  }
  return mended;
}

absl::StatusOr<Json> ParseLenient(std::string_view text) {
  absl::StatusOr<Json> message = ParseObject(text);
  if (message.ok()) return message;
  const std::string mended = WithoutLoneSurrogates(text);
  return mended.empty() ? message : ParseObject(mended);
}

}  // namespace

absl::StatusOr<DevToolsMessage> ParseDevToolsMessage(std::string_view text) {
  absl::StatusOr<Json> message = ParseLenient(text);
  if (!message.ok()) return message.status();
  const int64_t id = NumberAt(*message, "id").value_or(0);
  if (id > 0 && id <= std::numeric_limits<int32_t>::max()) {
    return DevToolsAnswer{static_cast<int>(id), ResultOf(*message)};
  }
  if (!TextAt(*message, "method").empty()) {
    absl::StatusOr<DevToolsEvent> event = EventFrom(*message);
    if (!event.ok()) return event.status();
    return DevToolsMessage(*std::move(event));
  }
  if (const auto error = message->find("error"); error != message->end()) {
    return DevToolsComplaint{StatusFrom(*error)};
  }
  return absl::InvalidArgumentError("a message is neither an answer nor an event");
}

std::string SerializeDevToolsCommand(int id, const std::string& method, const Json& params,
                                     const std::string& session_id) {
  Json message = {{"id", id}, {"method", method}, {"params", params}};
  if (!session_id.empty()) message["sessionId"] = session_id;
  std::string text =
      message.dump(/*indent=*/-1, ' ', /*ensure_ascii=*/false, Json::error_handler_t::replace);
  text.push_back('\0');
  return text;
}

}  // namespace varnic::host
