#ifndef CORE_HOST_BROWSER_SPAWNED_BROWSER_H_
#define CORE_HOST_BROWSER_SPAWNED_BROWSER_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "core/host/file_descriptor.h"

namespace varnic::host {

// A child process, and our ends of what leads to it. Whoever has it waits for it; see
// BrowserProcess.
struct SpawnedBrowser {
  pid_t pid = 0;
  FileDescriptor exit;          // A pidfd: readable once it has exited.
  FileDescriptor to_browser;    // A socket; the child's descriptor 3 is its other end.
  FileDescriptor from_browser;  // A socket; the child's descriptor 4.
  FileDescriptor output;        // A pipe: the child's standard output and error.
};

// Runs a program without a shell. `arguments` starts with it: a path, or a name without a slash,
// which is looked for in PATH. `environment` holds texts such as "HOME=/root". The child has no
// other descriptors, reads nothing on standard input, leads a process group of its own, has the
// default action for every signal, and gets SIGTERM when the calling thread ends.
//
// Blocks until the program has been loaded, which takes some milliseconds. A failure has the code
// of its errno (NOT_FOUND, PERMISSION_DENIED, …), and its text names the program.
absl::StatusOr<SpawnedBrowser> SpawnBrowser(std::vector<std::string> arguments,
                                            std::vector<std::string> environment);

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_SPAWNED_BROWSER_H_
