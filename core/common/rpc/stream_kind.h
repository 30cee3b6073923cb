#ifndef CORE_COMMON_RPC_STREAM_KIND_H_
#define CORE_COMMON_RPC_STREAM_KIND_H_

#include <google/protobuf/descriptor.h>

#include <string>

namespace varnic {

// The members of a callback type's oneof `kind` that a client may set.
inline constexpr int kSubscribeNumber = 2;
inline constexpr int kResponseNumber = 4;

// The kinds of method, as the proto file tells them apart. The one rule of the server, of the
// clients and of the generator of their code; it looks at descriptors alone, of whichever pool.
enum class StreamKind {
  // `stream` on one side at most.
  kNone,
  // `stream` on both sides, and the client sends rpc.EventSubscription: the host pushes events.
  kEvents,
  // `stream` on both sides, of one type that CallbackTypeFault() finds nothing wrong with: the host
  // asks, the client answers.
  kCallbacks,
  // Any other stream on both sides: it knows nothing of keys and call ids.
  kPlain,
};

StreamKind KindOfStream(const google::protobuf::MethodDescriptor& method);

// What a type lacks to be that of a callback stream, as the end of the sentence "it needs …"; empty
// if it lacks nothing.
std::string CallbackTypeFault(const google::protobuf::Descriptor& type);

// The number of the field in which a message of a callback stream carries its call id where it goes
// without an envelope: `int64 call_id`, in no oneof. 0 if the type has none.
int CallIdField(const google::protobuf::Descriptor& type);

}  // namespace varnic

#endif  // CORE_COMMON_RPC_STREAM_KIND_H_
