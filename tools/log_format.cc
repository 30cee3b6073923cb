#include "tools/log_format.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"
#include "nlohmann/json.hpp"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

struct Level {
  const char* name;
  int journal_priority;  // As in syslog.
};

const Level& LevelOf(logging::LogSeverity severity) {
  static constexpr Level kLevels[] = {
      {"debug", 7}, {"info", 6}, {"warning", 4}, {"error", 3}, {"fatal", 2}};
  return kLevels[std::clamp(severity, logging::LOGGING_VERBOSE, logging::LOGGING_FATAL) -
                 logging::LOGGING_VERBOSE];
}

std::string TimeText(absl::Time time) {
  return absl::FormatTime("%Y-%m-%dT%H:%M:%E3SZ", time, absl::UTCTimeZone());
}

std::string TextLine(const LogRecord& record) {
  return absl::StrCat(TimeText(record.time), " ",
                      absl::AsciiStrToUpper(LevelOf(record.severity).name), " ", record.source, " ",
                      EscapeUnprintable(record.message), "\n");
}

std::string JsonLine(const LogRecord& record) {
  const nlohmann::ordered_json json = {{"time", TimeText(record.time)},
                                       {"level", LevelOf(record.severity).name},
                                       {"source", record.source},
                                       {"message", record.message}};
  // ASCII only: readers differ in what else they take for the end of a line.
  return json.dump(-1, ' ', /*ensure_ascii=*/true, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string Line(LogFormat format, const LogRecord& record) {
  if (format == LogFormat::kJson) return JsonLine(record);
  if (format == LogFormat::kText) return TextLine(record);
  return absl::StrCat("<", LevelOf(record.severity).journal_priority, ">", TextLine(record));
}

// The whole text, or its beginning, to the end of a character.
std::string Cut(const std::string& text, std::size_t bytes) {
  if (bytes >= text.size()) return text;
  auto end = static_cast<int32_t>(bytes);
  U8_TRUNCATE_IF_INCOMPLETE(text.data(), 0, end);
  return absl::StrCat(text.substr(0, static_cast<std::size_t>(end)), "...");
}

}  // namespace

std::string FormatLogRecord(LogFormat format, const LogRecord& record) {
  LogRecord shown = record;
  std::size_t bytes = std::min(record.message.size(), kMaxLogLineBytes);
  while (true) {
    shown.message = absl::StrCat(Cut(record.message, bytes), record.counts);
    std::string line = Line(format, shown);
    if (line.size() <= kMaxLogLineBytes || bytes == 0) return line;
    // No byte takes more than six in a line.
    bytes -= std::min(bytes, (line.size() - kMaxLogLineBytes + 5) / 6);
  }
}

absl::StatusOr<LogFormat> ParseLogFormat(const std::string& text) {
  if (text == "text") return LogFormat::kText;
  if (text == "json") return LogFormat::kJson;
  return absl::InvalidArgumentError("expected text or json");
}

absl::StatusOr<logging::LogSeverity> ParseLogLevel(const std::string& text) {
  for (logging::LogSeverity severity = logging::LOGGING_VERBOSE; severity < logging::LOGGING_FATAL;
       ++severity) {
    if (text == LevelOf(severity).name) return severity;
  }
  return absl::InvalidArgumentError("expected debug, info, warning or error");
}

}  // namespace varnic::tools
