#include "core/net/log_limiter.h"

#include <utility>

#include "absl/strings/str_cat.h"

namespace varnic::net {

std::optional<std::uint64_t> LogLimiter::Admit(absl::Time now) {
  // A clock that was set back must not silence the log for as long.
  if (now < next_ && now >= next_ - period_) {
    ++left_out_;
    return std::nullopt;
  }
  next_ = now + period_;
  return std::exchange(left_out_, 0);
}

std::string LogLimiter::More(std::uint64_t left_out) {
  return left_out == 0 ? "" : absl::StrCat(" left_out=", left_out);
}

}  // namespace varnic::net
