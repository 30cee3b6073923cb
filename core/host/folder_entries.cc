#include "core/host/folder_entries.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

namespace varnic::host {
namespace {

struct CloseDir {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

absl::Status CannotList(const std::string& folder) {
  return absl::ErrnoToStatus(errno, absl::StrCat("cannot list \"", folder, "\""));
}

}  // namespace

absl::StatusOr<std::vector<std::string>> NamesIn(const std::string& folder) {
  const std::unique_ptr<DIR, CloseDir> open_folder(::opendir(folder.c_str()));
  if (open_folder == nullptr) return CannotList(folder);
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(open_folder.get())) {
    const absl::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
    errno = 0;
  }
  if (errno != 0) return CannotList(folder);
  return names;
}

bool IsFolder(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace varnic::host
