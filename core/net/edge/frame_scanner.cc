#include "core/net/edge/frame_scanner.h"

#include <algorithm>

namespace varnic::net {
namespace {

constexpr std::size_t kHeadBytes = 9;
constexpr uint32_t kPriorityBytes = 5;

bool MayBePadded(uint8_t type) {
  return type == static_cast<uint8_t>(FrameType::kData) ||
         type == static_cast<uint8_t>(FrameType::kHeaders);
}

}  // namespace

const FrameHead* FrameScanner::Next(std::string_view& bytes) {
  const std::size_t skipped = std::min(skip_, bytes.size());
  bytes.remove_prefix(skipped);
  skip_ -= skipped;
  while (!bytes.empty()) {
    head_[size_++] = static_cast<uint8_t>(bytes.front());
    bytes.remove_prefix(1);
    if (size_ < HeadBytes()) continue;
    Parse();
    return &frame_;
  }
  return nullptr;
}

// The length of the padding is the first byte of the payload.
std::size_t FrameScanner::HeadBytes() const {
  if (size_ < kHeadBytes) return kHeadBytes;
  const bool padded = MayBePadded(head_[3]) && (head_[4] & FrameHead::kPadded) != 0;
  return padded && PayloadBytes() > 0 ? kHeadBytes + 1 : kHeadBytes;
}

uint32_t FrameScanner::PayloadBytes() const {
  return static_cast<uint32_t>(head_[0] << 16 | head_[1] << 8 | head_[2]);
}

void FrameScanner::Parse() {
  frame_.type = static_cast<FrameType>(head_[3]);
  frame_.flags = head_[4];
  const uint32_t id = uint32_t{head_[5]} << 24 | uint32_t{head_[6]} << 16 |
                      uint32_t{head_[7]} << 8 | uint32_t{head_[8]};
  frame_.stream_id = static_cast<int32_t>(id & 0x7fffffff);
  frame_.payload_bytes = PayloadBytes();
  skip_ = frame_.payload_bytes;
  uint32_t overhead = 0;
  if (size_ > kHeadBytes) {
    overhead = 1u + head_[kHeadBytes];
    --skip_;
  }
  if (frame_.type == FrameType::kHeaders && frame_.Has(FrameHead::kWithPriority)) {
    overhead += kPriorityBytes;
  }
  frame_.content_bytes = frame_.payload_bytes - std::min(overhead, frame_.payload_bytes);
  size_ = 0;
}

}  // namespace varnic::net
