#ifndef CORE_NET_FRAME_MESSAGE_H_
#define CORE_NET_FRAME_MESSAGE_H_

#include <string>

namespace google::protobuf {
class MessageLite;
}  // namespace google::protobuf

namespace varnic::net {

// `message`, serialised behind its gRPC prefix, in one piece.
std::string FrameMessage(const google::protobuf::MessageLite& message);

}  // namespace varnic::net

#endif  // CORE_NET_FRAME_MESSAGE_H_
