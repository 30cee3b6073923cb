#ifndef TOOLS_CTL_HELP_H_
#define TOOLS_CTL_HELP_H_

#include <string>

#include "tools/default_paths.h"

namespace varnic::tools {

// What varnicctl --help prints, or with the name of a long-running command, what `varnicctl help
// COMMAND` prints; the former for every other name.
std::string CtlHelp(const std::string& name, const Environment& environment);

}  // namespace varnic::tools

#endif  // TOOLS_CTL_HELP_H_
