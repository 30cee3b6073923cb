#include "compiler/parts.h"

#include "absl/status/status.h"
#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"

namespace varnic::compiler {

absl::StatusOr<Parts> ParseParts(const std::string& parameter) {
  if (parameter.empty()) return Parts{};
  Parts parts{/*skeleton=*/false, /*client=*/false};
  for (const absl::string_view option : absl::StrSplit(parameter, ',')) {
    if (option == "skeleton") {
      parts.skeleton = true;
    } else if (option == "client") {
      parts.client = true;
    } else {
      return absl::InvalidArgumentError(absl::StrCat("there is no option \"",
                                                     absl::Utf8SafeCEscape(option),
                                                     "\", only \"skeleton\" and \"client\""));
    }
  }
  return parts;
}

}  // namespace varnic::compiler
