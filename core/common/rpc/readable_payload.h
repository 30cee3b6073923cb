#ifndef CORE_COMMON_RPC_READABLE_PAYLOAD_H_
#define CORE_COMMON_RPC_READABLE_PAYLOAD_H_

#include <google/protobuf/message.h>

#include <string>

namespace varnic {

// Whether a peer can parse `payload`, which is a message of the type of `message`, serialised.
// Protobuf serialises text that is no UTF-8, and then refuses to parse it. Any thread.
bool IsReadable(const google::protobuf::Message& message, const std::string& payload);

}  // namespace varnic

#endif  // CORE_COMMON_RPC_READABLE_PAYLOAD_H_
