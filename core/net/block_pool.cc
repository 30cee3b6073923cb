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
  std::size_t room;  // For bytes more; none while the thread does not keep anything.
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
      kept.room = 0;
    }
  }
  // Makes the thread construct it.
  void Touch() {}
};
thread_local Sweeper t_sweeper;

void BeginToKeep() {
  t_sweeper.Touch();
  t_phase = Phase::kKeeping;
  for (Kept& kept : t_kept) kept.room = kMostKeptBytes;
}

// The number of the size class, and the size of its blocks. None is that of nothing at all.
std::size_t ClassOf(std::size_t size) {
  return (size - 1) / kStep;
}
constexpr std::size_t BlockBytes(std::size_t number) {
  return (number + 1) * kStep;
}

// Out of line: Free() would save registers for it.
[[gnu::noinline]] void FreeWithoutRoom(void* block, std::size_t size) {
  if (t_phase != Phase::kNew) return ::operator delete(block);
  BeginToKeep();
  BlockPool::Free(block, size);
}

}  // namespace

bool BlockPool::Keeps() {
  return kKeeps;
}

void* BlockPool::Allocate(std::size_t size) {
  const std::size_t number = ClassOf(size);
  if (!kKeeps || number >= kClasses) return ::operator new(size);
  Kept& kept = t_kept[number];
  if (kept.first == nullptr) return ::operator new(BlockBytes(number));
  FreeBlock* block = kept.first;
  kept.first = block->next;
  kept.room += BlockBytes(number);
  return block;
}

void BlockPool::Free(void* block, std::size_t size) {
  const std::size_t number = ClassOf(size);
  if (!kKeeps || block == nullptr || number >= kClasses) return ::operator delete(block);
  Kept& kept = t_kept[number];
  if (kept.room < BlockBytes(number)) return FreeWithoutRoom(block, size);
  kept.first = new (block) FreeBlock{kept.first};
  kept.room -= BlockBytes(number);
}

}  // namespace varnic::net
