#include "core/host/profile_settings.h"

#include <optional>

namespace varnic::host {
namespace {

// What Chromium asks for in a profile in which nobody chose a language.
constexpr char kDefaultAcceptLanguage[] = "en-US,en";

}  // namespace

absl::StatusOr<ProfileSettings> ProfileSettings::Load(const std::string& profile_folder) {
  absl::StatusOr<PreferencesFile> file = PreferencesFile::Load(profile_folder + "/Preferences");
  if (!file.ok()) return file.status();
  return ProfileSettings(*std::move(file));
}

absl::StatusOr<std::string> ProfileSettings::GetName(absl::string_view otherwise) const {
  const absl::StatusOr<std::optional<std::string>> name = file_.GetString({"profile", "name"});
  if (!name.ok()) return name.status();
  return name->value_or("").empty() ? std::string(otherwise) : **name;
}

// An empty text is how a browser says that nothing was chosen.
absl::StatusOr<std::string> ProfileSettings::GetAcceptLanguage() const {
  for (const char* key : {"selected_languages", "accept_languages"}) {
    const absl::StatusOr<std::optional<std::string>> list = file_.GetString({"intl", key});
    if (!list.ok()) return list.status();
    if (!list->value_or("").empty()) return **list;
  }
  return kDefaultAcceptLanguage;
}

// The browser reads the first and derives the second from it; both are set so that whoever reads
// the file before the next start finds them in agreement.
absl::Status ProfileSettings::SetAcceptLanguage(absl::string_view list) {
  absl::Status status = Set({"intl", "selected_languages"}, list);
  if (status.ok()) status = Set({"intl", "accept_languages"}, list);
  return status;
}

absl::Status ProfileSettings::Set(PreferencesFile::Keys keys, absl::string_view value) {
  const absl::StatusOr<std::optional<std::string>> former = file_.GetString(keys);
  if (!former.ok()) return former.status();
  if (*former == std::string(value)) return absl::OkStatus();
  has_changed_ = true;
  return file_.SetString(keys, value);
}

absl::Status ProfileSettings::Save() {
  if (!has_changed_) return absl::OkStatus();
  const absl::Status status = file_.Save();
  if (status.ok()) has_changed_ = false;
  return status;
}

}  // namespace varnic::host
