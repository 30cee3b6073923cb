#include "core/server/metrics/process_usage.h"

#include <dirent.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "absl/strings/numbers.h"
#include "absl/strings/str_split.h"

namespace varnic {
namespace {

struct DirectoryDeleter {
  void operator()(DIR* directory) const { closedir(directory); }
};

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double ReadClock(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double CountOpenFds() {
  const std::unique_ptr<DIR, DirectoryDeleter> directory(opendir("/proc/self/fd"));
  if (directory == nullptr) return 0;
  int entries = 0;
  while (readdir(directory.get()) != nullptr) ++entries;
  return entries - 3;  // ".", ".." and the directory's own.
}

// The fields of proc(5)'s stat behind the name, which may itself hold blanks and brackets.
std::vector<std::string> ReadStatFields() {
  std::ifstream file("/proc/self/stat");
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const std::size_t end_of_name = text.rfind(") ");
  if (end_of_name == std::string::npos) return {};
  return absl::StrSplit(text.substr(end_of_name + 2), ' ');
}

// `number` as proc(5) counts the fields.
double Field(const std::vector<std::string>& fields, std::size_t number) {
  constexpr std::size_t kFirst = 3;
  std::uint64_t value = 0;
  if (number - kFirst >= fields.size() || !absl::SimpleAtoi(fields[number - kFirst], &value)) {
    return 0;
  }
  return static_cast<double>(value);
}

}  // namespace

ProcessUsage ProcessUsage::Read() {
  ProcessUsage usage;
  rusage own = {};
  if (getrusage(RUSAGE_SELF, &own) == 0) {
    usage.cpu_seconds = Seconds(own.ru_utime) + Seconds(own.ru_stime);
  }
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) usage.max_fds = static_cast<double>(limit.rlim_cur);
  usage.open_fds = CountOpenFds();

  const std::vector<std::string> fields = ReadStatFields();
  usage.threads = Field(fields, 20);
  usage.virtual_bytes = Field(fields, 23);
  usage.resident_bytes = Field(fields, 24) * static_cast<double>(sysconf(_SC_PAGESIZE));
  const double up_at_start = Field(fields, 22) / static_cast<double>(sysconf(_SC_CLK_TCK));
  usage.start_time_seconds = ReadClock(CLOCK_REALTIME) - ReadClock(CLOCK_BOOTTIME) + up_at_start;
  return usage;
}

}  // namespace varnic
