#ifndef CORE_COMMON_RPC_FIELD_WRITER_H_
#define CORE_COMMON_RPC_FIELD_WRITER_H_

#include <google/protobuf/message_lite.h>

#include <cstdint>
#include <string>

namespace varnic {

// Both append one field to a serialised message, for a message that is put together from parts: to
// copy these into an object first costs more than to serialise them. Any thread.
void AppendMessageField(int number, const google::protobuf::MessageLite& value, std::string& bytes);
// An int64 field.
void AppendInt64Field(int number, std::int64_t value, std::string& bytes);

}  // namespace varnic

#endif  // CORE_COMMON_RPC_FIELD_WRITER_H_
