#include "core/net/protocol_guard.h"

namespace varnic::net {
namespace {

// The server announces no other size than the smallest of all.
constexpr uint32_t kMaxFrameBytes = 1 << 14;

}  // namespace

std::string_view ToString(ProtocolFault fault) {
  switch (fault) {
    case ProtocolFault::kFrameTooLarge:
      return "CONTINUATION: too large frame size";
    case ProtocolFault::kStreamEnded:
      return "a frame on a stream that the client has closed";
    case ProtocolFault::kStreamLeftOut:
      return "HEADERS: a smaller stream id than one before";
  }
  return "";
}

std::optional<ProtocolFault> ProtocolGuard::OnFrame(const FrameHead& frame) {
  switch (frame.type) {
    case FrameType::kContinuation:
      if (frame.payload_bytes > kMaxFrameBytes) return ProtocolFault::kFrameTooLarge;
      return std::nullopt;
    case FrameType::kResetStream:
      streams_.OnEnded(frame.stream_id);
      return std::nullopt;
    case FrameType::kHeaders:
    case FrameType::kData:
      // Others are no client's.
      return frame.stream_id % 2 == 1 ? OnCallFrame(frame) : std::nullopt;
    default:
      return std::nullopt;
  }
}

std::optional<ProtocolFault> ProtocolGuard::OnCallFrame(const FrameHead& frame) {
  const bool is_headers = frame.type == FrameType::kHeaders;
  switch (streams_.Find(frame.stream_id)) {
    case StreamHistory::State::kNew:
      if (is_headers) streams_.OnOpened(frame.stream_id);
      break;
    case StreamHistory::State::kMayGoOn:
      break;
    case StreamHistory::State::kEnded:
      return ProtocolFault::kStreamEnded;
    case StreamHistory::State::kLeftOut:
      return is_headers ? ProtocolFault::kStreamLeftOut : ProtocolFault::kStreamEnded;
  }
  if (frame.Has(FrameHead::kEndStream)) streams_.OnEnded(frame.stream_id);
  return std::nullopt;
}

}  // namespace varnic::net
