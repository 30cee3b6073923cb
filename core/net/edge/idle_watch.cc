#include "core/net/edge/idle_watch.h"

namespace varnic::net {

bool IdleWatch::IsDue(LoopClock::time_point now, std::size_t open_streams,
                      std::uint64_t streams_opened) {
  if (open_streams > 0) {
    since_.reset();
  } else if (!since_.has_value() || streams_opened != streams_opened_) {
    since_ = now;
  }
  streams_opened_ = streams_opened;
  return since_.has_value() && LoopClock::Between(*since_, now) >= max_idle_;
}

}  // namespace varnic::net
