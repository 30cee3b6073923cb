#ifndef TOOLS_TERMINAL_H_
#define TOOLS_TERMINAL_H_

#include <string>
#include <utility>

#include "absl/status/statusor.h"
#include "core/host/file_descriptor.h"

namespace varnic::tools {

// A terminal with a person at it, to read from; a LineWriter writes there. Move-only; one thread.
class Terminal {
 public:
  enum class Input { kLine, kNothingYet, kEnd };

  // The terminal that the process belongs to, whatever its standard input and output are.
  // FAILED_PRECONDITION if there is none.
  static absl::StatusOr<Terminal> OpenOwn();

  // Takes an open terminal, whose descriptor must not block.
  explicit Terminal(host::FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}

  int descriptor() const { return descriptor_.get(); }

  // Reads a line, without its end, if there is one; kEnd for Ctrl-D, and if the terminal is gone.
  Input ReadLine(std::string& line);
  // Forgets what has been typed and not been read, half a line too.
  void DiscardInput();

 private:
  host::FileDescriptor descriptor_;
};

// While it lives, what is typed is not shown, but for the end of a line; and the keys that suspend
// or abort a program do not work, because the shell would find the terminal so. Signals that end
// the process (SIGKILL cannot be helped) leave the terminal as it was, too.
//
// One at a time in a process; the terminal must outlive it.
class HiddenInput {
 public:
  explicit HiddenInput(const Terminal& terminal);
  HiddenInput(const HiddenInput&) = delete;
  HiddenInput& operator=(const HiddenInput&) = delete;
  ~HiddenInput();

  // Whether it could be done.
  bool hidden() const { return hidden_; }

 private:
  bool hidden_ = false;
};

}  // namespace varnic::tools

#endif  // TOOLS_TERMINAL_H_
