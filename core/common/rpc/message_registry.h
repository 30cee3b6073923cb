#ifndef CORE_COMMON_RPC_MESSAGE_REGISTRY_H_
#define CORE_COMMON_RPC_MESSAGE_REGISTRY_H_

#include <google/protobuf/message.h>

#include <unordered_map>

#include "core/common/rpc/message_hash.h"

namespace varnic {

// A table from key messages, by content, to values. It finds an entry with any message of equal
// content, and copies nothing for a look-up.
//
// An entry owns its key: a copy that CloneKey() made, which EraseEntry() deletes. The table's own
// destructor frees the entries but leaves their keys alone. That is deliberate, and whoever
// destroys a table that still has entries must know it: the registries of the stream classes die at
// the process's end, when it does not matter, and a stream empties its tables before it ends.
template <class Value>
using MessageRegistry =
    std::unordered_map<const google::protobuf::Message*, Value, MessageHash, MessageEqual>;

// A heap copy of `key`, for a new entry to own.
inline const google::protobuf::Message* CloneKey(const google::protobuf::Message& key) {
  google::protobuf::Message* clone = key.New(nullptr);
  clone->CopyFrom(key);
  return clone;
}

// Takes `entry` out of `registry` and then deletes its key: in that order, because the table may
// look at the key while the entry is in it.
template <class Value>
void EraseEntry(MessageRegistry<Value>& registry, typename MessageRegistry<Value>::iterator entry) {
  const google::protobuf::Message* key = entry->first;
  registry.erase(entry);
  delete key;
}

}  // namespace varnic

#endif  // CORE_COMMON_RPC_MESSAGE_REGISTRY_H_
