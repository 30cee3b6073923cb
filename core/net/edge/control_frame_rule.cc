#include "core/net/edge/control_frame_rule.h"

namespace varnic::net {
namespace {

constexpr uint32_t kSettingBytes = 6;

}  // namespace

ControlFrameRule::ControlFrameRule(const FloodLimits& limits)
    : per_exchange_(limits.control_frames_per_exchange), others_(limits.control_frames) {}

bool ControlFrameRule::OnFrame(const FrameHead& frame, TokenBucket::Time now) {
  // A setting may touch every open stream, and no call needs one.
  if (frame.type == FrameType::kSettings) {
    return others_.Take(1 + frame.payload_bytes / kSettingBytes, now);
  }
  if (paid_ == 0) return others_.Take(1, now);
  --paid_;
  return true;
}

}  // namespace varnic::net
