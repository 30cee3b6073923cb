#include "core/common/rpc/readable_payload.h"

#include <google/protobuf/arena.h>

#include <cstddef>

#include "core/common/rpc/ascii.h"

namespace varnic {

bool IsReadable(const google::protobuf::Message& message, const std::string& payload) {
  // Then there is no other text in it either. Most payloads are small and plain.
  if (IsAscii(payload)) return true;
  alignas(std::max_align_t) char memory[1024];
  google::protobuf::ArenaOptions options;
  options.initial_block = memory;
  options.initial_block_size = sizeof(memory);
  google::protobuf::Arena arena(options);
  return message.New(&arena)->ParseFromString(payload);
}

}  // namespace varnic
