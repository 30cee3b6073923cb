#ifndef TOOLS_PASSWORD_FILE_H_
#define TOOLS_PASSWORD_FILE_H_

#include <string>

#include "absl/status/statusor.h"

namespace varnic::tools {

// The password in a file of one line, without the end of the line. Read anew by each call, so a
// file that is replaced counts at once; never waits for a writer.
//
// FAILED_PRECONDITION or the like, with the path: no regular file; empty, longer than 4096 bytes,
// more than a line, or no UTF-8; somebody else's, or open to others. It has to be this user's with
// nothing for group and others (mode 0600 or less), or root's with nothing for others, which is how
// systemd hands over credentials.
absl::StatusOr<std::string> ReadPasswordFile(const std::string& path);

// From now on, the system writes no picture of this process's memory to the disk, and lets no other
// process of this user look into it.
void KeepPasswordsOutOfCoreDumps();

}  // namespace varnic::tools

#endif  // TOOLS_PASSWORD_FILE_H_
