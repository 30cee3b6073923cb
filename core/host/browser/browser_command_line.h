#ifndef CORE_HOST_BROWSER_BROWSER_COMMAND_LINE_H_
#define CORE_HOST_BROWSER_BROWSER_COMMAND_LINE_H_

#include <string>
#include <vector>

#include "absl/status/status.h"

namespace varnic::host {

// How a browser is started.
struct BrowserLaunch {
  // A path, or a name that is looked for in PATH; empty: /usr/bin/chromium, or else chromium in
  // PATH.
  std::string program;
  std::string user_data_dir;
  // Where it puts temporary files; empty: where this process does. The path should be short:
  // sockets are made in it.
  std::string temporary_dir;
  std::string user_agent;  // Empty: the browser's own.
  bool headless = true;
  // Chromium's sandbox refuses to work for root. Without it, a web page that breaks out of its
  // process has the rights of this one.
  bool without_sandbox = false;
  std::vector<std::string> more_arguments;
};

// FAILED_PRECONDITION if a browser cannot start like this, with a text that says what to do.
// `user_id` is the one that would run it.
absl::Status CheckLaunch(const BrowserLaunch& launch, unsigned user_id);

// The arguments, the program first.
std::vector<std::string> BrowserArguments(const BrowserLaunch& launch);

// `environment` (as environ) for the browser: what a service manager has told this process alone is
// left out, and TMPDIR is the temporary folder.
std::vector<std::string> BrowserEnvironment(const BrowserLaunch& launch,
                                            const char* const* environment);

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_BROWSER_COMMAND_LINE_H_
