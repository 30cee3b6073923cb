#ifndef BENCH_SIDE_BY_SIDE_GRPC_MESSAGES_H_
#define BENCH_SIDE_BY_SIDE_GRPC_MESSAGES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The messages of rpc.Profile that a load generator needs, written and read without protobuf's
// library. Each is shorter than 128 bytes, so that every length takes one byte.
namespace varnic::bench {

// The tag of a field that has a length.
constexpr char TagOf(int field) {
  return static_cast<char>(field << 3 | 2);
}

inline std::string Field(int field, std::string_view content) {
  return std::string{TagOf(field), static_cast<char>(content.size())}.append(content);
}

// A ProfileId or a google.protobuf.StringValue.
inline std::string TextMessage(std::string_view text) {
  return Field(1, text);
}

// To rpc.EventSubscription and rpc.CanAccessFile alike: field 2 is 1.
inline std::string Subscription(std::string_view key) {
  return Field(1, TextMessage(key)) + std::string{2 << 3, 1};
}

inline void AppendVarint(std::uint64_t value, std::string& out) {
  for (; value >= 0x80; value >>= 7) out.push_back(static_cast<char>(value | 0x80));
  out.push_back(static_cast<char>(value));
}

inline std::uint64_t TakeVarint(std::string_view& bytes) {
  std::uint64_t value = 0;
  for (int shift = 0; !bytes.empty() && shift < 64; shift += 7) {
    const auto byte = static_cast<unsigned char>(bytes.front());
    bytes.remove_prefix(1);
    value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
    if (byte < 0x80) break;
  }
  return value;
}

// The call_id of an rpc.CanAccessFile; 0 if it has none.
inline std::uint64_t CallIdOf(std::string_view question) {
  while (!question.empty()) {
    const std::uint64_t tag = TakeVarint(question);
    const std::uint64_t value = TakeVarint(question);
    if (tag == 5 << 3) return value;
    if ((tag & 7) == 2) question.remove_prefix(value < question.size() ? value : question.size());
  }
  return 0;
}

// An rpc.CanAccessFile that allows.
inline std::string Answer(std::string_view key, std::uint64_t call_id) {
  std::string answer = Field(1, TextMessage(key)) + Field(4, std::string{1 << 3, 1});
  answer.push_back(5 << 3);
  AppendVarint(call_id, answer);
  return answer;
}

// With gRPC's framing.
inline std::string Framed(std::string_view message) {
  return std::string{0, 0, 0, 0, static_cast<char>(message.size())}.append(message);
}

}  // namespace varnic::bench

#endif  // BENCH_SIDE_BY_SIDE_GRPC_MESSAGES_H_
