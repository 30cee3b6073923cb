#include "core/host/browser/browser_command_line.h"

#include <unistd.h>

#include <initializer_list>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"

namespace varnic::host {
namespace {

constexpr char kSystemsBrowser[] = "/usr/bin/chromium";

std::string Program(const BrowserLaunch& launch) {
  if (!launch.program.empty()) return launch.program;
  return ::access(kSystemsBrowser, X_OK) == 0 ? kSystemsBrowser : "chromium";
}

}  // namespace

absl::Status CheckLaunch(const BrowserLaunch& launch, unsigned user_id) {
  if (launch.user_data_dir.empty()) {
    return absl::FailedPreconditionError("a browser needs a user-data directory");
  }
  if (user_id == 0 && !launch.without_sandbox) {
    return absl::FailedPreconditionError(
        "the browser's sandbox does not work for root: run the host as an ordinary user, or, if "
        "every page that is opened can be trusted, allow the browser to run without its sandbox "
        "(varnic-host --no-sandbox)");
  }
  return absl::OkStatus();
}

std::vector<std::string> BrowserArguments(const BrowserLaunch& launch) {
  std::vector<std::string> arguments = {
      Program(launch),
      absl::StrCat("--user-data-dir=", launch.user_data_dir),
      "--remote-debugging-pipe",
      // Windows are opened by commands, and the browser stays when the last one is closed.
      "--no-startup-window",
      "--no-first-run",
      "--no-default-browser-check",
  };
  if (launch.headless) arguments.emplace_back("--headless=new");
  if (launch.without_sandbox) arguments.emplace_back("--no-sandbox");
  if (!launch.user_agent.empty()) {
    arguments.push_back(absl::StrCat("--user-agent=", launch.user_agent));
  }
  arguments.insert(arguments.end(), launch.more_arguments.begin(), launch.more_arguments.end());
  return arguments;
}

std::vector<std::string> BrowserEnvironment(const BrowserLaunch& launch,
                                            const char* const* environment) {
  const auto is_left_out = [&launch](const std::string& variable) {
    // A browser must not tell our service manager that it is ready, or take our sockets.
    for (const char* name : {"NOTIFY_SOCKET=", "WATCHDOG_PID=", "WATCHDOG_USEC=", "LISTEN_PID=",
                             "LISTEN_FDS=", "LISTEN_FDNAMES="}) {
      if (absl::StartsWith(variable, name)) return true;
    }
    return !launch.temporary_dir.empty() && absl::StartsWith(variable, "TMPDIR=");
  };
  std::vector<std::string> result;
  for (; *environment != nullptr; ++environment) {
    if (!is_left_out(*environment)) result.emplace_back(*environment);
  }
  if (!launch.temporary_dir.empty()) result.push_back("TMPDIR=" + launch.temporary_dir);
  return result;
}

}  // namespace varnic::host
