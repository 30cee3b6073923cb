#include "core/net/edge/control_frame_rule.h"

namespace varnic::net {
namespace {

constexpr uint32_t kSettingBytes = 6;

}  // namespace

ControlFrameRule::ControlFrameRule(const FloodLimits& limits)
    : per_exchange_(limits.control_frames_per_exchange),
      settings_entries_(limits.settings_entries),
      others_(limits.control_frames) {}

bool ControlFrameRule::OnFrame(const FrameHead& frame, TokenBucket::Time now) {
  // A setting may touch every open stream, and no call needs one.
  if (frame.type == FrameType::kSettings) {
    const uint32_t entries = frame.payload_bytes / kSettingBytes;
    return entries <= settings_entries_ && others_.Take(1 + entries, now);
  }
  if (paid_ == 0) return others_.Take(1, now);
  --paid_;
  return true;
}

}  // namespace varnic::net
