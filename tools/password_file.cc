#include "tools/password_file.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "core/host/file_descriptor.h"
#include "core/net/utf8_text.h"

namespace varnic::tools {
namespace {

constexpr std::size_t kMaxBytes = 4096;

absl::Status Refuse(const std::string& path, const std::string& why) {
  return absl::FailedPreconditionError(absl::StrCat(path, ": ", why));
}

absl::Status CheckFile(const std::string& path, int descriptor) {
  struct stat file = {};
  if (fstat(descriptor, &file) != 0) return absl::ErrnoToStatus(errno, path);
  if (!S_ISREG(file.st_mode)) return Refuse(path, "not a regular file");
  if (file.st_uid != geteuid() && file.st_uid != 0) return Refuse(path, "it is somebody else's");
  const mode_t open_to = file.st_mode & (file.st_uid == geteuid() ? 0077 : 0007);
  if (open_to == 0) return absl::OkStatus();
  return Refuse(path, absl::StrFormat("open to other users (mode %04o); chmod 600 keeps it private",
                                      file.st_mode & 07777));
}

absl::StatusOr<std::string> Read(const std::string& path, int descriptor) {
  std::string content(kMaxBytes + 1, '\0');
  std::size_t size = 0;
  while (size < content.size()) {
    const ssize_t count = read(descriptor, &content[size], content.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return absl::ErrnoToStatus(errno, path);
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
  }
  if (size > kMaxBytes) return Refuse(path, "longer than 4096 bytes");
  content.resize(size);
  return content;
}

void StripEnd(std::string& text, char end) {
  if (!text.empty() && text.back() == end) text.pop_back();
}

}  // namespace

absl::StatusOr<std::string> ReadPasswordFile(const std::string& path) {
  // Not blocking: a FIFO would wait for its writer.
  const host::FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return absl::ErrnoToStatus(errno, path);
  if (absl::Status status = CheckFile(path, file.get()); !status.ok()) return status;
  absl::StatusOr<std::string> password = Read(path, file.get());
  if (!password.ok()) return password;
  StripEnd(*password, '\n');
  StripEnd(*password, '\r');
  if (password->empty()) return Refuse(path, "it is empty");
  if (password->find('\n') != std::string::npos) return Refuse(path, "it has more than one line");
  if (!net::IsUtf8(*password)) return Refuse(path, "it is no UTF-8");
  return password;
}

void KeepPasswordsOutOfCoreDumps() {
  prctl(PR_SET_DUMPABLE, 0);
}

}  // namespace varnic::tools
