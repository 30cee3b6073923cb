#ifndef TOOLS_LOG_OUTPUT_H_
#define TOOLS_LOG_OUTPUT_H_

#include "base/logging.h"
#include "tools/log_format.h"

namespace varnic::tools {

// From now on every log record of this process is one line on the standard error stream, in that
// format, and those below `level` are left out. Text is written as kJournal if that stream is the
// journal's. A flood of records from one place is cut; see LogThrottle. Never waits for whoever
// reads the stream: a line that it does not take at once is lost, and the next one that it takes
// says how many were (" lost=7"). For good, and for the whole process; before there is another
// thread.
void UseLogOutput(LogFormat format, logging::LogSeverity level);

}  // namespace varnic::tools

#endif  // TOOLS_LOG_OUTPUT_H_
