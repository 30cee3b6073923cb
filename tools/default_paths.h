#ifndef TOOLS_DEFAULT_PATHS_H_
#define TOOLS_DEFAULT_PATHS_H_

#include <functional>
#include <string>

#include "absl/status/status.h"

// Where a host and its clients find each other, and where a host keeps its profiles, when nobody
// says anything else.
namespace varnic::tools {

// Looks an environment variable up; null if it is not set.
using Environment = std::function<const char*(const char* name)>;

// $XDG_RUNTIME_DIR/varnic, or a folder of this user's own in the temporary directory where the
// system provides no runtime directory.
std::string DefaultRuntimeFolder(const Environment& environment);

// The address of the default host: a socket in the runtime folder.
std::string DefaultAddress(const Environment& environment);

// $XDG_DATA_HOME/varnic/profiles, or the same below ~/.local/share.
std::string DefaultProfilesFolder(const Environment& environment);

// Makes `folder`, with the folders above it, for this user alone (mode 0700). FAILED_PRECONDITION
// if what is there is no folder, is somebody else's, or is open to others: a socket in it could be
// anybody's.
absl::Status MakePrivateFolder(const std::string& folder);

// The same check without making anything; OK if there is no such folder.
absl::Status CheckPrivateFolder(const std::string& folder);

}  // namespace varnic::tools

#endif  // TOOLS_DEFAULT_PATHS_H_
