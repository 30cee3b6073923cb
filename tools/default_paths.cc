#include "tools/default_paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "absl/strings/str_cat.h"

namespace varnic::tools {
namespace {

// The value of `name` if it is an absolute path; others are to be ignored, says the XDG Base
// Directory document.
std::string PathFrom(const Environment& environment, const char* name) {
  const char* value = environment(name);
  return value != nullptr && value[0] == '/' ? value : "";
}

absl::Status Failure(const std::string& folder, const std::string& what) {
  return absl::FailedPreconditionError(absl::StrCat(folder, " ", what));
}

}  // namespace

std::string DefaultRuntimeFolder(const Environment& environment) {
  const std::string runtime = PathFrom(environment, "XDG_RUNTIME_DIR");
  if (!runtime.empty()) return runtime + "/varnic";
  const std::string temporary = PathFrom(environment, "TMPDIR");
  return absl::StrCat(temporary.empty() ? "/tmp" : temporary, "/varnic-", getuid());
}

std::string DefaultAddress(const Environment& environment) {
  return absl::StrCat("unix:", DefaultRuntimeFolder(environment), "/host.sock");
}

std::string DefaultProfilesFolder(const Environment& environment) {
  std::string data = PathFrom(environment, "XDG_DATA_HOME");
  if (data.empty()) data = PathFrom(environment, "HOME") + "/.local/share";
  return data + "/varnic/profiles";
}

absl::Status MakePrivateFolder(const std::string& folder) {
  std::error_code error;
  const std::filesystem::path parent = std::filesystem::path(folder).parent_path();
  std::filesystem::create_directories(parent, error);
  if (error) return Failure(parent.string(), "cannot be made: " + error.message());
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    return Failure(folder, absl::StrCat("cannot be made: ", std::strerror(errno)));
  }
  return CheckPrivateFolder(folder);
}

absl::Status CheckPrivateFolder(const std::string& folder) {
  struct stat info;
  if (lstat(folder.c_str(), &info) != 0) {
    if (errno == ENOENT) return absl::OkStatus();
    return Failure(folder, absl::StrCat("cannot be looked at: ", std::strerror(errno)));
  }
  if (!S_ISDIR(info.st_mode)) return Failure(folder, "is not a folder");
  if (info.st_uid != getuid()) return Failure(folder, "belongs to another user");
  if ((info.st_mode & 077) != 0) {
    return Failure(folder, "is open to other users; its mode has to be 0700");
  }
  return absl::OkStatus();
}

}  // namespace varnic::tools
