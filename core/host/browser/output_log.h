#ifndef CORE_HOST_BROWSER_OUTPUT_LOG_H_
#define CORE_HOST_BROWSER_OUTPUT_LOG_H_

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "core/host/file_descriptor.h"
#include "core/net/event_loop.h"
#include "core/net/readable_watch.h"

namespace varnic::host {

// Reads what a child process writes to its standard output and error, so that it never waits for
// us: logs the lines at the debug level, and keeps the last ones. A longer line than
// kMaxLineBytes is cut. Lives on the loop's thread.
class OutputLog {
 public:
  static constexpr size_t kMaxLineBytes = 1024;
  static constexpr size_t kMaxLines = 20;

  // `output` is a pipe that does not block. `on_end` runs once, when nobody has its other end any
  // more, and may destroy the log.
  OutputLog(net::EventLoop& loop, FileDescriptor output, pid_t child, std::function<void()> on_end);

  // Reads what is there already, within bounds. If this comes to the end, `on_end` is not run.
  void ReadAvailable();

  bool has_ended() const { return !output_; }
  // Without the line feeds.
  const std::deque<std::string>& last_lines() const { return lines_; }
  // Whether one of them contains `text`.
  bool Says(std::string_view text) const;

 private:
  // False when there is nothing to read now.
  bool ReadOnce();
  void Add(std::string_view bytes);
  void EndLine();

  FileDescriptor output_;
  const pid_t child_;
  const std::function<void()> on_end_;
  std::string line_;  // So far.
  std::deque<std::string> lines_;
  std::unique_ptr<net::ReadableWatch> watch_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_OUTPUT_LOG_H_
