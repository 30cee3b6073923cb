#ifndef CORE_NET_EDGE_CONNECTION_LIMITS_H_
#define CORE_NET_EDGE_CONNECTION_LIMITS_H_

#include "absl/time/time.h"

namespace varnic::net {

// How long one connection may do what. Each of them is off if it is zero or infinite. Looks are
// coarse: a limit may take a quarter longer than it says.
struct ConnectionLimits {
  // Nothing is limited.
  static ConnectionLimits None();
  // For a peer on this machine, which is not lost without a word, and whose pings cost nothing.
  ConnectionLimits ForLocalPeer() const;

  static bool IsOn(absl::Duration limit) {
    return limit > absl::ZeroDuration() && limit < absl::InfiniteDuration();
  }

  // From the connection to the peer's first SETTINGS. TLS has a time of its own before.
  absl::Duration handshake_timeout = absl::Seconds(10);
  // Without an open stream: then GOAWAY. Longer than the half hour after which gRPC's own clients
  // let an idle connection go.
  absl::Duration max_idle = absl::Hours(1);
  // Output waits for the peer, and next to nothing of it moves. A link that takes longer for what
  // is on its way needs more.
  absl::Duration stall_timeout = absl::Seconds(60);
  // Without a byte from the peer: then it is sent a ping, and has the timeout for any answer.
  absl::Duration keepalive_time = absl::Hours(2);
  absl::Duration keepalive_timeout = absl::Seconds(20);
  // Pings are sent while no stream is open, too.
  bool keepalive_without_streams = true;
  // Between two pings of the peer with nothing sent to it in between; see PingPolicy for the slack.
  absl::Duration min_ping_interval = absl::Seconds(10);
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_CONNECTION_LIMITS_H_
