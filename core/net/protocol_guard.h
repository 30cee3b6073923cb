#ifndef CORE_NET_PROTOCOL_GUARD_H_
#define CORE_NET_PROTOCOL_GUARD_H_

#include <optional>
#include <string_view>

#include "core/net/edge/frame_scanner.h"
#include "core/net/stream_history.h"

namespace varnic::net {

// What RFC 9113 forbids a client, and nghttp2 lets pass. Each ends the connection.
enum class ProtocolFault {
  kFrameTooLarge,  // A CONTINUATION frame of more than 16,384 bytes (section 4.2).
  kStreamEnded,    // HEADERS or DATA on a stream that the client has ended, or left out (5.1).
  kStreamLeftOut,  // HEADERS with a smaller stream id than the client has used before (5.1.1).
};

std::string_view ToString(ProtocolFault fault);

// Looks for such faults in what one client sends, from the connection's first frame on. After a
// fault the guard makes no sense of more.
class ProtocolGuard {
 public:
  std::optional<ProtocolFault> OnFrame(const FrameHead& frame);

 private:
  std::optional<ProtocolFault> OnCallFrame(const FrameHead& frame);

  StreamHistory streams_;
};

}  // namespace varnic::net

#endif  // CORE_NET_PROTOCOL_GUARD_H_
