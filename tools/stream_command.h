#ifndef TOOLS_STREAM_COMMAND_H_
#define TOOLS_STREAM_COMMAND_H_

#include <string>
#include <variant>
#include <vector>

#include "absl/status/statusor.h"
#include "tools/command_line.h"
#include "tools/credentials_answerer.h"
#include "tools/file_rules.h"

namespace varnic::tools {

// The commands that run until they are stopped: each holds one stream of rpc.Profile or
// rpc.BrowserHost open.

struct WatchNetwork {};

struct WatchProfiles {};

struct AnswerFiles {
  FileRules rules;
  bool ask = false;
};

struct AnswerAuth {
  CredentialsSource source;
};

struct StreamCommand {
  // Not empty; the empty id is the default profile's. For WatchProfiles, it means all of them, and
  // comes alone.
  std::vector<std::string> profiles;
  std::variant<WatchNetwork, WatchProfiles, AnswerFiles, AnswerAuth> task;
};

bool IsStreamCommand(const std::string& name);

// The options that such a command has besides those of all; none for another name.
std::vector<std::string> StreamOptionsOf(const std::string& name);
// All of them, for ParseCommandLine().
std::vector<OptionSpec> StreamOptionSpecs();

// `line` begins with the name of such a command, and has no other options than it may have.
// INVALID_ARGUMENT says what is wrong; a password file is not looked at.
absl::StatusOr<StreamCommand> ParseStreamCommand(const CommandLine& line);

}  // namespace varnic::tools

#endif  // TOOLS_STREAM_COMMAND_H_
