#ifndef CORE_NET_PROTOCOL_GUARD_H_
#define CORE_NET_PROTOCOL_GUARD_H_

#include <cstddef>
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

// Looks for such faults in what one client sends, from the connection's first byte on.
class ProtocolGuard {
 public:
  struct Result {
    std::size_t sound_bytes;  // What may be processed, with at most a part of the faulty frame.
    std::optional<ProtocolFault> fault;
  };

  // After a fault the guard makes no sense of more.
  Result Inspect(std::string_view bytes);

 private:
  std::optional<ProtocolFault> OnFrame(const FrameHead& frame);
  std::optional<ProtocolFault> OnCallFrame(const FrameHead& frame);

  FrameScanner scanner_;
  StreamHistory streams_;
};

}  // namespace varnic::net

#endif  // CORE_NET_PROTOCOL_GUARD_H_
