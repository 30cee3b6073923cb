#include "core/host/preferences_file.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "core/host/atomic_file.h"

namespace varnic::host {
namespace {

// As deep as Chromium itself reads.
constexpr size_t kMaxDepth = 200;
// The ordered object compares each new key with all before it. This is about a second's work, done
// for 30 000 keys in one object.
constexpr uint64_t kMaxKeyComparisons = 500'000'000;

// Reads a document without keeping it, to learn whether it can be kept: taking apart a deep
// document recurses, and a crowded object takes a time that grows with the square of its keys.
class DocumentCheck {
 public:
  using Json = nlohmann::ordered_json;

  // What is wrong; empty after a document that was read to its end.
  const std::string& problem() const { return problem_; }

  bool null() { return true; }
  bool boolean(bool) { return true; }
  bool number_integer(Json::number_integer_t) { return true; }
  bool number_unsigned(Json::number_unsigned_t) { return true; }
  bool number_float(Json::number_float_t, const Json::string_t&) { return true; }
  bool string(Json::string_t&) { return true; }
  bool binary(Json::binary_t&) { return true; }
  bool key(Json::string_t&) {
    comparisons_ += keys_.back()++;
    return comparisons_ <= kMaxKeyComparisons || Refuse("has too many keys in one object");
  }
  bool start_object(size_t) { return Enter(); }
  bool end_object() { return Leave(); }
  bool start_array(size_t) { return Enter(); }
  bool end_array() { return Leave(); }
  bool parse_error(size_t position, const std::string&, const nlohmann::detail::exception&) {
    return Refuse(absl::StrCat("is not valid JSON (at byte ", position, ")"));
  }

 private:
  bool Enter() {
    keys_.push_back(0);
    return keys_.size() <= kMaxDepth || Refuse("is nested too deeply");
  }
  bool Leave() {
    keys_.pop_back();
    return true;
  }
  bool Refuse(std::string problem) {
    problem_ = std::move(problem);
    return false;
  }

  std::vector<uint64_t> keys_;  // So far, in each object that is open; unused for an array.
  uint64_t comparisons_ = 0;
  std::string problem_;
};

absl::Status Damaged(const std::string& path, absl::string_view problem) {
  return absl::DataLossError(absl::StrCat("\"", path, "\" ", problem));
}

}  // namespace

PreferencesFile::PreferencesFile(std::string path, Json root)
    : path_(std::move(path)), root_(std::move(root)) {}

absl::StatusOr<PreferencesFile> PreferencesFile::Load(const std::string& path) {
  const absl::StatusOr<std::string> text = ReadFile(path);
  if (absl::IsNotFound(text.status())) return PreferencesFile(path, Json::object());
  if (!text.ok()) return text.status();
  DocumentCheck check;
  if (!Json::sax_parse(*text, &check)) return Damaged(path, check.problem());
  Json root = Json::parse(*text, /*cb=*/nullptr, /*allow_exceptions=*/false);
  if (!root.is_object()) return Damaged(path, "is not a JSON object");
  return PreferencesFile(path, std::move(root));
}

absl::StatusOr<std::optional<std::string>> PreferencesFile::GetString(Keys keys) const {
  const absl::StatusOr<const Json*> value = Find(keys);
  if (!value.ok()) return value.status();
  if (*value == nullptr) return std::nullopt;
  if (!(*value)->is_string()) return WrongTypeAt(keys, keys.size(), "a text");
  return (*value)->get_ref<const std::string&>();
}

absl::StatusOr<bool> PreferencesFile::HasObject(Keys keys) const {
  const absl::StatusOr<const Json*> value = Find(keys);
  if (!value.ok()) return value.status();
  if (*value == nullptr) return false;
  if (!(*value)->is_object()) return WrongTypeAt(keys, keys.size(), "an object");
  return true;
}

absl::Status PreferencesFile::SetString(Keys keys, absl::string_view value) {
  const absl::Status status = GetString(keys).status();
  if (!status.ok()) return status;
  Json* place = &root_;
  for (absl::string_view key : keys) place = &(*place)[std::string(key)];
  *place = std::string(value);
  return absl::OkStatus();
}

// What was read is valid UTF-8; the handler for what is not keeps the writer from ending the
// process over the rest.
absl::Status PreferencesFile::Save() const {
  return ReplaceFile(path_, root_.dump(/*indent=*/-1, /*indent_char=*/' ', /*ensure_ascii=*/false,
                                       Json::error_handler_t::replace));
}

absl::StatusOr<const PreferencesFile::Json*> PreferencesFile::Find(Keys keys) const {
  const Json* value = &root_;
  size_t depth = 0;
  for (absl::string_view key : keys) {
    if (!value->is_object()) return WrongTypeAt(keys, depth, "an object");
    const auto member = value->find(std::string(key));
    if (member == value->end()) return nullptr;
    value = &*member;
    ++depth;
  }
  return value;
}

absl::Status PreferencesFile::WrongTypeAt(Keys keys, size_t depth,
                                          absl::string_view expected) const {
  return Damaged(path_, absl::StrCat("has something else than ", expected, " at \"",
                                     absl::StrJoin(keys.begin(), keys.begin() + depth, "."), "\""));
}

}  // namespace varnic::host
