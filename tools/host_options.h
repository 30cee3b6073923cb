#ifndef TOOLS_HOST_OPTIONS_H_
#define TOOLS_HOST_OPTIONS_H_

#include <optional>
#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "base/logging.h"
#include "core/host/browser/start_pacer.h"
#include "core/host/question_asker.h"
#include "core/host/user_agent.h"
#include "core/net/tls_context.h"
#include "core/net/unix_admission.h"
#include "tools/default_paths.h"
#include "tools/log_format.h"

namespace varnic::tools {

// What varnic-host is told to do.
struct HostOptions {
  bool help = false;
  bool version = false;
  // The default address if none is given; those of the inherited sockets if there are any.
  std::vector<std::string> listen;
  bool default_listen = false;
  // Addresses that were given in vain, because there are inherited sockets.
  std::vector<std::string> unused_listen;
  // The folder of the profiles; made if it is missing.
  std::string profiles_dir;
  // Not empty: the files of this user-data directory are served instead, without browsers.
  std::string user_data_dir;
  // What every profile calls itself; absent: what the installed browser calls itself.
  std::optional<host::UserAgent> user_agent;
  // The browser's program, a path or a name in PATH; empty: the system's Chromium.
  std::string browser;
  bool without_sandbox = false;
  host::StartPacing pacing;
  host::QuestionOptions questions;
  // For the Unix-domain sockets.
  net::UnixAdmission unix_admission;
  // For the TCP addresses, and what the user wrote of it.
  std::optional<net::TlsServerOptions> tls;
  std::string tls_flags;
  // None if empty.
  std::string policy;
  // Where metrics are served; nowhere if empty.
  std::string metrics;
  bool reflection = true;
  LogFormat log_format = LogFormat::kText;
  logging::LogSeverity log_level = logging::LOGGING_INFO;
};

// INVALID_ARGUMENT names the option that is wrong. `arguments` are without the program's name;
// `inherited` are the addresses of the sockets that the process was started with.
absl::StatusOr<HostOptions> ParseHostOptions(const std::vector<std::string>& arguments,
                                             const Environment& environment,
                                             const std::vector<std::string>& inherited = {});

// What --help prints.
std::string HostHelp(const Environment& environment);

}  // namespace varnic::tools

#endif  // TOOLS_HOST_OPTIONS_H_
