#include "core/net/edge/token_bucket.h"

namespace varnic::net {
namespace {

constexpr uint64_t kToken = 1'000'000'000;

// Without the overflow that a signed difference could have.
uint64_t NanosecondsBetween(TokenBucket::Time earlier, TokenBucket::Time later) {
  return static_cast<uint64_t>(later.time_since_epoch().count()) -
         static_cast<uint64_t>(earlier.time_since_epoch().count());
}

}  // namespace

TokenBucket::TokenBucket(TokenRate rate)
    : capacity_(rate.burst * kToken), per_second_(rate.per_second), level_(capacity_) {}

bool TokenBucket::Take(uint32_t tokens, Time now) {
  Refill(now);
  if (level_ < tokens * kToken) return false;
  level_ -= tokens * kToken;
  return true;
}

void TokenBucket::Refill(Time now) {
  if (now <= filled_at_) return;
  const uint64_t elapsed = NanosecondsBetween(filled_at_, now);
  filled_at_ = now;
  if (per_second_ == 0) return;
  const uint64_t missing = capacity_ - level_;
  level_ = elapsed > missing / per_second_ ? capacity_ : level_ + elapsed * per_second_;
}

}  // namespace varnic::net
