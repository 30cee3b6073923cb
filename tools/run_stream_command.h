#ifndef TOOLS_RUN_STREAM_COMMAND_H_
#define TOOLS_RUN_STREAM_COMMAND_H_

#include "tools/ctl_command.h"

namespace varnic::tools {

// Carries `command.stream` out: until SIGINT or SIGTERM, until the host ends the stream for good,
// or until its output cannot be written. Tells everything on the standard output and the standard
// error, and returns the exit status.
int RunStreamCommand(const CtlCommand& command);

}  // namespace varnic::tools

#endif  // TOOLS_RUN_STREAM_COMMAND_H_
