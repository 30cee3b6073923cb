#ifndef TOOLS_STREAM_OUTPUT_H_
#define TOOLS_STREAM_OUTPUT_H_

#include <unistd.h>

#include <cstddef>
#include <functional>
#include <string>

#include "absl/time/time.h"
#include "core/net/event_loop.h"
#include "tools/happening.h"
#include "tools/line_writer.h"
#include "tools/terminal_prompt.h"

namespace varnic::tools {

// Where a long-running command tells what happens: for programs, everything on `out`; for people,
// the events there, and what is about the connection on `err`. Each line is written whole, and at
// once if the reader takes it; see LineWriter for one that does not. What is dropped then is told
// in its place, for programs as "type":"dropped" with the number of "lines". Lives on a loop.
class StreamOutput {
 public:
  struct Options {
    bool json = false;
    std::size_t profile_width = 0;  // Of the longest label, for people.
    int out = STDOUT_FILENO;        // Descriptors, which stay open.
    int err = STDERR_FILENO;
    absl::TimeZone zone = absl::LocalTimeZone();
  };

  // `on_broken` runs, on the loop or inside Tell(), when `out` cannot be written, for that errno.
  StreamOutput(net::EventLoop& loop, const Options& options, std::function<void(int)> on_broken);

  // While there is one, its question is shown again behind each line. Null: there is none any more.
  void set_prompt(TerminalPrompt* prompt) { prompt_ = prompt; }

  void Tell(const Happening& happening);
  // Writes a line on `err`, as it is.
  void Complain(const std::string& line) { err_.Write(line); }
  // Holds the caller up until everything is written, for a second at the most.
  void Finish();

 private:
  std::string Line(const Happening& happening) const;
  std::string NoteOfDropped(std::size_t lines) const;

  const Options options_;
  LineWriter out_;
  LineWriter err_;
  TerminalPrompt* prompt_ = nullptr;
};

}  // namespace varnic::tools

#endif  // TOOLS_STREAM_OUTPUT_H_
