#ifndef CORE_HOST_BROWSER_TEMPORARY_DIR_H_
#define CORE_HOST_BROWSER_TEMPORARY_DIR_H_

#include <memory>
#include <string>
#include <utility>

#include "absl/status/statusor.h"

namespace varnic::host {

// A folder for what a browser leaves in its temporary folder if it is killed. The destructor
// removes it with all that is in it, and so may block. One thread at a time.
class TemporaryDir {
 public:
  // Makes a new one, only for this user, in $TMPDIR, or in /tmp if that is not set or so long that
  // a browser could make no sockets there.
  static absl::StatusOr<std::shared_ptr<TemporaryDir>> Make();
  TemporaryDir(const TemporaryDir&) = delete;
  TemporaryDir& operator=(const TemporaryDir&) = delete;
  ~TemporaryDir();

  const std::string& path() const { return path_; }

 private:
  explicit TemporaryDir(std::string path) : path_(std::move(path)) {}

  const std::string path_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_TEMPORARY_DIR_H_
