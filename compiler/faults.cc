#include "compiler/faults.h"

#include <algorithm>

#include "absl/strings/escaping.h"
#include "absl/strings/str_join.h"

namespace varnic::compiler {

void Faults::AddToFile(const std::vector<int>& path, const std::string& text) {
  google::protobuf::SourceLocation location;
  const bool known = !path.empty() && file_.GetSourceLocation(path, &location);
  Add(known ? location.start_line + 1 : 1, text);
}

absl::Status Faults::status() const {
  if (faults_.empty()) return absl::OkStatus();
  std::vector<Fault> sorted = faults_;
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Fault& a, const Fault& b) { return a.line < b.line; });
  // A file may have any name, and a fault has one line.
  const std::string name = absl::Utf8SafeCEscape(file_.name());
  return absl::InvalidArgumentError(
      absl::StrJoin(sorted, "\n", [&name](std::string* text, const Fault& fault) {
        absl::StrAppend(text, name, ":", fault.line, ": ", fault.text);
      }));
}

}  // namespace varnic::compiler
