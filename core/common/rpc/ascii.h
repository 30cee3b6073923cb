#ifndef CORE_COMMON_RPC_ASCII_H_
#define CORE_COMMON_RPC_ASCII_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace varnic {

// Whether no byte of `bytes` has its highest bit set. What is ASCII is UTF-8. Any thread.
inline bool IsAscii(std::string_view bytes) {
  const char* next = bytes.data();
  std::size_t left = bytes.size();
  std::uint64_t bits = 0;
  for (; left >= sizeof(bits); left -= sizeof(bits), next += sizeof(bits)) {
    std::uint64_t word;
    std::memcpy(&word, next, sizeof(word));
    bits |= word;
  }
  for (; left > 0; --left) bits |= static_cast<unsigned char>(*next++);
  return (bits & 0x8080808080808080) == 0;
}

}  // namespace varnic

#endif  // CORE_COMMON_RPC_ASCII_H_
