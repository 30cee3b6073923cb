#ifndef TOOLS_CTL_LOCATION_H_
#define TOOLS_CTL_LOCATION_H_

#include <string>

#include "tools/default_paths.h"

namespace varnic::tools {

// What a user types to run the varnicctl that came with this program: its bare name if that is what
// PATH leads to, or else the path of the one beside this program.
std::string CtlProgram(const Environment& environment);

}  // namespace varnic::tools

#endif  // TOOLS_CTL_LOCATION_H_
