#include "core/net/config_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <tuple>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/time/clock.h"

namespace varnic::net {
namespace {

constexpr off_t kMaxBytes = 1 << 20;

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }

 private:
  const int fd_;
};

absl::Status Failure(const std::string& path, const std::string& why) {
  return absl::FailedPreconditionError(absl::StrCat(path, ": ", why));
}

auto Tie(const timespec& time) {
  return std::tie(time.tv_sec, time.tv_nsec);
}

}  // namespace

absl::StatusOr<std::string> ReadConfigFile(const std::string& path) {
  // Not blocking, because opening a pipe would wait for its writer.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info;
  if (file.get() < 0 || fstat(file.get(), &info) != 0) return Failure(path, std::strerror(errno));
  if (!S_ISREG(info.st_mode)) return Failure(path, "not a regular file");
  if (info.st_size > kMaxBytes) return Failure(path, "larger than 1 MiB");
  std::string contents(static_cast<std::size_t>(info.st_size), '\0');
  std::size_t size = 0;
  while (size < contents.size()) {
    const ssize_t got = read(file.get(), &contents[size], contents.size() - size);
    if (got < 0) return Failure(path, std::strerror(errno));
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  contents.resize(size);
  return contents;
}

ConfigFileWatch::Stamp ConfigFileWatch::Stamp::Of(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return Stamp();
  return {true, info.st_dev, info.st_ino, info.st_size, info.st_mtim, info.st_ctim};
}

bool ConfigFileWatch::Stamp::operator==(const Stamp& other) const {
  return std::tie(exists, device, inode, size) ==
             std::tie(other.exists, other.device, other.inode, other.size) &&
         Tie(modified) == Tie(other.modified) && Tie(changed) == Tie(other.changed);
}

ConfigFileWatch::ConfigFileWatch(std::vector<std::string> paths, absl::Duration interval)
    : paths_(std::move(paths)),
      interval_(interval),
      seen_(Stamps()),
      next_look_(absl::Now() + interval) {}

bool ConfigFileWatch::Changed() {
  const absl::Time now = absl::Now();
  // A clock that was set back must not stop the watch.
  if (now < next_look_ && now >= next_look_ - interval_) return false;
  next_look_ = now + interval_;
  std::vector<Stamp> stamps = Stamps();
  if (stamps == seen_) return false;
  seen_ = std::move(stamps);
  return true;
}

std::vector<ConfigFileWatch::Stamp> ConfigFileWatch::Stamps() const {
  std::vector<Stamp> stamps;
  for (const std::string& path : paths_) stamps.push_back(Stamp::Of(path));
  return stamps;
}

}  // namespace varnic::net
