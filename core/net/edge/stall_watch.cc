#include "core/net/edge/stall_watch.h"

#include <algorithm>
#include <utility>

namespace varnic::net {
namespace {

constexpr std::size_t kLeastProgress = 1 << 10;

}  // namespace

absl::Duration ProgressMark::Look(LoopClock::time_point now, std::uint64_t moved,
                                  std::size_t waiting) {
  if (!since_.has_value() || moved >= goal_) {
    since_ = now;
    goal_ = moved + std::min(waiting, kLeastProgress);
  }
  return LoopClock::Between(*since_, now);
}

bool StallWatch::IsStalled(ProgressMark& mark, LoopClock::time_point now, std::uint64_t moved,
                           std::size_t waiting) const {
  if (waiting > 0) return mark.Look(now, moved, waiting) >= timeout_;
  mark.Clear();
  return false;
}

StallWatch::Verdict StallWatch::Look(LoopClock::time_point now, const WaitingOutput& output) {
  Verdict verdict;
  absl::flat_hash_map<std::int32_t, ProgressMark> marks = std::exchange(streams_, {});
  for (const WaitingOutput::Stream& stream : output.streams) {
    if (!stream.window_closed) continue;
    ProgressMark& mark = streams_[stream.id] = marks[stream.id];
    if (IsStalled(mark, now, stream.sent, stream.queued)) verdict.streams.push_back(stream.id);
  }
  const bool by_socket = IsStalled(socket_, now, output.written, output.unwritten);
  const bool by_window =
      IsStalled(window_, now, output.sent, output.window_closed ? output.queued : 0);
  const bool by_streams = !verdict.streams.empty() && verdict.streams.size() == output.open_streams;
  verdict.connection = by_socket || by_window || by_streams;
  return verdict;
}

}  // namespace varnic::net
