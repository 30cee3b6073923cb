#ifndef COMPILER_PARTS_H_
#define COMPILER_PARTS_H_

#include <string>

#include "absl/status/statusor.h"

namespace varnic::compiler {

// Which of a service's code is written.
struct Parts {
  bool skeleton = true;
  bool client = true;
};

// What protoc's --varnic_opt asks for: "skeleton", "client", or both behind commas; an empty one
// asks for everything. INVALID_ARGUMENT names an option that there is not.
absl::StatusOr<Parts> ParseParts(const std::string& parameter);

}  // namespace varnic::compiler

#endif  // COMPILER_PARTS_H_
