#ifndef TOOLS_LOG_THROTTLE_H_
#define TOOLS_LOG_THROTTLE_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "core/net/edge/token_bucket.h"
#include "core/net/loop_clock.h"

namespace varnic::tools {

// Keeps one statement that logs from filling the log, whoever makes it run: each may write 20
// records at once and 10 a second for as long as it goes on. Any thread.
class LogThrottle {
 public:
  // For each record of the statement at `file`, a string literal, and `line`. A value: write it,
  // and say with it that so many of the same statement were left out before. Nothing: leave it out.
  std::optional<std::uint64_t> Admit(const char* file, int line, net::LoopClock::time_point now);

 private:
  struct Statement {
    net::TokenBucket bucket{{20, 10}};
    std::uint64_t left_out = 0;
  };

  std::mutex mutex_;
  std::map<std::pair<const char*, int>, Statement> statements_;
};

}  // namespace varnic::tools

#endif  // TOOLS_LOG_THROTTLE_H_
