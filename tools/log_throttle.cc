#include "tools/log_throttle.h"

namespace varnic::tools {

std::optional<std::uint64_t> LogThrottle::Admit(const char* file, int line,
                                                net::LoopClock::time_point now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Statement& statement = statements_[{file, line}];
  if (!statement.bucket.Take(1, now)) {
    ++statement.left_out;
    return std::nullopt;
  }
  return std::exchange(statement.left_out, 0);
}

}  // namespace varnic::tools
