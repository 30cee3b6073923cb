#ifndef CORE_NET_EDGE_EMPTY_FRAME_RULE_H_
#define CORE_NET_EDGE_EMPTY_FRAME_RULE_H_

#include "core/net/edge/flood_limits.h"
#include "core/net/edge/frame_scanner.h"
#include "core/net/edge/token_bucket.h"

namespace varnic::net {

// How many frames of calls may come that bring nothing and end nothing (FloodLimits::empty_frames):
// DATA without a byte, and parts of a header block without one, whatever their padding. They take
// time, and no window.
class EmptyFrameRule {
 public:
  explicit EmptyFrameRule(const FloodLimits& limits) : empty_frames_(limits.empty_frames) {}

  // Any DATA, HEADERS or CONTINUATION frame. False: one too many.
  [[nodiscard]] bool OnFrame(const FrameHead& frame, TokenBucket::Time now) {
    return !IsEmpty(frame) || empty_frames_.Take(1, now);
  }

 private:
  static bool IsEmpty(const FrameHead& frame) {
    const uint8_t end =
        frame.type == FrameType::kData ? FrameHead::kEndStream : FrameHead::kEndHeaders;
    return frame.content_bytes == 0 && !frame.Has(end);
  }

  TokenBucket empty_frames_;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_EMPTY_FRAME_RULE_H_
