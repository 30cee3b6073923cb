#ifndef CORE_HOST_PROFILE_STORE_H_
#define CORE_HOST_PROFILE_STORE_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "core/host/file_descriptor.h"

namespace varnic::host {

// The id of the default profile, and the name of its folder.
constexpr char kDefaultProfile[] = "default";
// A profile's name has so many bytes at most.
constexpr size_t kMaxProfileNameBytes = 200;
// A store has so many profiles at most.
constexpr size_t kMaxProfiles = 1000;

// What a store has of a profile.
struct StoredProfile {
  std::string id;
  std::string name;           // What a person called it; its id until then.
  std::string user_data_dir;  // For its browser: <store>/<id>.
  std::string path;           // The profile itself: <store>/<id>/Default.
};

// A folder with one Chromium user-data directory for each profile, so that each can have a browser
// of its own: "default", which is always there, and "profile-1", "profile-2" and so on. A number is
// never used again; the next one is in the file "next-profile", by which the folder is known for a
// store, too.
//
// A profile comes and goes with one rename: what a crash leaves half made or half deleted is swept
// away by the next Open(). Symbolic links, and whatever has no profile's name, are left alone.
//
// While it lives, no other host opens the same folder; browsers do not heed that lock. Every call
// blocks; any thread, one at a time. Besides what files and folders fail with (RESOURCE_EXHAUSTED:
// the disk is full), calls fail with NOT_FOUND (no such profile; the text has the id) and DATA_LOSS
// (a file is damaged; the text has its path, and nothing is written).
class ProfileStore {
 public:
  // Makes the folder and the default profile if they are missing. FAILED_PRECONDITION: it is in use
  // by another host, or has something else than profiles in it.
  static absl::StatusOr<ProfileStore> Open(const std::string& path);

  // Absolute, without symbolic links.
  const std::string& path() const { return path_; }

  bool Has(absl::string_view id) const;
  // The default profile first, then the others by their numbers. One whose settings cannot be read
  // goes by its id.
  absl::StatusOr<std::vector<StoredProfile>> List() const;
  // An empty name: the id. INVALID_ARGUMENT: the name is too long, no UTF-8, or has control
  // characters. RESOURCE_EXHAUSTED: there are kMaxProfiles already. After an error there is no new
  // profile, nor half of one.
  absl::StatusOr<StoredProfile> Create(absl::string_view name);
  // Removes the profile with all its files; no browser may run on it. FAILED_PRECONDITION: it is
  // the default one, or a browser runs. If its files cannot all be removed it is gone all the same,
  // the text says so, and the next Open() tries again.
  absl::Status Delete(absl::string_view id);

  // What was remembered, or else what the settings say.
  absl::StatusOr<std::string> GetAcceptLanguage(absl::string_view id) const;
  // Writes a list, as NormalizeAcceptLanguage() leaves it, into the settings. FAILED_PRECONDITION:
  // a browser runs on the profile, and would overwrite it when it ends.
  absl::Status SetAcceptLanguage(absl::string_view id, absl::string_view list);

  // A browser that runs has taken `list`, and will write it into the settings; until it has, it may
  // be killed, and the host with it. So the list is kept, in a file of its own beside the profile,
  // until the settings have it. If that cannot be written, it is kept here alone, and the log says
  // so.
  void RememberAcceptLanguage(absl::string_view id, absl::string_view list);
  // Forgets what the settings have.
  void CheckRemembered(absl::string_view id);
  // Makes the settings ready for a browser: with what is remembered, and without a crash that its
  // user would be told of.
  absl::Status PrepareStart(absl::string_view id);
  // The browser has ended: writes what is remembered. Returns the name, which it may have changed.
  absl::StatusOr<std::string> Settle(absl::string_view id);

 private:
  ProfileStore(std::string path, FileDescriptor lock);

  // Makes the folder known for a store, unless it is.
  absl::Status ClaimFolder();
  void Sweep() const;
  absl::Status ReadNextNumber();
  absl::Status WriteNextNumber(uint64_t number);
  absl::Status MakeProfile(const std::string& id, absl::string_view name) const;
  // What a host that was killed has remembered.
  void ReadRemembered();
  void Forget(absl::string_view id);
  absl::Status CheckExists(absl::string_view id) const;
  StoredProfile Describe(const std::string& id) const;
  absl::StatusOr<std::vector<std::string>> Ids() const;
  std::string FolderOf(absl::string_view id) const;
  std::string ProfileOf(absl::string_view id) const;
  std::string LanguagesOf(absl::string_view id) const;

  std::string path_;
  FileDescriptor lock_;  // The folder's own.
  uint64_t next_number_ = 1;
  // By the profile's id: the languages that its settings may not have yet. On disk, too.
  std::map<std::string, std::string> remembered_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_PROFILE_STORE_H_
