#include "core/net/edge/frame_guard.h"

namespace varnic::net {
namespace {

FrameGuard::Verdict BrokenUnless(bool allowed, EdgeRule rule) {
  return allowed ? FrameGuard::Verdict() : rule;
}

}  // namespace

FrameGuard::FrameGuard(const FloodLimits& limits, uint32_t max_streams, EdgeCounters* counters)
    : counters_(counters),
      resets_(limits),
      control_frames_(limits),
      empty_frames_(limits),
      continuations_(limits),
      unread_answers_(limits, max_streams) {}

FrameGuard::Verdict FrameGuard::OnFrame(const FrameHead& frame, Time now,
                                        absl::FunctionRef<bool(int32_t)> is_answered) {
  switch (frame.type) {
    case FrameType::kContinuation:
      if (!continuations_.OnContinuation()) return EdgeRule::kContinuations;
      return BrokenUnless(empty_frames_.OnFrame(frame, now), EdgeRule::kEmptyFrames);
    case FrameType::kHeaders:
      continuations_.OnHeaders();
      control_frames_.OnExchange();
      return BrokenUnless(empty_frames_.OnFrame(frame, now), EdgeRule::kEmptyFrames);
    case FrameType::kData:
      return BrokenUnless(empty_frames_.OnFrame(frame, now), EdgeRule::kEmptyFrames);
    case FrameType::kResetStream:
      return OnReset(frame, now, is_answered);
    default:
      return BrokenUnless(control_frames_.OnFrame(frame, now), EdgeRule::kControlFrames);
  }
}

// A client may let go of a stream whose answer has come; that is one more frame without a call.
FrameGuard::Verdict FrameGuard::OnReset(const FrameHead& frame, Time now,
                                        absl::FunctionRef<bool(int32_t)> is_answered) {
  if (counters_ != nullptr) ++counters_->resets_received;
  if (is_answered(frame.stream_id)) {
    return BrokenUnless(control_frames_.OnFrame(frame, now), EdgeRule::kControlFrames);
  }
  return BrokenUnless(resets_.OnCallTakenBack(now), EdgeRule::kResets);
}

FrameGuard::Verdict FrameGuard::OnResetSent(bool for_fault, Time now) {
  if (counters_ != nullptr) ++counters_->resets_sent;
  return for_fault ? OnFault(now) : Verdict();
}

FrameGuard::Verdict FrameGuard::OnFault(Time now) {
  return BrokenUnless(resets_.OnFault(now), EdgeRule::kResets);
}

FrameGuard::Verdict FrameGuard::OnWaiting(std::size_t frames) const {
  return BrokenUnless(unread_answers_.OnWaiting(frames), EdgeRule::kUnreadAnswers);
}

}  // namespace varnic::net
