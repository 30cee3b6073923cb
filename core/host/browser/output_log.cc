#include "core/host/browser/output_log.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "absl/status/statusor.h"
#include "base/logging.h"
#include "core/net/log_field.h"

namespace varnic::host {
namespace {

// One turn of the loop reads at most this much.
constexpr size_t kReadBytes = 16 << 10;
// What a child that never stops writing has read of it in one go.
constexpr int kMaxReads = 64;

}  // namespace

OutputLog::OutputLog(net::EventLoop& loop, FileDescriptor output, pid_t child,
                     std::function<void()> on_end)
    : output_(std::move(output)), child_(child), on_end_(std::move(on_end)) {
  auto watch = net::ReadableWatch::Start(loop, output_.get(), [this] {
    ReadOnce();
    if (!has_ended()) return;
    const auto ended = on_end_;  // May destroy this.
    watch_ = nullptr;
    ended();
  });
  // Without one, the child's lines are lost and it may wait for us: it is as good as hung, and
  // treated so by whoever waits for its answers.
  if (watch.ok()) watch_ = *std::move(watch);
}

void OutputLog::ReadAvailable() {
  for (int i = 0; i < kMaxReads && !has_ended() && ReadOnce(); ++i) continue;
}

bool OutputLog::Says(std::string_view text) const {
  return std::any_of(lines_.begin(), lines_.end(), [text](const std::string& line) {
    return line.find(text) != std::string::npos;
  });
}

bool OutputLog::ReadOnce() {
  char buffer[kReadBytes];
  const ssize_t size = ::read(output_.get(), buffer, sizeof(buffer));
  if (size > 0) {
    Add(std::string_view(buffer, static_cast<size_t>(size)));
    return true;
  }
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return false;
  EndLine();
  watch_ = nullptr;
  output_.Close();
  return false;
}

void OutputLog::Add(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::string_view piece = bytes.substr(0, bytes.find('\n'));
    line_.append(piece.substr(0, kMaxLineBytes - line_.size()));
    if (piece.size() == bytes.size()) return;
    EndLine();
    bytes.remove_prefix(piece.size() + 1);
  }
}

void OutputLog::EndLine() {
  if (line_.empty()) return;
  if (logging::ShouldCreateLogMessage(logging::LOGGING_VERBOSE)) {
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_VERBOSE).stream()
        << "A browser wrote" << net::LogField("pid", std::to_string(child_))
        << net::LogField("line", line_);
  }
  lines_.push_back(std::exchange(line_, {}));
  if (lines_.size() > kMaxLines) lines_.pop_front();
}

}  // namespace varnic::host
