#ifndef CORE_HOST_USER_DATA_DIR_H_
#define CORE_HOST_USER_DATA_DIR_H_

#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "core/host/file_descriptor.h"

namespace varnic::host {

// A Chromium user-data directory on disk, and the profiles in it. While it lives, no other
// UserDataDir, in this process or another, opens the same directory; browsers do not heed that
// lock.
//
// A profile's id is the name of its folder; the empty id names the default profile. A profile
// exists when the directory's "Local State" lists it and its folder is there, or when its folder
// has a "Preferences" file. Ids that could lead out of the directory name no profile, and neither
// do symbolic links.
//
// Keeps nothing in memory but its path: each call reads the files anew, so what a browser wrote in
// between is seen. Every call blocks; any thread, one at a time. Besides what files and folders
// fail with, calls fail with NOT_FOUND (no such profile; the text has the id) and DATA_LOSS (a file
// is damaged; the text has its path, and nothing is written).
class UserDataDir {
 public:
  // FAILED_PRECONDITION: the directory is in use by another host, or it is none of Chromium's.
  static absl::StatusOr<UserDataDir> Open(const std::string& path);

  // Absolute, without symbolic links.
  const std::string& path() const { return path_; }

  // The name of the profile's folder: the profile that was used last for the empty id, or
  // "Default".
  absl::StatusOr<std::string> Resolve(absl::string_view id) const;
  // The profile's folder, absolute.
  absl::StatusOr<std::string> Path(absl::string_view id) const;
  // What a person called the profile; the folder's name until then.
  absl::StatusOr<std::string> Name(absl::string_view id) const;
  absl::StatusOr<bool> IsDefault(absl::string_view id) const;
  // The ids of all profiles, the default one first, if there is one, and the others sorted.
  absl::StatusOr<std::vector<std::string>> List() const;

  absl::StatusOr<std::string> GetAcceptLanguage(absl::string_view id) const;
  // Sets the list for the browsers that start from now on. INVALID_ARGUMENT: see
  // NormalizeAcceptLanguage(). FAILED_PRECONDITION: a browser is running on the directory; it would
  // overwrite the change when it ends. A browser that starts during the call may do so too.
  absl::Status SetAcceptLanguage(absl::string_view id, absl::string_view list);

 private:
  UserDataDir(std::string path, FileDescriptor lock);

  // Opens and locks an existing folder, whatever is in it.
  static absl::StatusOr<UserDataDir> Lock(const std::string& path);
  absl::Status CheckIsChromiums() const;

  std::string path_;
  FileDescriptor lock_;  // The directory's own.
};

}  // namespace varnic::host

#endif  // CORE_HOST_USER_DATA_DIR_H_
