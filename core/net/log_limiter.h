#ifndef CORE_NET_LOG_LIMITER_H_
#define CORE_NET_LOG_LIMITER_H_

#include <cstdint>
#include <optional>
#include <string>

#include "absl/time/clock.h"
#include "absl/time/time.h"

namespace varnic::net {

// Keeps peers from filling the log: lets one record through in each period, and counts the others.
// One thread only.
class LogLimiter {
 public:
  explicit LogLimiter(absl::Duration period = absl::Seconds(1)) : period_(period) {}

  // For each record that somebody wants to write. A value: write it, and say with it that so many
  // were left out since the last one. Nothing: leave it out.
  std::optional<std::uint64_t> Admit(absl::Time now = absl::Now());

  // What to say about those that were left out: " left_out=7", or nothing.
  static std::string More(std::uint64_t left_out);

 private:
  const absl::Duration period_;
  absl::Time next_ = absl::InfinitePast();
  std::uint64_t left_out_ = 0;
};

}  // namespace varnic::net

#endif  // CORE_NET_LOG_LIMITER_H_
