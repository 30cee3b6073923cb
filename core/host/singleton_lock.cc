#include "core/host/singleton_lock.h"

#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "absl/strings/escaping.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

namespace varnic::host {
namespace {

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  ::gethostname(name, sizeof(name) - 1);
  return name;
}

// One that has ended and that nobody waits for, as in a container without an init.
bool IsZombie(pid_t pid) {
  std::ifstream file(absl::StrCat("/proc/", pid, "/stat"));
  std::string text;
  std::getline(file, text);
  // The state stands behind the name, which may have anything in it.
  const size_t end_of_name = text.rfind(')');
  return end_of_name != std::string::npos && text.compare(end_of_name, 3, ") Z") == 0;
}

bool IsAlive(pid_t pid) {
  return (::kill(pid, 0) == 0 || errno == EPERM) && !IsZombie(pid);
}

absl::Status Held(const std::string& lock, absl::string_view by) {
  return absl::FailedPreconditionError(
      absl::StrCat("a browser is running on this directory: \"", lock, "\" is held by ", by));
}

}  // namespace

absl::Status CheckNoBrowserRuns(const std::string& user_data_dir) {
  const std::string lock = user_data_dir + "/SingletonLock";
  char target[PATH_MAX];
  const ssize_t size = ::readlink(lock.c_str(), target, sizeof(target));
  if (size < 0 && errno == ENOENT) return absl::OkStatus();
  if (size < 0) return absl::ErrnoToStatus(errno, absl::StrCat("cannot read \"", lock, "\""));

  const absl::string_view holder(target, static_cast<size_t>(size));
  const size_t dash = holder.rfind('-');
  pid_t pid = 0;
  if (dash == absl::string_view::npos || !absl::SimpleAtoi(holder.substr(dash + 1), &pid) ||
      pid <= 0) {
    return Held(lock, absl::StrCat("\"", absl::Utf8SafeCHexEscape(holder),
                                   "\", which does not name a process"));
  }
  const absl::string_view host = holder.substr(0, dash);
  if (host != HostName()) {
    return Held(lock, absl::StrCat("process ", pid, " of the machine \"",
                                   absl::Utf8SafeCHexEscape(host), "\""));
  }
  if (IsAlive(pid)) return Held(lock, absl::StrCat("process ", pid, " of this machine"));
  return absl::OkStatus();
}

}  // namespace varnic::host
