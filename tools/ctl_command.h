#ifndef TOOLS_CTL_COMMAND_H_
#define TOOLS_CTL_COMMAND_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/net/tls_context.h"
#include "tools/default_paths.h"

namespace varnic::tools {

// What varnicctl exits with. A call that failed exits with kCallFailed plus its gRPC status, so
// that a script can tell "no such profile" (15) from "no host there" (24).
enum CtlExitCode { kCtlOk = 0, kCtlUsage = 2, kCtlCallFailed = 10 };

// One invocation of varnicctl, understood but not carried out.
struct CtlCommand {
  bool help = false;
  bool version = false;
  bool json = false;
  std::string target;
  bool default_target = false;
  // Set by any option for TLS; and what the user wrote of it.
  std::optional<net::TlsClientOptions> tls;
  std::string tls_flags;
  absl::Duration timeout = absl::InfiniteDuration();
  // As the user wrote it: "get-user-agent".
  std::string name;
  const google::protobuf::MethodDescriptor* method = nullptr;
  std::unique_ptr<google::protobuf::Message> request;
};

// INVALID_ARGUMENT says what is wrong. `arguments` are without the program's name.
absl::StatusOr<CtlCommand> ParseCtlCommand(const std::vector<std::string>& arguments,
                                           const Environment& environment);

// What --help prints.
std::string CtlHelp(const Environment& environment);

// An answer for people: the value of a single-valued message alone; a line for each field of any
// other; nothing for an empty one.
std::string FormatAnswerForPeople(const google::protobuf::Message& answer);
// An answer for programs: the message's JSON form, in one line.
std::string FormatAnswerAsJson(const google::protobuf::Message& answer);

// Why a call failed and what to try, for people; and as one line of JSON.
std::string FormatFailureForPeople(const CtlCommand& command, const absl::Status& status);
std::string FormatFailureAsJson(const absl::Status& status);

}  // namespace varnic::tools

#endif  // TOOLS_CTL_COMMAND_H_
