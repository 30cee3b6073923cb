#include "core/net/frame_message.h"

#include <google/protobuf/message_lite.h>

#include <tuple>

#include "core/net/message_framing.h"

namespace varnic::net {

namespace {

// `framed` has room for the prefix and `size` bytes, which is what the message takes.
void Frame(const google::protobuf::MessageLite& message, std::size_t size, char* framed) {
  char* payload = WriteMessagePrefix(static_cast<uint32_t>(size), framed);
  message.SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t*>(payload));
}

}  // namespace

std::string FrameMessage(const google::protobuf::MessageLite& message) {
  const std::size_t size = message.ByteSizeLong();
  std::string framed(std::tuple_size<MessagePrefix>::value + size, '\0');
  Frame(message, size, framed.data());
  return framed;
}

std::string_view FrameMessageIn(absl::Span<char> buffer,
                                const google::protobuf::MessageLite& message) {
  const std::size_t size = message.ByteSizeLong();
  const std::size_t framed_size = std::tuple_size<MessagePrefix>::value + size;
  if (framed_size > buffer.size()) return {};
  Frame(message, size, buffer.data());
  return {buffer.data(), framed_size};
}

}  // namespace varnic::net
