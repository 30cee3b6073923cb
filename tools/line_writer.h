#ifndef TOOLS_LINE_WRITER_H_
#define TOOLS_LINE_WRITER_H_

#include <cstddef>
#include <functional>
#include <string>

#include "absl/time/time.h"
#include "core/host/file_descriptor.h"
#include "core/net/event_loop.h"

namespace varnic::tools {

// Writes to a pipe, a terminal, a socket or a file whose reader may be slow, or may have stopped,
// without ever waiting for it. What does not get through at once is kept, up to a bound, and tried
// again every 50 ms; what comes when the bound is reached is dropped, and said once there is room.
//
// Belongs to the loop's thread.
class LineWriter {
 public:
  // 1 MiB.
  static constexpr std::size_t kMaxWaitingBytes = 1 << 20;

  struct Listeners {
    // What to write instead of so many dropped texts; null: nothing.
    std::function<std::string(std::size_t dropped)> make_note;
    // The system does not take what is written, for that errno: runs inside Write() or on the loop,
    // once. Nothing is written from then on.
    std::function<void(int error)> on_broken;
  };

  // `descriptor` has to stay open, and stays as it is: others who share it are not to find it not
  // blocking. The loop must outlive the writer.
  LineWriter(net::EventLoop& loop, int descriptor, Listeners listeners);
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;
  // Tries once more.
  ~LineWriter();

  void Write(const std::string& text);
  // Whether something has not got through yet.
  bool waiting() const { return !waiting_.empty(); }
  // Runs `run`, on the loop or inside Write(), as soon as nothing waits, if something does.
  // Replaces an earlier one; null is none.
  void WhenWritten(std::function<void()> run) { when_written_ = std::move(run); }
  // At the end of a program: gives the reader so long, and holds the caller up, for what waits.
  void Finish(absl::Duration patience);

 private:
  // False if it does not take more for now, or does not work.
  bool WriteSome();
  void Flush();
  void Break(int error);

  const Listeners listeners_;
  const host::FileDescriptor own_;  // The same file, opened anew; none if that cannot be done.
  const int descriptor_;
  std::string waiting_;
  std::size_t dropped_ = 0;  // Since the bound was reached.
  bool broken_ = false;
  std::function<void()> when_written_;
  net::Timer retry_;
};

}  // namespace varnic::tools

#endif  // TOOLS_LINE_WRITER_H_
