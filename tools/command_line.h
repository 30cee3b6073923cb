#ifndef TOOLS_COMMAND_LINE_H_
#define TOOLS_COMMAND_LINE_H_

#include <map>
#include <string>
#include <vector>

#include "absl/status/statusor.h"

namespace varnic::tools {

// A command line, taken apart by getopt_long: options may stand anywhere, as "--name value",
// "--name=value" or any unambiguous beginning of a name; "--" ends them, and "-h" is "--help".
struct CommandLine {
  // The values of each option that was given, in their order; of one without a value, empty ones.
  std::map<std::string, std::vector<std::string>> options;
  // Everything else, in its order.
  std::vector<std::string> words;

  bool Has(const std::string& name) const { return options.count(name) != 0; }
  // The last value given, or `fallback`.
  std::string Get(const std::string& name, const std::string& fallback) const;
  // Those of the named options that were given, as in "--tls-cert a.pem --tls-key a.key".
  std::string Quote(const std::vector<std::string>& names) const;
};

struct OptionSpec {
  const char* name;
  bool takes_value;
};

// INVALID_ARGUMENT with a text that names the option that is unknown or lacks its value.
// `arguments` are without the program's name. Not for two threads at once.
absl::StatusOr<CommandLine> ParseCommandLine(const std::vector<std::string>& arguments,
                                             const std::vector<OptionSpec>& specs);

}  // namespace varnic::tools

#endif  // TOOLS_COMMAND_LINE_H_
