#include "core/net/http2_memory.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <new>

#include "core/net/block_pool.h"

namespace varnic::net {
namespace {

// nghttp2 does not say how large the block is that it frees, so this stands before each.
struct alignas(std::max_align_t) Head {
  std::size_t size;  // Without the head.
};

Head* HeadOf(void* memory) {
  return static_cast<Head*>(memory) - 1;
}

void* Allocate(std::size_t size, void* /*user_data*/) {
  auto* head = new (BlockPool::Allocate(sizeof(Head) + size)) Head{size};
  return head + 1;
}

void Free(void* memory, void* /*user_data*/) {
  if (memory == nullptr) return;
  Head* head = HeadOf(memory);
  BlockPool::Free(head, sizeof(Head) + head->size);
}

void* AllocateZeroed(std::size_t count, std::size_t size, void* user_data) {
  if (size != 0 && count > std::numeric_limits<std::size_t>::max() / 2 / size) return nullptr;
  return std::memset(Allocate(count * size, user_data), 0, count * size);
}

void* Reallocate(void* memory, std::size_t size, void* user_data) {
  void* moved = Allocate(size, user_data);
  if (memory != nullptr) {
    std::memcpy(moved, memory, std::min(HeadOf(memory)->size, size));
    Free(memory, user_data);
  }
  return moved;
}

}  // namespace

nghttp2_mem Http2Memory() {
  return {/*mem_user_data=*/nullptr, Allocate, Free, AllocateZeroed, Reallocate};
}

}  // namespace varnic::net
