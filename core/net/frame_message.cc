#include "core/net/frame_message.h"

#include <google/protobuf/message_lite.h>

#include <algorithm>

#include "core/net/message_framing.h"

namespace varnic::net {

std::string FrameMessage(const google::protobuf::MessageLite& message) {
  const std::size_t size = message.ByteSizeLong();
  const MessagePrefix prefix = MakeMessagePrefix(static_cast<uint32_t>(size));
  std::string framed(prefix.size() + size, '\0');
  std::copy(prefix.begin(), prefix.end(), framed.begin());
  message.SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t*>(&framed[prefix.size()]));
  return framed;
}

}  // namespace varnic::net
