#include "core/common/rpc/readable_payload.h"

#include <google/protobuf/arena.h>

#include <cstddef>

namespace varnic {
namespace {

// Then there is no other text in it either. Most payloads are small and plain.
bool IsAscii(const std::string& payload) {
  unsigned char bits = 0;
  for (const char c : payload) bits = static_cast<unsigned char>(bits | c);
  return bits < 0x80;
}

}  // namespace

bool IsReadable(const google::protobuf::Message& message, const std::string& payload) {
  if (IsAscii(payload)) return true;
  alignas(std::max_align_t) char memory[1024];
  google::protobuf::ArenaOptions options;
  options.initial_block = memory;
  options.initial_block_size = sizeof(memory);
  google::protobuf::Arena arena(options);
  return message.New(&arena)->ParseFromString(payload);
}

}  // namespace varnic
