#ifndef CORE_NET_EDGE_CONTINUATION_RULE_H_
#define CORE_NET_EDGE_CONTINUATION_RULE_H_

#include <cstdint>

#include "core/net/edge/flood_limits.h"

namespace varnic::net {

// How many CONTINUATION frames a header block may have (FloodLimits::continuations). Until the last
// one nothing is known about the request, and there need not be a last one.
class ContinuationRule {
 public:
  explicit ContinuationRule(const FloodLimits& limits) : limit_(limits.continuations) {}

  // A header block begins.
  void OnHeaders() { continuations_ = 0; }
  // False: one too many.
  [[nodiscard]] bool OnContinuation() { return continuations_++ < limit_; }

 private:
  const uint32_t limit_;
  uint64_t continuations_ = 0;  // Of the header block that came last.
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_CONTINUATION_RULE_H_
