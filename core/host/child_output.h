#ifndef CORE_HOST_CHILD_OUTPUT_H_
#define CORE_HOST_CHILD_OUTPUT_H_

#include <cstddef>
#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/time/time.h"

namespace varnic::host {

struct ChildLimits {
  size_t output_bytes = 64 << 10;
  absl::Duration time = absl::Seconds(5);
};

// Runs a program without a shell and returns what it wrote to its standard output. `arguments`
// starts with the program: a path, or a name without a slash, which is looked for in PATH. The
// program reads nothing, its standard error is dropped, and only these three descriptors are its
// own as long as the others of this process are close-on-exec. It runs in a process group of its
// own, which is killed when a limit is passed.
//
// Blocks; any thread. The text of a failure names the program: NOT_FOUND, PERMISSION_DENIED and
// others if it cannot be run, FAILED_PRECONDITION if it does not exit with 0, RESOURCE_EXHAUSTED if
// it writes too much, UNAVAILABLE if it takes too long.
absl::StatusOr<std::string> ReadChildOutput(std::vector<std::string> arguments,
                                            const ChildLimits& limits = {});

}  // namespace varnic::host

#endif  // CORE_HOST_CHILD_OUTPUT_H_
