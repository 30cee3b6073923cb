#include "core/net/edge/frame_scanner.h"

#include <algorithm>
#include <utility>

namespace varnic::net {
namespace {

constexpr std::size_t kHeadBytes = 9;
constexpr uint32_t kPriorityBytes = 5;

bool MayBePadded(uint8_t type) {
  return type == static_cast<uint8_t>(FrameType::kData) ||
         type == static_cast<uint8_t>(FrameType::kHeaders);
}

uint32_t PayloadBytes(const uint8_t* head) {
  return static_cast<uint32_t>(head[0] << 16 | head[1] << 8 | head[2]);
}

// Of a head of which nine bytes are there. The length of the padding is the first byte of the
// payload.
std::size_t HeadBytes(const uint8_t* head) {
  const bool padded = (head[4] & FrameHead::kPadded) != 0 && MayBePadded(head[3]);
  return padded && PayloadBytes(head) > 0 ? kHeadBytes + 1 : kHeadBytes;
}

}  // namespace

const FrameHead* FrameScanner::Next(std::string_view& bytes) {
  const std::size_t skipped = std::min(skip_, bytes.size());
  bytes.remove_prefix(skipped);
  skip_ -= skipped;
  // Nearly every head lies whole in the input.
  if (size_ == 0 && bytes.size() > kHeadBytes) {
    const auto* head = reinterpret_cast<const uint8_t*>(bytes.data());
    const std::size_t size = HeadBytes(head);
    Parse(head, size);
    bytes.remove_prefix(size);
    return &frame_;
  }
  while (!bytes.empty()) {
    head_[size_++] = static_cast<uint8_t>(bytes.front());
    bytes.remove_prefix(1);
    if (size_ < kHeadBytes || size_ < HeadBytes(head_.data())) continue;
    Parse(head_.data(), std::exchange(size_, 0));
    return &frame_;
  }
  return nullptr;
}

void FrameScanner::Parse(const uint8_t* head, std::size_t size) {
  frame_.type = static_cast<FrameType>(head[3]);
  frame_.flags = head[4];
  const uint32_t id = uint32_t{head[5]} << 24 | uint32_t{head[6]} << 16 | uint32_t{head[7]} << 8 |
                      uint32_t{head[8]};
  frame_.stream_id = static_cast<int32_t>(id & 0x7fffffff);
  frame_.payload_bytes = PayloadBytes(head);
  skip_ = frame_.payload_bytes;
  uint32_t overhead = 0;
  if (size > kHeadBytes) {
    overhead = 1u + head[kHeadBytes];
    --skip_;
  }
  if (frame_.type == FrameType::kHeaders && frame_.Has(FrameHead::kWithPriority)) {
    overhead += kPriorityBytes;
  }
  frame_.content_bytes = frame_.payload_bytes - std::min(overhead, frame_.payload_bytes);
}

}  // namespace varnic::net
