#include "core/host/user_data_dir.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "core/host/accept_language.h"
#include "core/host/folder_entries.h"
#include "core/host/preferences_file.h"
#include "core/host/profile_settings.h"
#include "core/host/short_text.h"
#include "core/host/singleton_lock.h"

namespace varnic::host {
namespace {

constexpr char kDefaultFolder[] = "Default";

absl::Status FailedTo(absl::string_view verb, const std::string& path) {
  return absl::ErrnoToStatus(errno, absl::StrCat("cannot ", verb, " \"", path, "\""));
}

bool IsFile(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool CanBeFolderName(absl::string_view id) {
  return !id.empty() && id.size() <= NAME_MAX && id != "." && id != ".." &&
         !absl::StrContains(id, '/') && !absl::StrContains(id, '\0');
}

std::string LocalStatePath(const std::string& directory) {
  return directory + "/Local State";
}

std::string PreferencesPath(const std::string& directory, absl::string_view folder) {
  return absl::StrCat(directory, "/", folder, "/Preferences");
}

absl::StatusOr<bool> ProfileExists(const std::string& directory, const PreferencesFile& local_state,
                                   absl::string_view folder) {
  if (!CanBeFolderName(folder) || !IsFolder(absl::StrCat(directory, "/", folder))) return false;
  if (IsFile(PreferencesPath(directory, folder))) return true;
  return local_state.HasObject({"profile", "info_cache", folder});
}

absl::StatusOr<std::string> FolderOfDefaultProfile(const std::string& directory,
                                                   const PreferencesFile& local_state) {
  const absl::StatusOr<std::optional<std::string>> last_used =
      local_state.GetString({"profile", "last_used"});
  if (!last_used.ok()) return last_used.status();
  if (!last_used->has_value()) return kDefaultFolder;
  const absl::StatusOr<bool> exists = ProfileExists(directory, local_state, **last_used);
  if (!exists.ok()) return exists.status();
  return *exists ? **last_used : kDefaultFolder;
}

absl::StatusOr<std::string> FolderOfProfile(const std::string& directory,
                                            const PreferencesFile& local_state,
                                            absl::string_view id) {
  absl::StatusOr<std::string> folder =
      id.empty() ? FolderOfDefaultProfile(directory, local_state) : std::string(id);
  if (!folder.ok()) return folder;
  const absl::StatusOr<bool> exists = ProfileExists(directory, local_state, *folder);
  if (!exists.ok()) return exists.status();
  if (!*exists) return NoSuchProfile(*folder);
  return folder;
}

}  // namespace

UserDataDir::UserDataDir(std::string path, FileDescriptor lock)
    : path_(std::move(path)), lock_(std::move(lock)) {}

absl::StatusOr<UserDataDir> UserDataDir::Open(const std::string& path) {
  absl::StatusOr<UserDataDir> directory = Lock(path);
  if (!directory.ok()) return directory;
  const absl::Status status = directory->CheckIsChromiums();
  if (!status.ok()) return status;
  return directory;
}

absl::StatusOr<UserDataDir> UserDataDir::Lock(const std::string& path) {
  char absolute[PATH_MAX];
  if (::realpath(path.c_str(), absolute) == nullptr) return FailedTo("open", path);
  FileDescriptor lock(::open(absolute, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock) return FailedTo("open", path);
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return UserDataDir(absolute, std::move(lock));
  if (errno != EWOULDBLOCK) return FailedTo("lock", path);
  return absl::FailedPreconditionError(
      absl::StrCat("the user-data directory \"", absolute, "\" is in use by another host"));
}

// Keeps a mistyped path from being served as a directory without profiles.
absl::Status UserDataDir::CheckIsChromiums() const {
  if (IsFile(LocalStatePath(path_)) || IsFile(PreferencesPath(path_, kDefaultFolder)))
    return absl::OkStatus();
  return absl::FailedPreconditionError(
      absl::StrCat("\"", path_,
                   "\" is not a Chromium user-data directory: it has neither \"Local State\" nor "
                   "\"Default/Preferences\""));
}

absl::StatusOr<std::string> UserDataDir::Resolve(absl::string_view id) const {
  const absl::StatusOr<PreferencesFile> local_state = PreferencesFile::Load(LocalStatePath(path_));
  if (!local_state.ok()) return local_state.status();
  return FolderOfProfile(path_, *local_state, id);
}

absl::StatusOr<std::string> UserDataDir::Path(absl::string_view id) const {
  const absl::StatusOr<std::string> folder = Resolve(id);
  if (!folder.ok()) return folder.status();
  return absl::StrCat(path_, "/", *folder);
}

absl::StatusOr<std::string> UserDataDir::Name(absl::string_view id) const {
  const absl::StatusOr<PreferencesFile> local_state = PreferencesFile::Load(LocalStatePath(path_));
  if (!local_state.ok()) return local_state.status();
  const absl::StatusOr<std::string> folder = FolderOfProfile(path_, *local_state, id);
  if (!folder.ok()) return folder.status();
  absl::StatusOr<std::optional<std::string>> listed =
      local_state->GetString({"profile", "info_cache", *folder, "name"});
  if (!listed.ok()) return listed.status();
  if (!listed->value_or("").empty()) return *std::move(*listed);
  const absl::StatusOr<ProfileSettings> settings =
      ProfileSettings::Load(absl::StrCat(path_, "/", *folder));
  if (!settings.ok()) return settings.status();
  return settings->GetName(*folder);
}

absl::StatusOr<bool> UserDataDir::IsDefault(absl::string_view id) const {
  const absl::StatusOr<PreferencesFile> local_state = PreferencesFile::Load(LocalStatePath(path_));
  if (!local_state.ok()) return local_state.status();
  const absl::StatusOr<std::string> folder = FolderOfProfile(path_, *local_state, id);
  if (!folder.ok()) return folder.status();
  const absl::StatusOr<std::string> default_folder = FolderOfDefaultProfile(path_, *local_state);
  if (!default_folder.ok()) return default_folder.status();
  return *folder == *default_folder;
}

absl::StatusOr<std::vector<std::string>> UserDataDir::List() const {
  const absl::StatusOr<PreferencesFile> local_state = PreferencesFile::Load(LocalStatePath(path_));
  if (!local_state.ok()) return local_state.status();
  const absl::StatusOr<std::string> first = FolderOfDefaultProfile(path_, *local_state);
  if (!first.ok()) return first.status();
  absl::StatusOr<std::vector<std::string>> names = NamesIn(path_);
  if (!names.ok()) return names;
  std::vector<std::string> ids;
  for (std::string& name : *names) {
    const absl::StatusOr<bool> exists = ProfileExists(path_, *local_state, name);
    if (!exists.ok()) return exists.status();
    if (*exists) ids.push_back(std::move(name));
  }
  std::sort(ids.begin(), ids.end(), [&first](const std::string& left, const std::string& right) {
    const bool is_first = left == *first;
    return is_first != (right == *first) ? is_first : left < right;
  });
  return ids;
}

absl::StatusOr<std::string> UserDataDir::GetAcceptLanguage(absl::string_view id) const {
  const absl::StatusOr<std::string> folder = Path(id);
  if (!folder.ok()) return folder.status();
  const absl::StatusOr<ProfileSettings> settings = ProfileSettings::Load(*folder);
  if (!settings.ok()) return settings.status();
  return settings->GetAcceptLanguage();
}

absl::Status UserDataDir::SetAcceptLanguage(absl::string_view id, absl::string_view list) {
  const absl::StatusOr<std::string> folder = Path(id);
  if (!folder.ok()) return folder.status();
  const absl::StatusOr<std::string> languages = NormalizeAcceptLanguage(list);
  if (!languages.ok()) return languages.status();
  absl::Status status = CheckNoBrowserRuns(path_);
  if (!status.ok()) return status;
  absl::StatusOr<ProfileSettings> settings = ProfileSettings::Load(*folder);
  if (!settings.ok()) return settings.status();
  status = settings->SetAcceptLanguage(*languages);
  if (status.ok()) status = settings->Save();
  return status;
}

}  // namespace varnic::host
