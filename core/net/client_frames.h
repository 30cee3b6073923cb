#ifndef CORE_NET_CLIENT_FRAMES_H_
#define CORE_NET_CLIENT_FRAMES_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "absl/functional/function_ref.h"
#include "core/net/edge/edge_counters.h"
#include "core/net/edge/flood_limits.h"
#include "core/net/edge/frame_guard.h"
#include "core/net/edge/frame_scanner.h"
#include "core/net/protocol_guard.h"

namespace varnic::net {

// Shows the frames of one client to the guards of its connection, before HTTP/2 makes sense of
// them: the rules against floods, and those of the protocol that nghttp2 lets pass.
class ClientFrames {
 public:
  struct Findings {
    // A flood: nothing of the input is to be processed, nor anything that comes later.
    std::optional<EdgeRule> broken_rule;
    // Otherwise, what may be processed, with at most a part of the faulty frame.
    std::size_t sound_bytes = 0;
    std::optional<ProtocolFault> fault;
  };

  // As for FrameGuard.
  ClientFrames(const FloodLimits& limits, uint32_t max_streams, EdgeCounters* counters)
      : floods_(limits, max_streams, counters) {}

  // What has arrived, from the connection's first byte on; `is_answered` as for FrameGuard. After
  // any finding but sound bytes nothing makes sense of more.
  Findings Inspect(std::string_view bytes, FrameGuard::Time now,
                   absl::FunctionRef<bool(int32_t)> is_answered);

  // What does not arrive as frames, the flood rules are told here.
  FrameGuard& floods() { return floods_; }

 private:
  FrameScanner scanner_;
  FrameGuard floods_;
  ProtocolGuard protocol_;
};

}  // namespace varnic::net

#endif  // CORE_NET_CLIENT_FRAMES_H_
