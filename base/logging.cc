#include "base/logging.h"

#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace logging {
namespace {

std::atomic<int> g_min_log_level{LOGGING_INFO};
std::atomic<LogMessageHandlerFunction> g_handler{nullptr};

std::string SeverityName(LogSeverity severity) {
  constexpr const char* kNames[] = {"INFO", "WARNING", "ERROR", "FATAL"};
  if (severity < LOGGING_INFO) return "VERBOSE" + std::to_string(-static_cast<long>(severity));
  return kNames[std::min(severity, LOGGING_FATAL)];
}

const char* BaseName(const char* file) {
  const char* slash = std::strrchr(file, '/');
  return slash == nullptr ? file : slash + 1;
}

std::string UtcNow() {
  timeval now = {};
  gettimeofday(&now, nullptr);
  tm utc = {};
  gmtime_r(&now.tv_sec, &utc);
  char seconds[32];
  strftime(seconds, sizeof(seconds), "%Y-%m-%dT%H:%M:%S", &utc);
  char text[48];
  snprintf(text, sizeof(text), "%s.%06ldZ", seconds, static_cast<long>(now.tv_usec));
  return text;
}

// Gives up when the stream takes nothing more: a record is not worth blocking or dying for.
void WriteToStandardError(const std::string& record) {
  size_t written = 0;
  while (written < record.size()) {
    const ssize_t count = write(STDERR_FILENO, record.data() + written, record.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    written += static_cast<size_t>(count);
  }
}

}  // namespace

void SetMinLogLevel(int level) {
  g_min_log_level = std::min(level, LOGGING_FATAL);
}
int GetMinLogLevel() {
  return g_min_log_level;
}

bool ShouldCreateLogMessage(int severity) {
  return severity >= g_min_log_level;
}

void SetLogMessageHandler(LogMessageHandlerFunction handler) {
  g_handler = handler;
}
LogMessageHandlerFunction GetLogMessageHandler() {
  return g_handler;
}

LogMessage::LogMessage(const char* file, int line, LogSeverity severity)
    : saved_errno_(errno), file_(file), line_(line), severity_(severity) {
  stream_ << "[" << UtcNow() << " " << SeverityName(severity) << " " << BaseName(file) << ":"
          << line << "] ";
  message_start_ = stream_.str().size();
}

LogMessage::~LogMessage() {
  const std::string record = TakeRecord();
  const LogMessageHandlerFunction handler = g_handler;
  if (handler == nullptr || !handler(severity_, file_, line_, message_start_, record)) {
    WriteToStandardError(record);
  }
  if (severity_ >= LOGGING_FATAL) std::abort();
  errno = saved_errno_;
}

std::string LogMessage::TakeRecord() {
  std::string record = stream_.str();
  while (record.size() > message_start_ && record.back() == '\n') record.pop_back();
  record += '\n';
  return record;
}

}  // namespace logging
