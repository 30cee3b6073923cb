#include "core/host/browser/cut_message.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/match.h"
#include "core/host/browser/json_field.h"
#include "nlohmann/json.hpp"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

constexpr size_t kMaxDepth = 20;

// Collects what stands whole in a text that may end anywhere.
class Collector : public nlohmann::json_sax<Json> {
 public:
  bool null() override { return Add(nullptr); }
  bool boolean(bool value) override { return Add(value); }
  bool number_integer(number_integer_t value) override { return Add(value); }
  bool number_unsigned(number_unsigned_t value) override { return Add(value); }
  bool number_float(number_float_t value, const string_t& /*text*/) override { return Add(value); }
  bool string(string_t& value) override { return Add(std::move(value)); }
  bool binary(binary_t& /*value*/) override { return false; }
  bool start_object(size_t /*size*/) override { return Open(Json::object()); }
  bool key(string_t& key) override {
    open_.back().key = std::move(key);
    return true;
  }
  bool end_object() override { return Close(); }
  bool start_array(size_t /*size*/) override { return Open(Json::array()); }
  bool end_array() override { return Close(); }
  bool parse_error(size_t /*position*/, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) override {
    return false;
  }

  // The message, its params and the objects in them also if the text ends in these.
  Json Take() {
    const size_t kept = open_.empty() || open_[0].key != "params" ? 1 : 3;
    while (open_.size() > kept) open_.pop_back();
    while (!open_.empty()) Close();
    return std::move(message_);
  }

 private:
  struct Container {
    Json value;
    std::string key;  // Of what comes next in an object.
  };

  bool Open(Json value) {
    open_.push_back({std::move(value), ""});
    return open_.size() <= kMaxDepth;
  }
  bool Close() {
    Json value = std::move(open_.back().value);
    open_.pop_back();
    return Add(std::move(value));
  }
  bool Add(Json value) {
    if (open_.empty()) {
      message_ = std::move(value);
    } else if (open_.back().value.is_array()) {
      open_.back().value.push_back(std::move(value));
    } else {
      open_.back().value[open_.back().key] = std::move(value);
    }
    return true;
  }

  std::vector<Container> open_;  // The outermost first.
  Json message_ = Json::object();
};

// Of an event, whose last field it is; no text of a page can look like it, for there, quotes are
// escaped. Empty if there is none.
std::string SessionAtEnd(std::string_view ending) {
  constexpr std::string_view kBegin = "},\"sessionId\":\"";
  constexpr std::string_view kEnd = "\"}";
  const size_t begin = ending.rfind(kBegin);
  if (begin == std::string_view::npos) return "";
  const std::string_view session = ending.substr(begin + kBegin.size());
  const size_t size = session.find('"');
  return session.substr(std::min(size, session.size())) == kEnd ? std::string(session, 0, size)
                                                                : "";
}

bool IsAnswer(const Json* id) {
  return id != nullptr && id->is_number_unsigned() && id->get<uint64_t>() > 0 &&
         id->get<uint64_t>() <= uint64_t{std::numeric_limits<int32_t>::max()};
}

}  // namespace

absl::StatusOr<DevToolsMessage> ReadCutMessage(const NulMessage& message) {
  Collector collector;
  Json::sax_parse(message.text.begin(), message.text.end(), &collector);
  Json fields = collector.Take();
  const absl::Status nothing = absl::InvalidArgumentError("a message is too long");
  if (!fields.is_object()) return nothing;
  if (const Json* const id = FieldAt(fields, "id"); IsAnswer(id)) {
    return DevToolsAnswer{id->get<int>(),
                          absl::ResourceExhaustedError("the browser's answer is too long")};
  }
  const std::string method = TextAt(fields, "method");
  const bool is_known = absl::StartsWith(method, "Fetch.") || absl::StartsWith(method, "Page.");
  const Json* const params = FieldAt(fields, "params");
  if (!is_known || params == nullptr || !params->is_object()) return nothing;
  return DevToolsEvent{method, SessionAtEnd(message.ending), *params};
}

}  // namespace varnic::host
