#ifndef TOOLS_HOST_OPTIONS_H_
#define TOOLS_HOST_OPTIONS_H_

#include <optional>
#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "base/logging.h"
#include "core/host/profile_host.h"
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
  std::string user_data_dir;
  // A directory that nobody named is made if it is missing.
  bool default_user_data_dir = false;
  host::ProfileHostOptions profiles;
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
