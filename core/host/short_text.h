#ifndef CORE_HOST_SHORT_TEXT_H_
#define CORE_HOST_SHORT_TEXT_H_

#include <cstddef>
#include <string>

#include "absl/status/status.h"
#include "absl/strings/string_view.h"

// Texts that others have made as long as they liked. No state; any thread.

namespace varnic::host {

// The beginning of `text`, in UTF-8, of `max_bytes` at most; no character is split.
absl::string_view BeginningOf(absl::string_view text, size_t max_bytes);

// The beginning of `text` in quotes, for the text of a failure, with what is unprintable escaped.
std::string ShortQuote(absl::string_view text);

// NOT_FOUND, with the id.
absl::Status NoSuchProfile(absl::string_view id);

}  // namespace varnic::host

#endif  // CORE_HOST_SHORT_TEXT_H_
