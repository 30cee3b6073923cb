#include "core/net/block_pool.h"

#include <array>
#include <cstdint>
#include <new>

namespace varnic::net {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kKeeps = false;
#elif defined(__has_feature)
constexpr bool kKeeps = !__has_feature(address_sanitizer);
#else
constexpr bool kKeeps = true;
#endif

constexpr std::size_t kStep = 32;
constexpr std::size_t kLargest = 768;
constexpr std::size_t kClasses = kLargest / kStep;
// Of each size: enough for the calls of a few busy connections.
constexpr std::size_t kMostKeptBytes = 64 << 10;
static_assert(kClasses * kMostKeptBytes < 2 << 20);

struct FreeBlock {
  FreeBlock* next;
};

// Constructed before the first use and never destroyed, so that what is destroyed at the thread's
// end may still free blocks. The Sweeper frees what it keeps then.
struct Kept {
  FreeBlock* first;
  std::size_t bytes;
};
thread_local std::array<Kept, kClasses> t_kept;

enum class Phase : char { kNew, kKeeping, kEnded };
thread_local Phase t_phase;

struct Sweeper {
  ~Sweeper() {
    t_phase = Phase::kEnded;
    for (Kept& kept : t_kept) {
      while (kept.first != nullptr) {
        FreeBlock* block = kept.first;
        kept.first = block->next;
        ::operator delete(block);
      }
    }
  }
  // Makes the thread construct it.
  void Touch() {}
};
thread_local Sweeper t_sweeper;

// Out of line: Free() would save registers for it.
[[gnu::noinline]] bool BeginToKeep() {
  if (t_phase == Phase::kEnded) return false;
  t_sweeper.Touch();
  t_phase = Phase::kKeeping;
  return true;
}

bool MayKeep() {
  return t_phase == Phase::kKeeping || BeginToKeep();
}

// The number of the size class, and the size of its blocks; `size` is not 0.
std::size_t ClassOf(std::size_t size) {
  return (size - 1) / kStep;
}
constexpr std::size_t BlockBytes(std::size_t number) {
  return (number + 1) * kStep;
}

}  // namespace

bool BlockPool::Keeps() {
  return kKeeps;
}

void* BlockPool::Allocate(std::size_t size) {
  if (size == 0) size = 1;
  if (!kKeeps || size > kLargest) return ::operator new(size);
  const std::size_t number = ClassOf(size);
  Kept& kept = t_kept[number];
  if (kept.first == nullptr) return ::operator new(BlockBytes(number));
  FreeBlock* block = kept.first;
  kept.first = block->next;
  kept.bytes -= BlockBytes(number);
  return block;
}

void BlockPool::Free(void* block, std::size_t size) {
  if (block == nullptr) return;
  if (size == 0) size = 1;
  if (!kKeeps || size > kLargest) return ::operator delete(block);
  const std::size_t number = ClassOf(size);
  Kept& kept = t_kept[number];
  if (kept.bytes >= kMostKeptBytes || !MayKeep()) return ::operator delete(block);
  kept.first = new (block) FreeBlock{kept.first};
  kept.bytes += BlockBytes(number);
}

}  // namespace varnic::net
