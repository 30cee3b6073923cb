#ifndef CORE_HOST_BROWSER_VERSION_H_
#define CORE_HOST_BROWSER_VERSION_H_

#include <string>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

// Which browser is installed: what its program answers to --version.

namespace varnic::host {

struct BrowserVersion {
  std::string product;  // "Chromium", "Google Chrome".
  std::string version;  // "156.0.8078.79".
};

// The product and the version in what a browser printed: the first line of the form
// "<product> <a>.<b>.<c>.<d>", with whatever may follow it after a blank. INVALID_ARGUMENT if there
// is none.
absl::StatusOr<BrowserVersion> ParseBrowserVersion(absl::string_view output);

// Runs `browser` (a path, or a name that is looked for in PATH) with --version; if `browser` is
// empty, /usr/bin/chromium, or else chromium in PATH. Blocks until the browser has answered or
// `timeout` is over, and leaves no process behind; any thread.
//
// FAILED_PRECONDITION: there is no such browser, or it fails. UNAVAILABLE: no answer in time. The
// text names what was run.
absl::StatusOr<BrowserVersion> LookUpBrowserVersion(const std::string& browser,
                                                    absl::Duration timeout = absl::Seconds(5));

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_VERSION_H_
