#include "core/host/accept_language.h"

#include <unicode/uloc.h>

#include <algorithm>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/escaping.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "absl/strings/str_split.h"

namespace varnic::host {
namespace {

absl::Status BadTag(absl::string_view tag, absl::string_view reason) {
  return absl::InvalidArgumentError(
      absl::StrCat("\"", absl::Utf8SafeCHexEscape(tag), "\": ", reason));
}

absl::string_view WithoutBlanks(absl::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == absl::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// ICU reads as much of a text as is a tag. It counts what it read even where its own locale id, in
// which we have no interest, does not fit the buffer.
bool IsWellFormed(const std::string& tag) {
  char locale[ULOC_FULLNAME_CAPACITY];
  int32_t parsed_bytes = 0;
  UErrorCode error = U_ZERO_ERROR;
  uloc_forLanguageTag(tag.c_str(), locale, sizeof(locale), &parsed_bytes, &error);
  const bool is_parsed = U_SUCCESS(error) || error == U_BUFFER_OVERFLOW_ERROR;
  return is_parsed && static_cast<size_t>(parsed_bytes) == tag.size();
}

absl::Status CheckTag(absl::string_view tag) {
  if (tag.empty()) return BadTag(tag, "a language is missing between two commas or at an end");
  if (absl::StrContains(tag, ';')) {
    return BadTag(tag,
                  "quality values are not allowed; the order of the list says which language is "
                  "wanted most");
  }
  if (tag == "*") return BadTag(tag, "a wildcard is not allowed; name the languages");
  if (!IsWellFormed(std::string(tag))) {
    return BadTag(tag, "not a well-formed language tag (BCP 47), such as \"fr\" or \"pt-BR\"");
  }
  return absl::OkStatus();
}

}  // namespace

absl::StatusOr<std::string> NormalizeAcceptLanguage(absl::string_view list) {
  if (list.size() > kMaxAcceptLanguageBytes) {
    return absl::InvalidArgumentError(absl::StrCat("the list of languages has ", list.size(),
                                                   " bytes; the limit is ",
                                                   kMaxAcceptLanguageBytes));
  }
  if (WithoutBlanks(list).empty()) {
    return absl::InvalidArgumentError("the list of languages is empty; name at least one");
  }
  std::vector<absl::string_view> tags;
  for (absl::string_view piece : absl::StrSplit(list, ',')) {
    const absl::string_view tag = WithoutBlanks(piece);
    const absl::Status status = CheckTag(tag);
    if (!status.ok()) return status;
    const auto is_same = [tag](absl::string_view t) { return absl::EqualsIgnoreCase(t, tag); };
    if (std::none_of(tags.begin(), tags.end(), is_same)) tags.push_back(tag);
  }
  return absl::StrJoin(tags, ",");
}

}  // namespace varnic::host
