#include "core/host/browser/singleton_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "core/host/singleton_lock.h"

namespace varnic::host {
namespace {

namespace fs = std::filesystem;

bool IsLink(const std::string& path) {
  std::error_code error;
  return fs::is_symlink(fs::symlink_status(path, error));
}

// The socket that a dead browser has left in its temporary folder, as far as it is plainly that:
// what the link says may be wrong.
void RemoveSocketOf(const std::string& link) {
  std::error_code error;
  const fs::path socket = fs::read_symlink(link, error);
  struct stat info;
  if (error || socket.filename() != "SingletonSocket" || !socket.is_absolute() ||
      !absl::StrContains(socket.parent_path().filename().string(), ".Chromium.") ||
      ::lstat(socket.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode) ||
      info.st_uid != ::geteuid()) {
    return;
  }
  ::unlink(socket.c_str());
  const fs::path cookie = socket.parent_path() / "SingletonCookie";
  if (IsLink(cookie)) ::unlink(cookie.c_str());
  ::rmdir(socket.parent_path().c_str());  // Stays if there is anything else in it.
}

}  // namespace

absl::Status ClearStaleSingletonFiles(const std::string& user_data_dir) {
  const absl::Status free = CheckNoBrowserRuns(user_data_dir);
  if (absl::IsFailedPrecondition(free)) {
    return absl::FailedPreconditionError(
        absl::StrCat(free.message(),
                     "; close that browser, or remove the lock if it is certain that none runs"));
  }
  if (!free.ok()) return free;
  const std::string lock = user_data_dir + "/SingletonLock";
  if (!IsLink(lock)) return absl::OkStatus();
  RemoveSocketOf(user_data_dir + "/SingletonSocket");
  // The lock goes last: what is interrupted before is done again.
  for (const char* name : {"/SingletonSocket", "/SingletonCookie", "/SingletonLock"}) {
    const std::string path = user_data_dir + name;
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
      return absl::ErrnoToStatus(errno, absl::StrCat("cannot remove \"", path, "\""));
    }
  }
  return absl::OkStatus();
}

}  // namespace varnic::host
