#ifndef CORE_NET_EDGE_FRAME_GUARD_H_
#define CORE_NET_EDGE_FRAME_GUARD_H_

#include <cstddef>
#include <cstdint>
#include <optional>

#include "absl/functional/function_ref.h"
#include "core/net/edge/continuation_rule.h"
#include "core/net/edge/control_frame_rule.h"
#include "core/net/edge/edge_counters.h"
#include "core/net/edge/empty_frame_rule.h"
#include "core/net/edge/flood_limits.h"
#include "core/net/edge/frame_scanner.h"
#include "core/net/edge/reset_rule.h"
#include "core/net/edge/token_bucket.h"
#include "core/net/edge/unread_answers_rule.h"

namespace varnic::net {

// The flood rules of one client's connection. Is told what goes both ways, and says which rule was
// broken, if any; it ends nothing itself. Sees frames before HTTP/2 makes sense of them, and so
// also those that are then ignored. Is told no more once a rule was broken.
class FrameGuard {
 public:
  using Time = TokenBucket::Time;
  using Verdict = std::optional<EdgeRule>;  // None: all is well.

  // Counts resets in `counters`, which outlives the guard; null counts nothing.
  FrameGuard(const FloodLimits& limits, uint32_t max_streams, EdgeCounters* counters);

  // A frame has arrived; before anything else is done with it. `is_answered` is asked about
  // streams: whether nothing of an answer is still to be sent.
  Verdict OnFrame(const FrameHead& frame, Time now, absl::FunctionRef<bool(int32_t)> is_answered);

  // A DATA frame was sent.
  void OnDataSent() { control_frames_.OnExchange(); }
  // A reset was sent: for a fault of the client's, or because the host wants it.
  Verdict OnResetSent(bool for_fault, Time now);
  // A stream was ended for a fault of the client's without a reset.
  Verdict OnFault(Time now);
  // The client takes no more for now, and `frames` wait for it.
  Verdict OnWaiting(std::size_t frames) const;

 private:
  Verdict OnReset(const FrameHead& frame, Time now, absl::FunctionRef<bool(int32_t)> is_answered);

  EdgeCounters* const counters_;
  ResetRule resets_;
  ControlFrameRule control_frames_;
  EmptyFrameRule empty_frames_;
  ContinuationRule continuations_;
  UnreadAnswersRule unread_answers_;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_FRAME_GUARD_H_
