#include "core/net/edge/edge_counters.h"

namespace varnic::net {

std::string_view RuleName(EdgeRule rule) {
  switch (rule) {
    case EdgeRule::kConnections:
      return "too_many_connections";
    case EdgeRule::kHandshake:
      return "handshake_timeout";
    case EdgeRule::kIdle:
      return "max_idle";
    case EdgeRule::kStalled:
      return "peer_reads_nothing";
    case EdgeRule::kKeepalive:
      return "keepalive_timeout";
    case EdgeRule::kPings:
      return "too_many_pings";
    case EdgeRule::kResets:
      return "too_many_resets";
    case EdgeRule::kControlFrames:
      return "too_many_control_frames";
    case EdgeRule::kEmptyFrames:
      return "too_many_empty_frames";
    case EdgeRule::kContinuations:
      return "too_many_continuations";
    case EdgeRule::kUnreadAnswers:
      return "answers_left_unread";
  }
  return "";
}

}  // namespace varnic::net
