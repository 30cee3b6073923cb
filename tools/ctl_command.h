#ifndef TOOLS_CTL_COMMAND_H_
#define TOOLS_CTL_COMMAND_H_

#include <optional>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "core/net/tls_context.h"
#include "tools/call_command.h"
#include "tools/default_paths.h"
#include "tools/stream_command.h"

namespace varnic::tools {

// What varnicctl exits with. A call, or a stream, that failed exits with kCtlCallFailed plus its
// gRPC status, so that a script can tell "no such profile" (15) from "no host there" (24). A
// long-running command that is stopped has done what it was to do.
enum CtlExitCode { kCtlOk = 0, kCtlOutputFailed = 1, kCtlUsage = 2, kCtlCallFailed = 10 };

// One invocation of varnicctl, understood but not carried out.
struct CtlCommand {
  // With the name of a command, or none.
  bool help = false;
  bool version = false;
  bool json = false;
  std::string target;
  bool default_target = false;
  // Set by any option for TLS; and what the user wrote of it.
  std::optional<net::TlsClientOptions> tls;
  std::string tls_flags;
  // As the user wrote it: "get-user-agent".
  std::string name;
  // One of them: a command that runs until it is stopped, or one that makes a call.
  std::optional<StreamCommand> stream;
  std::optional<CallCommand> call;
};

// INVALID_ARGUMENT says what is wrong. `arguments` are without the program's name.
absl::StatusOr<CtlCommand> ParseCtlCommand(const std::vector<std::string>& arguments,
                                           const Environment& environment);

// What a user may try when that has happened; empty if there is nothing to say.
std::string CtlHint(const CtlCommand& command, const absl::Status& status);

// Why a call failed and what to try, for people; and as one line of JSON.
std::string FormatFailureForPeople(const CtlCommand& command, const absl::Status& status);
std::string FormatFailureAsJson(const absl::Status& status);
// That the standard output does not take what is written, with the system's error.
std::string OutputFailure(int error);

}  // namespace varnic::tools

#endif  // TOOLS_CTL_COMMAND_H_
