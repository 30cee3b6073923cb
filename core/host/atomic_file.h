#ifndef CORE_HOST_ATOMIC_FILE_H_
#define CORE_HOST_ATOMIC_FILE_H_

#include <cstddef>
#include <string>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"

// Whole files, read and replaced in one go. Both functions block, may be called on any thread, and
// name the path and the system's own text in what they fail with: NOT_FOUND, PERMISSION_DENIED (a
// read-only file system too), RESOURCE_EXHAUSTED (a full disk, a file over the limit) and so on.

namespace varnic::host {

constexpr size_t kMaxFileBytes = size_t{64} << 20;

// The contents of a regular file.
absl::StatusOr<std::string> ReadFile(const std::string& path, size_t max_bytes = kMaxFileBytes);

// Gives the file at `path` new contents: whoever opens it sees the old ones or the new ones, never
// a part, even after a loss of power. Mode and owner stay; a file that was not there gets mode
// 0600. A symbolic link stays one, and the file that it names is replaced.
//
// After an error the file is as it was, with one exception: when the last step, which makes the
// rename itself durable, fails, the new contents are in place, and the text says so.
absl::Status ReplaceFile(const std::string& path, absl::string_view contents);

}  // namespace varnic::host

#endif  // CORE_HOST_ATOMIC_FILE_H_
