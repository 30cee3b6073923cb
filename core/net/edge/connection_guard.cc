#include "core/net/edge/connection_guard.h"

#include <algorithm>
#include <utility>

namespace varnic::net {
namespace {

// How often a watch looks in the time that it waits for. Its time begins up to one look late, and
// looks for other rules may put its last one off by another: a quarter in all.
constexpr int kLooks = 8;

void LookAgainIn(absl::Duration delay, ConnectionGuard::Verdict& verdict) {
  verdict.next_look = std::min(verdict.next_look, delay);
}

}  // namespace

ConnectionGuard::ConnectionGuard(const ConnectionLimits& limits, LoopClock::time_point now)
    : limits_(limits), begin_(now) {
  if (ConnectionLimits::IsOn(limits.max_idle)) idle_.emplace(limits.max_idle);
  if (ConnectionLimits::IsOn(limits.stall_timeout)) stall_.emplace(limits.stall_timeout);
  if (ConnectionLimits::IsOn(limits.keepalive_time)) {
    const bool gives_up = ConnectionLimits::IsOn(limits.keepalive_timeout);
    keepalive_.emplace(limits.keepalive_time,
                       gives_up ? limits.keepalive_timeout : absl::InfiniteDuration());
  }
  if (ConnectionLimits::IsOn(limits.min_ping_interval)) pings_.emplace(limits.min_ping_interval);
}

ConnectionGuard::Verdict ConnectionGuard::Look(LoopClock::time_point now,
                                               const Activity& activity) {
  Verdict verdict;
  LookAtIdleness(now, activity, verdict);
  LookAtOutput(now, activity, verdict);
  LookForLife(now, activity, verdict);
  LookAtHandshake(now, activity, verdict);
  return verdict;
}

bool ConnectionGuard::AdmitPing(LoopClock::time_point now, std::uint64_t frames_sent) {
  return !pings_.has_value() || pings_->Admit(now, frames_sent);
}

void ConnectionGuard::LookAtHandshake(LoopClock::time_point now, const Activity& activity,
                                      Verdict& verdict) const {
  if (activity.greeted || !ConnectionLimits::IsOn(limits_.handshake_timeout)) return;
  const absl::Duration left = limits_.handshake_timeout - LoopClock::Between(begin_, now);
  if (left <= absl::ZeroDuration()) {
    verdict.end = EdgeRule::kHandshake;
  } else {
    LookAgainIn(left, verdict);
  }
}

void ConnectionGuard::LookAtIdleness(LoopClock::time_point now, const Activity& activity,
                                     Verdict& verdict) {
  if (!idle_.has_value()) return;
  const bool due = idle_->IsDue(now, activity.output.open_streams, activity.streams_opened);
  // A peer that has something to read yet would read of the end too late.
  if (due && activity.output.unwritten == 0) {
    verdict.end = EdgeRule::kIdle;
    return idle_.reset();
  }
  LookAgainIn(limits_.max_idle / kLooks, verdict);
}

void ConnectionGuard::LookAtOutput(LoopClock::time_point now, const Activity& activity,
                                   Verdict& verdict) {
  if (!stall_.has_value()) return;
  StallWatch::Verdict stalled = stall_->Look(now, activity.output);
  if (stalled.connection) verdict.end = EdgeRule::kStalled;
  verdict.stalled_streams = std::move(stalled.streams);
  watches_output_ = !activity.output.empty();
  if (watches_output_) LookAgainIn(limits_.stall_timeout / kLooks, verdict);
}

void ConnectionGuard::LookForLife(LoopClock::time_point now, const Activity& activity,
                                  Verdict& verdict) {
  if (!keepalive_.has_value()) return;
  const bool wanted = limits_.keepalive_without_streams || activity.output.open_streams > 0;
  const KeepaliveWatch::Step step = keepalive_->Look(now, activity.bytes_received, wanted);
  if (step == KeepaliveWatch::Step::kGiveUp) verdict.end = EdgeRule::kKeepalive;
  verdict.ping = step == KeepaliveWatch::Step::kPing;
  LookAgainIn(keepalive_->next_look(), verdict);
}

}  // namespace varnic::net
