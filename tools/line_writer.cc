#include "tools/line_writer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/time/clock.h"

namespace varnic::tools {
namespace {

constexpr absl::Duration kRetryInterval = absl::Milliseconds(50);

// Files on disk would be written from their beginning, and never block for long.
host::FileDescriptor OpenAnew(int descriptor) {
  struct stat file = {};
  if (fstat(descriptor, &file) != 0 || !(S_ISFIFO(file.st_mode) || S_ISCHR(file.st_mode))) {
    return host::FileDescriptor();
  }
  const std::string path = absl::StrCat("/proc/self/fd/", descriptor);
  return host::FileDescriptor(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
}

bool TakesMore(int descriptor, int milliseconds) {
  pollfd end = {descriptor, POLLOUT, 0};
  return poll(&end, 1, milliseconds) > 0;
}

// Does not block, but for a terminal that cannot be opened anew and has room for a part.
ssize_t TryWrite(int descriptor, const std::string& text) {
  const ssize_t sent = send(descriptor, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0 || errno != ENOTSOCK) return sent;
  if (!TakesMore(descriptor, 0)) {
    errno = EAGAIN;
    return -1;
  }
  // What a pipe takes whole if it takes anything.
  return write(descriptor, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
}

}  // namespace

LineWriter::LineWriter(net::EventLoop& loop, int descriptor, Listeners listeners)
    : listeners_(std::move(listeners)),
      own_(OpenAnew(descriptor)),
      descriptor_(own_ ? own_.get() : descriptor),
      retry_(loop) {}

LineWriter::~LineWriter() {
  when_written_ = nullptr;
  while (!waiting_.empty() && WriteSome()) continue;
}

void LineWriter::Write(const std::string& text) {
  if (broken_ || text.empty()) return;
  if (dropped_ > 0 || waiting_.size() + text.size() > kMaxWaitingBytes) {
    ++dropped_;
    return;
  }
  waiting_ += text;
  Flush();
}

bool LineWriter::WriteSome() {
  const ssize_t count = TryWrite(descriptor_, waiting_);
  if (count >= 0) {
    waiting_.erase(0, static_cast<std::size_t>(count));
    return true;
  }
  if (errno == EINTR) return true;
  if (errno != EAGAIN) Break(errno);
  return false;
}

void LineWriter::Flush() {
  while (!waiting_.empty() && WriteSome()) {
    if (!waiting_.empty() || dropped_ == 0) continue;
    const std::size_t dropped = std::exchange(dropped_, 0);
    if (listeners_.make_note != nullptr) waiting_ = listeners_.make_note(dropped);
  }
  if (!waiting_.empty()) {
    retry_.Start(kRetryInterval, [this] { Flush(); });
  } else if (auto run = std::exchange(when_written_, nullptr); run != nullptr) {
    run();
  }
}

void LineWriter::Break(int error) {
  broken_ = true;
  waiting_.clear();
  dropped_ = 0;
  if (listeners_.on_broken != nullptr) listeners_.on_broken(error);
}

void LineWriter::Finish(absl::Duration patience) {
  const absl::Time end = absl::Now() + patience;
  Flush();
  for (absl::Duration left = patience; waiting() && left > absl::ZeroDuration();
       left = end - absl::Now()) {
    if (TakesMore(descriptor_, static_cast<int>(absl::ToInt64Milliseconds(left)) + 1)) Flush();
  }
}

}  // namespace varnic::tools
