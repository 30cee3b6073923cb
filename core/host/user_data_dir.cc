#include "core/host/user_data_dir.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "absl/strings/escaping.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "core/host/accept_language.h"
#include "core/host/atomic_file.h"
#include "core/host/preferences_file.h"
#include "core/host/singleton_lock.h"

namespace varnic::host {
namespace {

constexpr char kDefaultFolder[] = "Default";
// What Chromium asks for in a profile in which nobody chose a language.
constexpr char kDefaultAcceptLanguage[] = "en-US,en";

absl::Status FailedTo(absl::string_view verb, const std::string& path) {
  return absl::ErrnoToStatus(errno, absl::StrCat("cannot ", verb, " \"", path, "\""));
}

bool IsFolder(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool IsFile(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool CanBeFolderName(absl::string_view id) {
  return !id.empty() && id.size() <= NAME_MAX && id != "." && id != ".." &&
         !absl::StrContains(id, '/') && !absl::StrContains(id, '\0');
}

absl::Status NoSuchProfile(absl::string_view id) {
  const absl::string_view start = id.substr(0, 100);
  return absl::NotFoundError(absl::StrCat("there is no profile \"", absl::Utf8SafeCHexEscape(start),
                                          start.size() < id.size() ? "…" : "", "\""));
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

// The first of the texts at these keys that is not empty; an empty one is how a browser says that
// nothing was chosen.
absl::StatusOr<std::string> FirstText(const PreferencesFile& file,
                                      std::initializer_list<PreferencesFile::Keys> places,
                                      absl::string_view otherwise) {
  for (const PreferencesFile::Keys& keys : places) {
    absl::StatusOr<std::optional<std::string>> text = file.GetString(keys);
    if (!text.ok()) return text.status();
    if (!text->value_or("").empty()) return *std::move(*text);
  }
  return std::string(otherwise);
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

absl::StatusOr<UserDataDir> UserDataDir::Create(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::absolute(path, error).parent_path(), error);
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return FailedTo("make", path);
  absl::StatusOr<UserDataDir> directory = Lock(path);
  if (!directory.ok()) return directory;
  if (directory->CheckIsChromiums().ok()) return directory;
  const absl::StatusOr<bool> is_new = directory->IsNew();
  if (!is_new.ok()) return is_new.status();
  const absl::Status status =
      *is_new ? directory->MakeDefaultProfile() : directory->CheckIsChromiums();
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

absl::StatusOr<bool> UserDataDir::IsNew() const {
  struct CloseDir {
    void operator()(DIR* folder) const { ::closedir(folder); }
  };
  const std::unique_ptr<DIR, CloseDir> folder(::opendir(path_.c_str()));
  if (folder == nullptr) return FailedTo("list", path_);
  errno = 0;
  while (const dirent* entry = ::readdir(folder.get())) {
    const absl::string_view name = entry->d_name;
    if (name != "." && name != ".." && name != kDefaultFolder) return false;
  }
  if (errno != 0) return FailedTo("list", path_);
  return true;
}

absl::Status UserDataDir::MakeDefaultProfile() const {
  const std::string folder = absl::StrCat(path_, "/", kDefaultFolder);
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return FailedTo("make", folder);
  return ReplaceFile(PreferencesPath(path_, kDefaultFolder), "{}");
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
  absl::StatusOr<std::string> listed =
      FirstText(*local_state, {{"profile", "info_cache", *folder, "name"}}, /*otherwise=*/"");
  if (!listed.ok() || !listed->empty()) return listed;
  const absl::StatusOr<PreferencesFile> preferences =
      PreferencesFile::Load(PreferencesPath(path_, *folder));
  if (!preferences.ok()) return preferences.status();
  return FirstText(*preferences, {{"profile", "name"}}, *folder);
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

absl::StatusOr<std::string> UserDataDir::GetAcceptLanguage(absl::string_view id) const {
  const absl::StatusOr<std::string> folder = Resolve(id);
  if (!folder.ok()) return folder.status();
  const absl::StatusOr<PreferencesFile> preferences =
      PreferencesFile::Load(PreferencesPath(path_, *folder));
  if (!preferences.ok()) return preferences.status();
  return FirstText(*preferences, {{"intl", "selected_languages"}, {"intl", "accept_languages"}},
                   kDefaultAcceptLanguage);
}

absl::Status UserDataDir::SetAcceptLanguage(absl::string_view id, absl::string_view list) {
  const absl::StatusOr<std::string> folder = Resolve(id);
  if (!folder.ok()) return folder.status();
  const absl::StatusOr<std::string> languages = NormalizeAcceptLanguage(list);
  if (!languages.ok()) return languages.status();
  absl::Status status = CheckNoBrowserRuns(path_);
  if (!status.ok()) return status;
  absl::StatusOr<PreferencesFile> preferences =
      PreferencesFile::Load(PreferencesPath(path_, *folder));
  if (!preferences.ok()) return preferences.status();
  // The browser reads the first and derives the second from it; both are set so that whoever reads
  // the file before the next start finds them in agreement.
  status = preferences->SetString({"intl", "selected_languages"}, *languages);
  if (status.ok()) status = preferences->SetString({"intl", "accept_languages"}, *languages);
  if (status.ok()) status = preferences->Save();
  return status;
}

}  // namespace varnic::host
