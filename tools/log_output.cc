#include "tools/log_output.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/time/clock.h"
#include "core/net/log_limiter.h"
#include "core/net/loop_clock.h"
#include "tools/log_throttle.h"

namespace varnic::tools {
namespace {

struct LogOutput {
  LogFormat format = LogFormat::kText;
  LogThrottle throttle;
  std::mutex mutex;  // For what follows, and to write.
  std::uint64_t lost = 0;
  bool in_line = false;  // The stream has taken a part of the last line.
};

// Never destroyed: other threads may log until the process ends. Static, because a handler is a
// plain function.
LogOutput& Output() {
  static LogOutput& output = *new LogOutput;
  return output;
}

// sd_journal(3): the variable names the stream that was the journal's when the service was started.
bool StandardErrorIsTheJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat info;
  return stream != nullptr && fstat(STDERR_FILENO, &info) == 0 &&
         absl::StrCat(info.st_dev, ":", info.st_ino) == stream;
}

bool StandardErrorTakesMore() {
  pollfd descriptor = {STDERR_FILENO, POLLOUT, 0};
  return poll(&descriptor, 1, 0) == 1 && descriptor.revents == POLLOUT;
}

// Gives up when the stream takes nothing more: a record is not worth blocking or dying for. The
// descriptor is other processes' too, so it cannot be made one that never blocks; but a pipe that
// takes anything takes a whole line (pipe(7)).
bool WriteLine(LogOutput& output, const std::string& line) {
  std::size_t written = 0;
  while (written < line.size() && StandardErrorTakesMore()) {
    const ssize_t count = write(STDERR_FILENO, line.data() + written, line.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  if (written > 0) output.in_line = written < line.size();
  return written == line.size();
}

void WriteRecord(LogOutput& output, LogRecord record) {
  const std::lock_guard<std::mutex> lock(output.mutex);
  if (output.in_line && !WriteLine(output, "\n")) {
    ++output.lost;
    return;
  }
  if (output.lost > 0) record.counts += absl::StrCat(" lost=", output.lost);
  output.lost = WriteLine(output, FormatLogRecord(output.format, record)) ? 0 : output.lost + 1;
}

std::string Source(const char* file, int line) {
  const char* slash = std::strrchr(file, '/');
  return absl::StrCat(slash == nullptr ? file : slash + 1, ":", line);
}

bool Handle(int severity, const char* file, int line, std::size_t message_start,
            const std::string& text) {
  std::optional<std::uint64_t> left_out = 0;
  if (severity < logging::LOGGING_FATAL) {
    left_out = Output().throttle.Admit(file, line, net::LoopClock::now());
  }
  if (!left_out) return true;
  LogRecord record;
  record.time = absl::Now();
  record.severity = severity;
  record.source = Source(file, line);
  // Without the newline that every record ends in.
  record.message = text.substr(message_start, text.size() - 1 - message_start);
  record.counts = net::LogLimiter::More(*left_out);
  WriteRecord(Output(), std::move(record));
  return true;
}

}  // namespace

void UseLogOutput(LogFormat format, logging::LogSeverity level) {
  const bool to_journal = format == LogFormat::kText && StandardErrorIsTheJournal();
  Output().format = to_journal ? LogFormat::kJournal : format;
  logging::SetMinLogLevel(level);
  logging::SetLogMessageHandler(&Handle);
}

}  // namespace varnic::tools
