#ifndef CORE_HOST_FOLDER_ENTRIES_H_
#define CORE_HOST_FOLDER_ENTRIES_H_

#include <string>
#include <vector>

#include "absl/status/statusor.h"

namespace varnic::host {

// The names in a folder, in no order, without "." and "..". Blocks; any thread. The text of a
// failure names the folder.
absl::StatusOr<std::vector<std::string>> NamesIn(const std::string& folder);

// Whether `path` is a folder itself, and no symbolic link to one.
bool IsFolder(const std::string& path);

}  // namespace varnic::host

#endif  // CORE_HOST_FOLDER_ENTRIES_H_
