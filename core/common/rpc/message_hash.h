#ifndef CORE_COMMON_RPC_MESSAGE_HASH_H_
#define CORE_COMMON_RPC_MESSAGE_HASH_H_

#include <google/protobuf/message.h>

#include <cstddef>

namespace varnic {

// Hash and equality of messages by content, so that a registry finds a key whatever object it was
// made from. Content is the message's type and its deterministic serialisation, unknown fields
// included. Messages that serialise to a few hundred bytes are handled without allocating.
//
// Neither is noexcept, on purpose: libstdc++ keeps the hash codes in the nodes only for a hash that
// might throw, and with the codes there it compares a stored key only when its code equals the
// probe's, and never hashes a stored key again.
struct MessageHash {
  std::size_t operator()(const google::protobuf::Message* message) const;
};

struct MessageEqual {
  bool operator()(const google::protobuf::Message* a, const google::protobuf::Message* b) const;
};

}  // namespace varnic

#endif  // CORE_COMMON_RPC_MESSAGE_HASH_H_
