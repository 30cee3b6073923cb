#ifndef CORE_NET_EDGE_RESET_RULE_H_
#define CORE_NET_EDGE_RESET_RULE_H_

#include "core/net/edge/flood_limits.h"
#include "core/net/edge/token_bucket.h"

namespace varnic::net {

// How often the streams of a client may end in a reset (FloodLimits::resets). A stream that is
// reset at once makes the server begin a call for nothing and counts against no limit of open ones,
// and that is so whichever end sends the reset: a client can break the rules on a stream until the
// server resets it.
//
// Counts not: resets that the server's own host wants, and those that come when there was an
// answer.
class ResetRule {
 public:
  explicit ResetRule(const FloodLimits& limits) : resets_(limits.resets) {}

  // The client has taken back a call that had no answer yet. False: once too often.
  [[nodiscard]] bool OnCallTakenBack(TokenBucket::Time now) { return resets_.Take(1, now); }
  // The server has ended a stream for what the client did on it.
  [[nodiscard]] bool OnFault(TokenBucket::Time now) { return resets_.Take(1, now); }

 private:
  TokenBucket resets_;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_RESET_RULE_H_
