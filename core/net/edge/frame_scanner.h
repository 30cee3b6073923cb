#ifndef CORE_NET_EDGE_FRAME_SCANNER_H_
#define CORE_NET_EDGE_FRAME_SCANNER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace varnic::net {

// RFC 9113, section 6. There are others, on which HTTP/2 says nothing.
enum class FrameType : uint8_t {
  kData = 0,
  kHeaders = 1,
  kPriority = 2,
  kResetStream = 3,
  kSettings = 4,
  kPushPromise = 5,
  kPing = 6,
  kGoaway = 7,
  kWindowUpdate = 8,
  kContinuation = 9,
};

// What the beginning of a frame says about it.
struct FrameHead {
  // Of the flags, whose meaning depends on the type. (kAck is the same bit as kEndStream.)
  static constexpr uint8_t kEndStream = 0x1;
  static constexpr uint8_t kAck = 0x1;
  static constexpr uint8_t kEndHeaders = 0x4;
  static constexpr uint8_t kPadded = 0x8;
  static constexpr uint8_t kWithPriority = 0x20;

  bool Has(uint8_t flag) const { return (flags & flag) != 0; }

  FrameType type = FrameType::kData;
  uint8_t flags = 0;
  int32_t stream_id = 0;
  uint32_t payload_bytes = 0;
  // Of a DATA or HEADERS frame, what is left of the payload without padding and priority.
  uint32_t content_bytes = 0;
};

// Finds the frames in what a client sends. Looks at nothing but their heads, and believes them:
// whether they are any good is for others to say.
class FrameScanner {
 public:
  // Takes from the front of `bytes` until another head is complete. Null: there is none, and
  // `bytes` is used up. The head is valid until the next call.
  const FrameHead* Next(std::string_view& bytes);

 private:
  void Parse(const uint8_t* head, std::size_t size);

  std::size_t skip_ = 24;  // What comes before the next head; at first, the connection preface.
  std::array<uint8_t, 10> head_ = {};
  std::size_t size_ = 0;  // Of what is there of a head that came in pieces.
  FrameHead frame_;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_FRAME_SCANNER_H_
