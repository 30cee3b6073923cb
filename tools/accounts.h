#ifndef TOOLS_ACCOUNTS_H_
#define TOOLS_ACCOUNTS_H_

#include <sys/types.h>

#include <string>

#include "absl/status/statusor.h"

namespace varnic::tools {

// The number of a user or a group that is given by name or by number; a number need not be that of
// an account. NOT_FOUND quotes `text`. Not for two threads at once.
absl::StatusOr<uid_t> FindUser(const std::string& text);
absl::StatusOr<gid_t> FindGroup(const std::string& text);

}  // namespace varnic::tools

#endif  // TOOLS_ACCOUNTS_H_
