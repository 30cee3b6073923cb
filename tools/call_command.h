#ifndef TOOLS_CALL_COMMAND_H_
#define TOOLS_CALL_COMMAND_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <memory>
#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "tools/command_line.h"

namespace varnic::tools {

// How long a command waits for its answer, unless --timeout says so; and one that may have to start
// a browser, or to wait for one to end.
constexpr absl::Duration kDefaultCallTimeout = absl::Seconds(10);
constexpr absl::Duration kBrowserCallTimeout = absl::Seconds(60);

// A command that makes one unary call.
struct CallCommand {
  const google::protobuf::MethodDescriptor* method = nullptr;
  std::unique_ptr<google::protobuf::Message> request;
  absl::Duration timeout = absl::InfiniteDuration();
  // The answer for people; its argument is of the method's output type.
  std::string (*format)(const google::protobuf::Message& answer) = nullptr;
};

bool IsCallCommand(const std::string& name);

// The options that such a command has besides those of all; none for another name.
std::vector<std::string> CallOptionsOf(const std::string& name);
// All of them, for ParseCommandLine().
std::vector<OptionSpec> CallOptionSpecs();

// `line` begins with the name of such a command. INVALID_ARGUMENT says what is wrong.
absl::StatusOr<CallCommand> ParseCallCommand(const CommandLine& line);

}  // namespace varnic::tools

#endif  // TOOLS_CALL_COMMAND_H_
