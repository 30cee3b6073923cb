#include "core/host/file_profiles.h"

#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "core/net/utf8_text.h"

namespace varnic::host {
namespace {

std::string FilesAlone(absl::string_view instead) {
  return absl::StrCat("this host serves the files of a user-data directory alone; ", instead);
}

}  // namespace

FileProfiles::FileProfiles(UserDataDir directory, FileProfilesOptions options,
                           TaskThread::PostFunction post)
    : directory_(std::move(directory)),
      user_agents_(std::move(options.user_agent), std::move(options.browser)),
      tasks_(std::move(post)) {}

FileProfiles::~FileProfiles() {
  is_ending_ = true;
}

template <typename Value>
void FileProfiles::Answer(Reply<Value> reply, std::function<absl::StatusOr<Value>()> work) {
  tasks_.Run(
      [this, work = std::move(work)]() -> absl::StatusOr<Value> {
        if (is_ending_) return absl::UnavailableError("the host is shutting down");
        return work();
      },
      std::move(reply));
}

template <typename Value>
void FileProfiles::Refuse(const std::string& id, Reply<Value> reply, const std::string& why) {
  Answer<Value>(std::move(reply), [this, id, why]() -> absl::StatusOr<Value> {
    const absl::Status status = directory_.Resolve(id).status();
    return status.ok() ? absl::FailedPreconditionError(why) : status;
  });
}

void FileProfiles::Path(const std::string& id, Reply<std::string> reply) {
  Answer<std::string>(std::move(reply), [this, id] { return directory_.Path(id); });
}

void FileProfiles::Name(const std::string& id, Reply<std::string> reply) {
  Answer<std::string>(std::move(reply), [this, id] { return directory_.Name(id); });
}

void FileProfiles::IsIncognito(const std::string& id, Reply<bool> reply) {
  Answer<bool>(std::move(reply), [this, id]() -> absl::StatusOr<bool> {
    const absl::Status status = directory_.Resolve(id).status();
    if (!status.ok()) return status;
    return false;
  });
}

void FileProfiles::IsDefault(const std::string& id, Reply<bool> reply) {
  Answer<bool>(std::move(reply), [this, id] { return directory_.IsDefault(id); });
}

void FileProfiles::CreateBrowser(const rpc::BrowserOptions& options, Reply<int64_t> reply) {
  Refuse(options.profile_id().value(), std::move(reply),
         "no browser is configured: this host serves the profiles' files alone; start a browser on "
         "its user-data directory to open a window");
}

void FileProfiles::SetAcceptLanguage(const std::string& id, const std::string& list,
                                     Reply<Done> reply) {
  Answer<Done>(std::move(reply),
               [this, id, list] { return DoneOr(directory_.SetAcceptLanguage(id, list)); });
}

void FileProfiles::GetAcceptLanguage(const std::string& id, Reply<std::string> reply) {
  Answer<std::string>(std::move(reply), [this, id] { return directory_.GetAcceptLanguage(id); });
}

void FileProfiles::GetUserAgent(const std::string& id, Reply<UserAgent> reply) {
  Answer<UserAgent>(std::move(reply), [this, id]() -> absl::StatusOr<UserAgent> {
    const absl::Status status = directory_.Resolve(id).status();
    if (!status.ok()) return status;
    return user_agents_.Get();
  });
}

void FileProfiles::List(Reply<rpc::ProfileList> reply) {
  Answer<rpc::ProfileList>(std::move(reply), [this] { return ListProfiles(); });
}

absl::StatusOr<rpc::ProfileList> FileProfiles::ListProfiles() const {
  const absl::StatusOr<std::vector<std::string>> ids = directory_.List();
  if (!ids.ok()) return ids.status();
  rpc::ProfileList list;
  for (const std::string& id : *ids) {
    if (!net::IsUtf8(id)) continue;  // No id could say it.
    const absl::StatusOr<std::string> name = directory_.Name(id);
    if (!name.ok()) return name.status();
    const absl::StatusOr<bool> is_default = directory_.IsDefault(id);
    if (!is_default.ok()) return is_default.status();
    rpc::ProfileInfo& profile = *list.add_profiles();
    profile.mutable_id()->set_value(id);
    profile.set_name(*name);
    profile.set_path(absl::StrCat(directory_.path(), "/", id));
    profile.set_is_default(*is_default);
  }
  return list;
}

void FileProfiles::CreateProfile(const std::string& /*name*/, Reply<rpc::ProfileInfo> reply) {
  Answer<rpc::ProfileInfo>(std::move(reply), []() -> absl::StatusOr<rpc::ProfileInfo> {
    return absl::FailedPreconditionError(
        FilesAlone("make the profile in the browser whose directory it is"));
  });
}

void FileProfiles::DeleteProfile(const std::string& id, Reply<Done> reply) {
  Refuse(id, std::move(reply),
         FilesAlone("delete the profile in the browser whose directory it is"));
}

void FileProfiles::CloseBrowser(int64_t /*id*/, Reply<Done> reply) {
  Answer<Done>(std::move(reply), []() -> absl::StatusOr<Done> {
    return absl::FailedPreconditionError(
        FilesAlone("its clients have no browsers that could be closed"));
  });
}

}  // namespace varnic::host
