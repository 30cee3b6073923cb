#ifndef CORE_HOST_BROWSER_TESTING_PROCESS_LIST_H_
#define CORE_HOST_BROWSER_TESTING_PROCESS_LIST_H_

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"

namespace varnic::host::testing {

inline std::string ReadProcFile(pid_t pid, const std::string& name) {
  std::ifstream file(absl::StrCat("/proc/", pid, "/", name), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// What stands behind the program's name in /proc/PID/stat: state, parent, group, …; empty of a
// process that is gone.
inline std::vector<std::string> ProcessState(pid_t pid) {
  const std::string stat = ReadProcFile(pid, "stat");
  const size_t end = stat.rfind(')');
  if (end == std::string::npos || end + 2 > stat.size()) return {};
  return absl::StrSplit(stat.substr(end + 2), ' ');
}

// The processes that live and for which `is_wanted` holds. A process that has ended and waits for
// its parent does not live.
inline std::vector<pid_t> LivingProcesses(const std::function<bool(pid_t)>& is_wanted) {
  std::vector<pid_t> pids;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    pid_t pid = 0;
    if (!absl::SimpleAtoi(entry.path().filename().string(), &pid)) continue;
    const std::vector<std::string> state = ProcessState(pid);
    if (state.size() > 2 && state[0] != "Z" && state[0] != "X" && is_wanted(pid)) {
      pids.push_back(pid);
    }
  }
  return pids;
}

inline std::vector<pid_t> LivingProcessesOfGroup(pid_t group) {
  return LivingProcesses([group](pid_t pid) {
    const std::vector<std::string> state = ProcessState(pid);
    return state.size() > 2 && state[2] == absl::StrCat(group);
  });
}

// Those that have `text` on their command line.
inline std::vector<pid_t> LivingProcessesWith(const std::string& text) {
  return LivingProcesses([&text](pid_t pid) {
    return pid != ::getpid() && ReadProcFile(pid, "cmdline").find(text) != std::string::npos;
  });
}

// Whether `condition` comes to hold within a time that is long for any machine. What was killed
// takes a moment to go.
inline bool ComesTrue(const std::function<bool()>& condition) {
  const absl::Time deadline = absl::Now() + absl::Seconds(30);
  while (!condition()) {
    if (absl::Now() > deadline) return false;
  }
  return true;
}

}  // namespace varnic::host::testing

#endif  // CORE_HOST_BROWSER_TESTING_PROCESS_LIST_H_
