#include "core/host/profile_store.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "absl/strings/match.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/strip.h"
#include "base/logging.h"
#include "core/host/accept_language.h"
#include "core/host/atomic_file.h"
#include "core/host/folder_entries.h"
#include "core/host/profile_settings.h"
#include "core/host/short_text.h"
#include "core/host/singleton_lock.h"
#include "core/net/log_field.h"
#include "core/net/utf8_text.h"

namespace varnic::host {
namespace {

constexpr char kNumberedProfile[] = "profile-";
constexpr char kNextNumberFile[] = "next-profile";
// So that there is always a next one.
constexpr uint64_t kMaxNumber = uint64_t{1} << 62;
// What has one of these behind its id is no profile yet, or none any more.
constexpr char kNew[] = ".new";
constexpr char kDeleted[] = ".deleted";
// How ReplaceFile() calls what it has not finished.
constexpr char kUnfinishedFile[] = ".varnic-";
// Beside a profile: the languages that its settings may not have yet.
constexpr char kLanguagesFile[] = "varnic-languages";

absl::Status FailedTo(absl::string_view verb, const std::string& path) {
  return absl::ErrnoToStatus(errno, absl::StrCat("cannot ", verb, " \"", path, "\""));
}

// The number in the id of a profile; 0 of the default one, and none of what is no id.
std::optional<uint64_t> NumberOf(absl::string_view id) {
  if (id == kDefaultProfile) return 0;
  uint64_t number = 0;
  const bool is_number =
      absl::ConsumePrefix(&id, kNumberedProfile) && absl::SimpleAtoi(id, &number) && number > 0;
  if (!is_number || number >= kMaxNumber || absl::StrCat(number) != id) return std::nullopt;
  return number;
}

bool IsLeftover(absl::string_view name) {
  const bool has_mark = absl::ConsumeSuffix(&name, kNew) || absl::ConsumeSuffix(&name, kDeleted);
  return has_mark && NumberOf(name).has_value();
}

absl::Status CheckName(absl::string_view name) {
  if (name.size() > kMaxProfileNameBytes) {
    return absl::InvalidArgumentError(absl::StrCat("the profile's name has ", name.size(),
                                                   " bytes, and may have ", kMaxProfileNameBytes));
  }
  if (!net::IsUtf8(std::string(name))) {
    return absl::InvalidArgumentError("the profile's name is not UTF-8");
  }
  const bool has_control = std::any_of(name.begin(), name.end(), [](char character) {
    return static_cast<unsigned char>(character) < 0x20 || character == 0x7f;
  });
  if (has_control) return absl::InvalidArgumentError("the profile's name has control characters");
  return absl::OkStatus();
}

absl::Status SyncFolder(const std::string& folder) {
  const FileDescriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd || ::fsync(fd.get()) != 0) return FailedTo("make durable what is in", folder);
  return absl::OkStatus();
}

absl::Status Rename(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) return FailedTo("rename", from);
  return absl::OkStatus();
}

absl::Status RemoveAll(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  if (!error) return absl::OkStatus();
  return absl::ErrnoToStatus(error.value(), absl::StrCat("cannot remove \"", path, "\""));
}

void Warn(absl::string_view what, const absl::Status& why) {
  if (!logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
      << what << net::LogField("reason", std::string(why.message()));
}

absl::StatusOr<FileDescriptor> LockFolder(const std::string& path) {
  FileDescriptor lock(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock) return FailedTo("open", path);
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return lock;
  if (errno != EWOULDBLOCK) return FailedTo("lock", path);
  return absl::FailedPreconditionError(
      absl::StrCat("the profiles in \"", path, "\" are in use by another host"));
}

}  // namespace

ProfileStore::ProfileStore(std::string path, FileDescriptor lock)
    : path_(std::move(path)), lock_(std::move(lock)) {}

absl::StatusOr<ProfileStore> ProfileStore::Open(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::absolute(path, error).parent_path(), error);
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return FailedTo("make", path);
  const std::string absolute = std::filesystem::canonical(path, error).string();
  if (error) return absl::ErrnoToStatus(error.value(), absl::StrCat("cannot open \"", path, "\""));
  absl::StatusOr<FileDescriptor> lock = LockFolder(absolute);
  if (!lock.ok()) return lock.status();
  ProfileStore store(absolute, *std::move(lock));
  absl::Status status = store.ClaimFolder();
  if (status.ok()) status = store.ReadNextNumber();
  if (!status.ok()) return status;
  store.Sweep();
  if (!IsFolder(store.FolderOf(kDefaultProfile))) {
    status = store.MakeProfile(kDefaultProfile, kDefaultProfile);
    if (!status.ok()) return status;
  }
  store.ReadRemembered();
  return store;
}

// Keeps a mistyped path from being filled with profiles.
absl::Status ProfileStore::ClaimFolder() {
  const absl::StatusOr<std::vector<std::string>> names = NamesIn(path_);
  if (!names.ok()) return names.status();
  const bool is_ours = std::count(names->begin(), names->end(), kNextNumberFile) != 0;
  if (is_ours) return absl::OkStatus();
  const bool is_empty = std::all_of(names->begin(), names->end(), [](const std::string& name) {
    return absl::StartsWith(name, kUnfinishedFile);
  });
  if (is_empty) return WriteNextNumber(next_number_);
  return absl::FailedPreconditionError(
      absl::StrCat("\"", path_, "\" is no folder of profiles: it is not empty, and has no \"",
                   kNextNumberFile, "\"; name a new folder, or an empty one"));
}

absl::Status ProfileStore::ReadNextNumber() {
  const std::string path = absl::StrCat(path_, "/", kNextNumberFile);
  const absl::StatusOr<std::string> text = ReadFile(path, /*max_bytes=*/100);
  if (!text.ok()) return text.status();
  if (!absl::SimpleAtoi(*text, &next_number_) || next_number_ == 0 || next_number_ >= kMaxNumber) {
    return absl::DataLossError(
        absl::StrCat("\"", path,
                     "\" does not have the number of the next profile, such as 1; write one there "
                     "that no profile has had"));
  }
  const absl::StatusOr<std::vector<std::string>> ids = Ids();
  if (!ids.ok()) return ids.status();
  // A folder that somebody has copied here, for one.
  for (const std::string& id : *ids) next_number_ = std::max(next_number_, *NumberOf(id) + 1);
  return absl::OkStatus();
}

absl::Status ProfileStore::WriteNextNumber(uint64_t number) {
  const absl::Status status =
      ReplaceFile(absl::StrCat(path_, "/", kNextNumberFile), absl::StrCat(number, "\n"));
  if (status.ok()) next_number_ = number;
  return status;
}

void ProfileStore::Sweep() const {
  const absl::StatusOr<std::vector<std::string>> names = NamesIn(path_);
  if (!names.ok()) return Warn("Cannot look for what is left of profiles", names.status());
  for (const std::string& name : *names) {
    const std::string path = absl::StrCat(path_, "/", name);
    const bool is_unfinished = absl::StartsWith(name, kUnfinishedFile);
    if (!is_unfinished && !(IsLeftover(name) && IsFolder(path))) continue;
    // A file's rest is a file: a folder of that name is somebody's, and stays.
    if (is_unfinished && IsFolder(path)) continue;
    const absl::Status status = RemoveAll(path);
    if (!status.ok()) Warn("Cannot remove what is left of a profile", status);
  }
}

// The files of a profile that is not there yet are written under another name.
absl::Status ProfileStore::MakeProfile(const std::string& id, absl::string_view name) const {
  const std::string folder = FolderOf(id);
  const std::string unfinished = folder + kNew;
  const std::string profile = unfinished + "/Default";
  for (const std::string& made : {unfinished, profile}) {
    if (::mkdir(made.c_str(), 0700) != 0) return FailedTo("make", made);
  }
  absl::StatusOr<ProfileSettings> settings = ProfileSettings::Load(profile);
  absl::Status status = settings.status();
  if (status.ok()) status = settings->SetName(name);
  if (status.ok()) status = settings->Save();
  if (status.ok()) status = SyncFolder(unfinished);
  if (status.ok()) status = Rename(unfinished, folder);
  if (status.ok()) status = SyncFolder(path_);
  return status;
}

absl::StatusOr<StoredProfile> ProfileStore::Create(absl::string_view name) {
  absl::Status status = CheckName(name);
  const absl::StatusOr<std::vector<std::string>> ids = Ids();
  if (status.ok()) status = ids.status();
  if (!status.ok()) return status;
  if (ids->size() >= kMaxProfiles) {
    return absl::ResourceExhaustedError(
        absl::StrCat("there are ", ids->size(), " profiles, and may be ", kMaxProfiles));
  }
  const std::string id = absl::StrCat(kNumberedProfile, next_number_);
  status = WriteNextNumber(next_number_ + 1);
  if (status.ok()) status = MakeProfile(id, name.empty() ? id : name);
  if (status.ok()) return Describe(id);
  for (const std::string& rest : {FolderOf(id) + kNew, FolderOf(id)}) {
    const absl::Status removed = RemoveAll(rest);
    if (!removed.ok()) Warn("Cannot remove what is left of a profile", removed);
  }
  return status;
}

absl::Status ProfileStore::Delete(absl::string_view id) {
  absl::Status status = CheckExists(id);
  if (!status.ok()) return status;
  if (id == kDefaultProfile) {
    return absl::FailedPreconditionError("the default profile cannot be deleted");
  }
  const std::string folder = FolderOf(id);
  status = CheckNoBrowserRuns(folder);
  if (status.ok()) status = Rename(folder, folder + kDeleted);
  if (!status.ok()) return status;
  remembered_.erase(std::string(id));
  // A profile whose files are gone must not come back.
  status = SyncFolder(path_);
  if (status.ok()) status = RemoveAll(folder + kDeleted);
  if (status.ok()) return status;
  return absl::Status(status.code(),
                      absl::StrCat("the profile is gone, but not all of its files (the host "
                                   "tries again when it starts the next time): ",
                                   status.message()));
}

absl::StatusOr<std::vector<StoredProfile>> ProfileStore::List() const {
  const absl::StatusOr<std::vector<std::string>> ids = Ids();
  if (!ids.ok()) return ids.status();
  std::vector<StoredProfile> profiles;
  for (const std::string& id : *ids) profiles.push_back(Describe(id));
  return profiles;
}

absl::StatusOr<std::vector<std::string>> ProfileStore::Ids() const {
  const absl::StatusOr<std::vector<std::string>> names = NamesIn(path_);
  if (!names.ok()) return names.status();
  std::vector<std::string> ids;
  for (const std::string& name : *names) {
    if (NumberOf(name).has_value() && IsFolder(FolderOf(name))) ids.push_back(name);
  }
  std::sort(ids.begin(), ids.end(), [](const std::string& left, const std::string& right) {
    return *NumberOf(left) < *NumberOf(right);
  });
  return ids;
}

StoredProfile ProfileStore::Describe(const std::string& id) const {
  StoredProfile profile;
  profile.id = id;
  profile.user_data_dir = FolderOf(id);
  profile.path = ProfileOf(id);
  const absl::StatusOr<ProfileSettings> settings = ProfileSettings::Load(ProfileOf(id));
  const absl::StatusOr<std::string> name =
      settings.ok() ? settings->GetName(id) : settings.status();
  if (!name.ok()) Warn("Cannot read the name of a profile", name.status());
  profile.name = name.value_or(id);
  return profile;
}

absl::StatusOr<std::string> ProfileStore::GetAcceptLanguage(absl::string_view id) const {
  const absl::Status status = CheckExists(id);
  if (!status.ok()) return status;
  const auto remembered = remembered_.find(std::string(id));
  if (remembered != remembered_.end()) return remembered->second;
  const absl::StatusOr<ProfileSettings> settings = ProfileSettings::Load(ProfileOf(id));
  if (!settings.ok()) return settings.status();
  return settings->GetAcceptLanguage();
}

absl::Status ProfileStore::SetAcceptLanguage(absl::string_view id, absl::string_view list) {
  absl::Status status = CheckExists(id);
  if (status.ok()) status = CheckNoBrowserRuns(FolderOf(id));
  if (!status.ok()) return status;
  absl::StatusOr<ProfileSettings> settings = ProfileSettings::Load(ProfileOf(id));
  if (!settings.ok()) return settings.status();
  status = settings->SetAcceptLanguage(list);
  if (status.ok()) status = settings->Save();
  if (status.ok()) Forget(id);
  return status;
}

void ProfileStore::RememberAcceptLanguage(absl::string_view id, absl::string_view list) {
  if (!CheckExists(id).ok()) return;
  remembered_[std::string(id)] = std::string(list);
  const absl::Status status = ReplaceFile(LanguagesOf(id), list);
  if (!status.ok()) Warn("Languages would be lost if the host were killed now", status);
}

void ProfileStore::ReadRemembered() {
  const absl::StatusOr<std::vector<std::string>> ids = Ids();
  if (!ids.ok()) return Warn("Cannot look for languages that are to be set", ids.status());
  for (const std::string& id : *ids) {
    absl::StatusOr<std::string> list = ReadFile(LanguagesOf(id));
    if (absl::IsNotFound(list.status())) continue;
    if (list.ok()) list = NormalizeAcceptLanguage(*list);
    if (list.ok()) {
      remembered_[id] = *std::move(list);
    } else {
      Warn("Cannot read the languages that a profile is to have", list.status());
    }
  }
}

void ProfileStore::Forget(absl::string_view id) {
  if (remembered_.erase(std::string(id)) == 0) return;
  const absl::Status status = RemoveAll(LanguagesOf(id));
  if (!status.ok()) Warn("The languages of a profile will be set once more", status);
}

void ProfileStore::CheckRemembered(absl::string_view id) {
  const auto remembered = remembered_.find(std::string(id));
  if (remembered == remembered_.end()) return;
  const absl::StatusOr<ProfileSettings> settings = ProfileSettings::Load(ProfileOf(id));
  if (!settings.ok()) return;
  const absl::StatusOr<std::string> written = settings->GetAcceptLanguage();
  if (written.ok() && *written == remembered->second) Forget(id);
}

absl::Status ProfileStore::PrepareStart(absl::string_view id) {
  absl::Status status = CheckExists(id);
  if (status.ok()) status = CheckNoBrowserRuns(FolderOf(id));
  if (!status.ok()) return status;
  absl::StatusOr<ProfileSettings> settings = ProfileSettings::Load(ProfileOf(id));
  if (!settings.ok()) return settings.status();
  status = settings->SetExitedNormally();
  const auto remembered = remembered_.find(std::string(id));
  if (status.ok() && remembered != remembered_.end()) {
    status = settings->SetAcceptLanguage(remembered->second);
  }
  if (status.ok()) status = settings->Save();
  if (status.ok()) Forget(id);
  return status;
}

absl::StatusOr<std::string> ProfileStore::Settle(absl::string_view id) {
  const absl::Status status = CheckExists(id);
  if (!status.ok()) return status;
  CheckRemembered(id);
  const auto remembered = remembered_.find(std::string(id));
  if (remembered != remembered_.end()) {
    const std::string list = remembered->second;
    const absl::Status written = SetAcceptLanguage(id, list);
    if (!written.ok()) return written;
  }
  const absl::StatusOr<ProfileSettings> settings = ProfileSettings::Load(ProfileOf(id));
  if (!settings.ok()) return settings.status();
  return settings->GetName(id);
}

absl::Status ProfileStore::CheckExists(absl::string_view id) const {
  if (NumberOf(id).has_value() && IsFolder(FolderOf(id))) return absl::OkStatus();
  return NoSuchProfile(id);
}

bool ProfileStore::Has(absl::string_view id) const {
  return CheckExists(id).ok();
}

std::string ProfileStore::FolderOf(absl::string_view id) const {
  return absl::StrCat(path_, "/", id);
}

std::string ProfileStore::ProfileOf(absl::string_view id) const {
  return absl::StrCat(path_, "/", id, "/Default");
}

std::string ProfileStore::LanguagesOf(absl::string_view id) const {
  return absl::StrCat(path_, "/", id, "/", kLanguagesFile);
}

}  // namespace varnic::host
