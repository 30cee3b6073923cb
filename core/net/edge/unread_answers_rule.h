#ifndef CORE_NET_EDGE_UNREAD_ANSWERS_RULE_H_
#define CORE_NET_EDGE_UNREAD_ANSWERS_RULE_H_

#include <cstddef>
#include <cstdint>

#include "core/net/edge/flood_limits.h"

namespace varnic::net {

// How many frames may wait for a client that makes the server answer and reads no answers
// (FloodLimits::unread_answers). Messages are not among them: they wait for the client's windows.
class UnreadAnswersRule {
 public:
  // Each of the client's `max_streams` has an answer that may wait besides.
  UnreadAnswersRule(const FloodLimits& limits, uint32_t max_streams)
      : limit_(limits.unread_answers + max_streams) {}

  // The client takes no more for now, and `frames` wait for it. False: too many.
  [[nodiscard]] bool OnWaiting(std::size_t frames) const { return frames <= limit_; }

 private:
  const std::size_t limit_;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_UNREAD_ANSWERS_RULE_H_
