#include "core/net/protocol_guard.h"

namespace varnic::net {
namespace {

// The server announces no other size than the smallest of all.
constexpr uint32_t kMaxFrameBytes = 1 << 14;

// The head of a frame has nine bytes, and the scanner may want one more.
constexpr std::size_t kEndOfHead = 2;

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

ProtocolGuard::Result ProtocolGuard::Inspect(std::string_view bytes) {
  std::string_view rest = bytes;
  while (const FrameHead* frame = scanner_.Next(rest)) {
    const std::optional<ProtocolFault> fault = OnFrame(*frame);
    if (!fault.has_value()) continue;
    const std::size_t scanned = bytes.size() - rest.size();
    return {scanned < kEndOfHead ? 0 : scanned - kEndOfHead, fault};
  }
  return {bytes.size(), std::nullopt};
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
