#ifndef CORE_HOST_WINDOW_REQUEST_H_
#define CORE_HOST_WINDOW_REQUEST_H_

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "core/host/browser/browser_window.h"
#include "rpc/profile/profile.pb.h"

// What a client asks of a window, before a browser is started for it. No state; any thread.

namespace varnic::host {

// OK for an empty address and for an absolute URL that a browser can open; INVALID_ARGUMENT names
// it otherwise. Whether something is there is not looked at.
absl::Status CheckUrl(absl::string_view url);

// The window that `options` ask for. INVALID_ARGUMENT says what is wrong with them.
absl::StatusOr<WindowOptions> WindowOptionsFrom(const rpc::BrowserOptions& options);

// FAILED_PRECONDITION if `options` need a display and this process's environment names none.
absl::Status CheckDisplay(const WindowOptions& options);

}  // namespace varnic::host

#endif  // CORE_HOST_WINDOW_REQUEST_H_
