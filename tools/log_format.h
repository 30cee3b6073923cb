#ifndef TOOLS_LOG_FORMAT_H_
#define TOOLS_LOG_FORMAT_H_

#include <cstddef>
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
  std::string counts;  // " left_out=7": stands behind the message, and is never cut.
};

// The longest line: what a pipe takes whole (PIPE_BUF).
constexpr std::size_t kMaxLogLineBytes = 4096;

// The record as one line with its newline. Whatever the message holds, it stays one line, and shows
// on a terminal as what it is: control characters, and bytes that are not UTF-8, are escaped. A
// message that would make the line longer than kMaxLogLineBytes is cut, and ends in "...".
std::string FormatLogRecord(LogFormat format, const LogRecord& record);

// The values of --log-format ("text", "json") and --log-level ("debug", "info", "warning",
// "error"). INVALID_ARGUMENT lists them.
absl::StatusOr<LogFormat> ParseLogFormat(const std::string& text);
absl::StatusOr<logging::LogSeverity> ParseLogLevel(const std::string& text);

}  // namespace varnic::tools

#endif  // TOOLS_LOG_FORMAT_H_
