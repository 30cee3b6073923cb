#include "core/host/atomic_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/host/file_descriptor.h"

namespace varnic::host {
namespace {

constexpr size_t kReadBytes = 64 << 10;

absl::Status FailedTo(absl::string_view verb, const std::string& path) {
  return absl::ErrnoToStatus(errno, absl::StrCat("cannot ", verb, " \"", path, "\""));
}

absl::Status NotARegularFile(const std::string& path) {
  return absl::FailedPreconditionError(absl::StrCat("\"", path, "\" is not a regular file"));
}

struct FreeDeleter {
  void operator()(char* text) const { ::free(text); }
};

// What `path` names once symbolic links are followed; `path` itself while nothing is there. A link
// to nothing is an error: it does not say with which mode, or whether, a file should stand there.
absl::StatusOr<std::string> FollowLinks(const std::string& path) {
  const std::unique_ptr<char, FreeDeleter> target(::realpath(path.c_str(), nullptr));
  if (target != nullptr) return std::string(target.get());
  const int error = errno;
  struct stat link;
  if (error == ENOENT && ::lstat(path.c_str(), &link) != 0 && errno == ENOENT) return path;
  errno = error;
  return FailedTo("replace", path);
}

std::string FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return path.substr(0, std::max<size_t>(slash, 1));
}

// A new file that disappears with this object unless it was renamed.
class TemporaryFile {
 public:
  static absl::StatusOr<TemporaryFile> MakeIn(const std::string& folder) {
    std::string path = absl::StrCat(folder, "/.varnic-XXXXXX");
    FileDescriptor fd(::mkostemp(path.data(), O_CLOEXEC));
    if (!fd) return FailedTo("make a temporary file in", folder);
    return TemporaryFile(std::move(path), std::move(fd));
  }
  TemporaryFile(TemporaryFile&& other) noexcept
      : path_(std::exchange(other.path_, std::string())), fd_(std::move(other.fd_)) {}
  TemporaryFile& operator=(TemporaryFile&&) = delete;
  ~TemporaryFile() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }

  // Changing the owner comes first because it clears some bits of the mode.
  absl::Status TakeOwnerAndModeOf(const struct stat& original) {
    struct stat own;
    if (::fstat(fd_.get(), &own) != 0) return FailedTo("examine", path_);
    const bool same_owner = own.st_uid == original.st_uid && own.st_gid == original.st_gid;
    if (!same_owner && ::fchown(fd_.get(), original.st_uid, original.st_gid) != 0) {
      return FailedTo("keep the owner of the file in", path_);
    }
    if (::fchmod(fd_.get(), original.st_mode & 07777) != 0) return FailedTo("set mode of", path_);
    return absl::OkStatus();
  }

  absl::Status Write(absl::string_view contents) {
    while (!contents.empty()) {
      const ssize_t written = ::write(fd_.get(), contents.data(), contents.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) return FailedTo("write", path_);
      contents.remove_prefix(static_cast<size_t>(written));
    }
    if (::fsync(fd_.get()) != 0) return FailedTo("write", path_);
    return absl::OkStatus();
  }

  absl::Status RenameTo(const std::string& target) {
    if (::rename(path_.c_str(), target.c_str()) != 0) return FailedTo("replace", target);
    path_.clear();
    return absl::OkStatus();
  }

 private:
  TemporaryFile(std::string path, FileDescriptor fd) : path_(std::move(path)), fd_(std::move(fd)) {}

  std::string path_;  // Empty once there is nothing to remove.
  FileDescriptor fd_;
};

}  // namespace

absl::StatusOr<std::string> ReadFile(const std::string& path, size_t max_bytes) {
  // Without O_NONBLOCK, opening a FIFO would wait for somebody to write to it.
  const FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd) return FailedTo("open", path);
  struct stat info;
  if (::fstat(fd.get(), &info) != 0) return FailedTo("examine", path);
  if (!S_ISREG(info.st_mode)) return NotARegularFile(path);
  std::string contents;
  while (contents.size() <= max_bytes) {
    const size_t size = contents.size();
    contents.resize(size + kReadBytes);
    ssize_t got;
    do got = ::read(fd.get(), &contents[size], kReadBytes);
    while (got < 0 && errno == EINTR);
    if (got < 0) return FailedTo("read", path);
    contents.resize(size + static_cast<size_t>(got));
    if (got == 0) return contents;
  }
  return absl::ResourceExhaustedError(
      absl::StrCat("\"", path, "\" is larger than ", max_bytes, " bytes"));
}

absl::Status ReplaceFile(const std::string& path, absl::string_view contents) {
  const absl::StatusOr<std::string> target = FollowLinks(path);
  if (!target.ok()) return target.status();
  struct stat original;
  const bool is_new = ::stat(target->c_str(), &original) != 0;
  if (is_new && errno != ENOENT) return FailedTo("examine", *target);
  if (!is_new && !S_ISREG(original.st_mode)) return NotARegularFile(*target);

  const std::string folder = FolderOf(*target);
  const FileDescriptor folder_fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder_fd) return FailedTo("open", folder);
  absl::StatusOr<TemporaryFile> temporary = TemporaryFile::MakeIn(folder);
  if (!temporary.ok()) return temporary.status();
  absl::Status status;
  if (!is_new) status.Update(temporary->TakeOwnerAndModeOf(original));
  if (status.ok()) status = temporary->Write(contents);
  if (status.ok()) status = temporary->RenameTo(*target);
  if (status.ok() && ::fsync(folder_fd.get()) != 0) {
    return FailedTo("make durable (the new contents are in place) the folder", folder);
  }
  return status;
}

}  // namespace varnic::host
