#ifndef BASE_LOGGING_H_
#define BASE_LOGGING_H_

#include <cstddef>
#include <sstream>
#include <string>

// Log records on the standard error stream. Every function may be called from any thread; a
// LogMessage is used by the thread that made it.
namespace logging {

using LogSeverity = int;
constexpr LogSeverity LOGGING_VERBOSE = -1;  // Lower numbers are more verbose still.
constexpr LogSeverity LOGGING_INFO = 0;
constexpr LogSeverity LOGGING_WARNING = 1;
constexpr LogSeverity LOGGING_ERROR = 2;
constexpr LogSeverity LOGGING_FATAL = 3;  // Such a record ends the process.

// Records below `level` are not wanted. Fatal ones always are: a level above LOGGING_FATAL means
// LOGGING_FATAL. LOGGING_INFO until set.
void SetMinLogLevel(int level);
int GetMinLogLevel();

// Whether a record of `severity` is wanted. Ask before making one: a LogMessage does not ask.
bool ShouldCreateLogMessage(int severity);

// Sees each record before it is written, on the thread that logs, and swallows it by returning
// true; a fatal record still ends the process. str.substr(message_start) is the text without its
// prefix; `str` ends in a newline. A handler that logs calls itself.
using LogMessageHandlerFunction = bool (*)(int severity, const char* file, int line,
                                           size_t message_start, const std::string& str);

// Null, the default, takes the handler away.
void SetLogMessageHandler(LogMessageHandlerFunction handler);
LogMessageHandlerFunction GetLogMessageHandler();

// One record: made, filled through stream(), and written by the destructor, in a single write and
// with one newline at its end. `file` must outlive the record. Leaves errno as it was.
class LogMessage {
 public:
  LogMessage(const char* file, int line, LogSeverity severity);
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;
  ~LogMessage();

  std::ostream& stream() { return stream_; }

 private:
  std::string TakeRecord();

  const int saved_errno_;
  const char* const file_;
  const int line_;
  const LogSeverity severity_;
  size_t message_start_ = 0;
  std::ostringstream stream_;
};

}  // namespace logging

#endif  // BASE_LOGGING_H_
