#ifndef CORE_NET_EDGE_IDLE_WATCH_H_
#define CORE_NET_EDGE_IDLE_WATCH_H_

#include <cstddef>
#include <cstdint>
#include <optional>

#include "absl/time/time.h"
#include "core/net/loop_clock.h"

namespace varnic::net {

// Tells when a connection has had no open stream for long. Counts the time from the first look that
// finds none, so look a few times in `max_idle`.
class IdleWatch {
 public:
  explicit IdleWatch(absl::Duration max_idle) : max_idle_(max_idle) {}

  // `streams_opened` counts all that ever were.
  bool IsDue(LoopClock::time_point now, std::size_t open_streams, std::uint64_t streams_opened);

 private:
  const absl::Duration max_idle_;
  std::optional<LoopClock::time_point> since_;  // None while a stream is open.
  std::uint64_t streams_opened_ = 0;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_IDLE_WATCH_H_
