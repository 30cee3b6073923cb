#ifndef CORE_HOST_BROWSER_FILE_URL_H_
#define CORE_HOST_BROWSER_FILE_URL_H_

#include <string>
#include <string_view>

#include "absl/status/statusor.h"

namespace varnic::host {

// Whether a URL, as a browser writes it, is of the scheme "file".
bool IsFileUrl(std::string_view url);

// The file of this machine that a file URL names: absolute, percent-decoded, without query,
// fragment and slashes that say nothing, so that a file has one name; links are not followed.
// INVALID_ARGUMENT if it names none: another host than "localhost", an encoded slash or NUL, a dot
// segment, text that is not UTF-8, more than the system takes for a path. Any thread.
absl::StatusOr<std::string> LocalPathOf(std::string_view url);

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_FILE_URL_H_
