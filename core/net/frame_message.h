#ifndef CORE_NET_FRAME_MESSAGE_H_
#define CORE_NET_FRAME_MESSAGE_H_

#include <string>
#include <string_view>

#include "absl/types/span.h"

namespace google::protobuf {
class MessageLite;
}  // namespace google::protobuf

namespace varnic::net {

// `message`, serialised behind its gRPC prefix, in one piece.
std::string FrameMessage(const google::protobuf::MessageLite& message);

// The same in `buffer`. A view with a null data() if that is too small.
std::string_view FrameMessageIn(absl::Span<char> buffer,
                                const google::protobuf::MessageLite& message);

}  // namespace varnic::net

#endif  // CORE_NET_FRAME_MESSAGE_H_
