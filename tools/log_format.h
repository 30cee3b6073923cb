#ifndef TOOLS_LOG_FORMAT_H_
#define TOOLS_LOG_FORMAT_H_

#include <string>

#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "base/logging.h"

namespace varnic::tools {

enum class LogFormat {
  kText,     // 2026-11-21T05:00:00.123Z WARNING host.cc:12 Refused a connection uid=7
  kJournal,  // The same behind "<4>", the priority as systemd's journal reads it.
  kJson,     // {"time":"…","level":"warning","source":"host.cc:12","message":"…"}
};

struct LogRecord {
  absl::Time time;
  logging::LogSeverity severity = logging::LOGGING_INFO;
  std::string source;  // "host.cc:12"
  std::string message;
};

// The record as one line with its newline. Whatever the message holds, it stays one line, and shows
// on a terminal as what it is: control characters, and bytes that are not UTF-8, are escaped.
std::string FormatLogRecord(LogFormat format, const LogRecord& record);

// The values of --log-format ("text", "json") and --log-level ("debug", "info", "warning",
// "error"). INVALID_ARGUMENT lists them.
absl::StatusOr<LogFormat> ParseLogFormat(const std::string& text);
absl::StatusOr<logging::LogSeverity> ParseLogLevel(const std::string& text);

}  // namespace varnic::tools

#endif  // TOOLS_LOG_FORMAT_H_
