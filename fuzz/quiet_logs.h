#ifndef FUZZ_QUIET_LOGS_H_
#define FUZZ_QUIET_LOGS_H_

#include "base/logging.h"
#if __has_include(<google/protobuf/stubs/logging.h>)
#include <google/protobuf/stubs/logging.h>
#endif

namespace varnic::fuzz {

// No warnings of ours, and no errors of protobuf: every other input is worth one.
inline void QuietLogs() {
  logging::SetMinLogLevel(logging::LOGGING_FATAL);
#if __has_include(<google/protobuf/stubs/logging.h>)
  google::protobuf::SetLogHandler(nullptr);
#endif
}

}  // namespace varnic::fuzz

#endif  // FUZZ_QUIET_LOGS_H_
