#ifndef CORE_HOST_PROFILE_SETTINGS_H_
#define CORE_HOST_PROFILE_SETTINGS_H_

#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "core/host/preferences_file.h"

namespace varnic::host {

// What a host reads and changes of the settings of one profile, in the "Preferences" of its folder.
//
// A value; see PreferencesFile, of which it has the failures, too. Blocks; any thread, one at a
// time. For the sources of this folder only.
class ProfileSettings {
 public:
  static absl::StatusOr<ProfileSettings> Load(const std::string& profile_folder);

  // What a person called the profile, or else `otherwise`.
  absl::StatusOr<std::string> GetName(absl::string_view otherwise) const;
  absl::Status SetName(absl::string_view name) { return Set({"profile", "name"}, name); }

  // The languages that were chosen, or else those that Chromium asks for then.
  absl::StatusOr<std::string> GetAcceptLanguage() const;
  absl::Status SetAcceptLanguage(absl::string_view list);

  // As a browser leaves it that was closed in order.
  absl::Status SetExitedNormally() { return Set({"profile", "exit_type"}, "Normal"); }

  // Writes the file, unless nothing has changed.
  absl::Status Save();

 private:
  explicit ProfileSettings(PreferencesFile file) : file_(std::move(file)) {}

  absl::Status Set(PreferencesFile::Keys keys, absl::string_view value);

  PreferencesFile file_;
  bool has_changed_ = false;
};

}  // namespace varnic::host

#endif  // CORE_HOST_PROFILE_SETTINGS_H_
