#ifndef TOOLS_HOST_OPTIONS_H_
#define TOOLS_HOST_OPTIONS_H_

#include <optional>
#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "core/host/profile_host.h"
#include "core/net/tls_context.h"
#include "core/net/unix_admission.h"
#include "tools/default_paths.h"

namespace varnic::tools {

// What varnic-host is told to do.
struct HostOptions {
  bool help = false;
  bool version = false;
  // The default address if none is given.
  std::vector<std::string> listen;
  bool default_listen = false;
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
};

// INVALID_ARGUMENT names the option that is wrong. `arguments` are without the program's name.
absl::StatusOr<HostOptions> ParseHostOptions(const std::vector<std::string>& arguments,
                                             const Environment& environment);

// What --help prints.
std::string HostHelp(const Environment& environment);

}  // namespace varnic::tools

#endif  // TOOLS_HOST_OPTIONS_H_
