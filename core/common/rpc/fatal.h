#ifndef CORE_COMMON_RPC_FATAL_H_
#define CORE_COMMON_RPC_FATAL_H_

#if __has_include("absl/log/absl_log.h")
#include "absl/log/absl_log.h"
#else
#include "absl/base/internal/raw_logging.h"
#endif

// How this code ends the process when its own contract is broken. Never for what a peer sent.

// A fatal record: source file, line and `text` (a string literal), written and flushed. A macro,
// because the record carries the line of the statement that raised it. Never returns.
#if __has_include("absl/log/absl_log.h")
#define VARNIC_FATAL(text) ABSL_LOG(FATAL) << text
#else
#define VARNIC_FATAL(text)           \
  do {                               \
    ABSL_RAW_LOG(FATAL, "%s", text); \
    __builtin_unreachable();         \
  } while (false)
#endif

#define VARNIC_STRINGIFIED(condition) #condition
#define VARNIC_CHECK(condition)                                                     \
  do {                                                                              \
    if (!(condition)) VARNIC_FATAL("Check failed: " VARNIC_STRINGIFIED(condition)); \
  } while (false)

namespace varnic {

// Stops the process at once, with no log record.
[[noreturn]] inline void ImmediateTrap() {
  __builtin_trap();
}

}  // namespace varnic

#endif  // CORE_COMMON_RPC_FATAL_H_
