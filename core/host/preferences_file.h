#ifndef CORE_HOST_PREFERENCES_FILE_H_
#define CORE_HOST_PREFERENCES_FILE_H_

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"

namespace varnic::host {

// One of the JSON files in which a browser keeps its settings ("Local State", "Preferences"): an
// object of objects, whose settings are named by the keys on the way to them. What is not set here
// keeps its value and its place.
//
// A value; not tied to the file between Load() and Save(). Blocks; any thread, one at a time. For
// the sources of this folder only: it brings in the JSON library.
class PreferencesFile {
 public:
  using Keys = std::initializer_list<absl::string_view>;

  // A file that is not there counts as one with no settings. DATA_LOSS, naming the file: it is not
  // a JSON object, or one nested or crowded beyond all sense.
  static absl::StatusOr<PreferencesFile> Load(const std::string& path);

  // The text at `keys`; none if there is nothing. DATA_LOSS: something else than a text is there,
  // or than an object on the way.
  absl::StatusOr<std::optional<std::string>> GetString(Keys keys) const;
  // Whether there is an object at `keys`. DATA_LOSS as above.
  absl::StatusOr<bool> HasObject(Keys keys) const;

  // Sets the text at `keys`, of which there must be one at least. DATA_LOSS as above, and nothing
  // is changed. `value` is UTF-8.
  absl::Status SetString(Keys keys, absl::string_view value);
  // Writes the file as a whole; see ReplaceFile().
  absl::Status Save() const;

 private:
  using Json = nlohmann::ordered_json;

  PreferencesFile(std::string path, Json root);

  // What is at `keys`; null if nothing is.
  absl::StatusOr<const Json*> Find(Keys keys) const;
  absl::Status WrongTypeAt(Keys keys, size_t depth, absl::string_view expected) const;

  std::string path_;
  Json root_;  // An object.
};

}  // namespace varnic::host

#endif  // CORE_HOST_PREFERENCES_FILE_H_
