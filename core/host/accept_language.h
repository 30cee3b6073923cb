#ifndef CORE_HOST_ACCEPT_LANGUAGE_H_
#define CORE_HOST_ACCEPT_LANGUAGE_H_

#include <cstddef>
#include <string>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"

namespace varnic::host {

constexpr size_t kMaxAcceptLanguageBytes = 1024;

// `list`, language tags (BCP 47) separated by commas, most wanted first, in the form in which a
// profile keeps it: without blanks, each language once. A tag stays as it was written; one that
// comes again, in whatever case, is dropped.
//
// A browser passes on what it is given without a look at it, so everything else is refused here:
// INVALID_ARGUMENT names the tag and says what is wrong with it. No state, any thread.
absl::StatusOr<std::string> NormalizeAcceptLanguage(absl::string_view list);

}  // namespace varnic::host

#endif  // CORE_HOST_ACCEPT_LANGUAGE_H_
