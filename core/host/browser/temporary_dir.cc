#include "core/host/browser/temporary_dir.h"

#include <stdlib.h>
#include <sys/un.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

namespace varnic::host {
namespace {

constexpr char kName[] = "/varnic-XXXXXX";
// The longest that Chromium adds.
constexpr char kSocket[] = "/org.chromium.Chromium.XXXXXX/SingletonSocket";

std::string Parent() {
  const char* const parent = ::getenv("TMPDIR");
  if (parent == nullptr || parent[0] != '/') return "/tmp";
  const std::string path = parent;
  return path.size() + sizeof(kName) + sizeof(kSocket) < sizeof(sockaddr_un::sun_path) ? path
                                                                                       : "/tmp";
}

}  // namespace

absl::StatusOr<std::shared_ptr<TemporaryDir>> TemporaryDir::Make() {
  std::string path = Parent() + kName;
  if (::mkdtemp(path.data()) == nullptr) {
    return absl::ErrnoToStatus(errno,
                               absl::StrCat("cannot make a temporary folder \"", path, "\""));
  }
  return std::shared_ptr<TemporaryDir>(new TemporaryDir(std::move(path)));
}

TemporaryDir::~TemporaryDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace varnic::host
