#include "base/memory/protected_pool.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>

#include "base/allocator/partition_allocator/dangling_raw_ptr_checks.h"
#include "base/allocator/partition_allocator/partition_address_space.h"
#include "base/logging.h"
#include "base/memory/raw_ptr.h"

// The sanitizers' own interface; null in a program that has none.
extern "C" {
[[gnu::weak]] void __asan_poison_memory_region(const volatile void* begin, size_t size);
[[gnu::weak]] void __asan_unpoison_memory_region(const volatile void* begin, size_t size);
[[gnu::weak]] void __lsan_register_root_region(const void* begin, size_t size);
}

namespace base {
namespace {

using partition_alloc::internal::PartitionAddressSpace;

// What a count is made of: one bit while the allocation is live, and the references above it.
constexpr uint32_t kLive = 1;
constexpr uint32_t kReference = 2;

// The end of each slot. Not its beginning, so that a pointer just past an object that fills its
// slot still counts for that object.
struct SlotFooter {
  std::atomic<uint32_t> count{0};
  uint32_t size = 0;
  SlotFooter* next_free = nullptr;
};

// The pool is cut into one region for each size of slot.
struct Region {
  SlotFooter* free = nullptr;
  size_t used = 0;       // Bytes of the slots that were ever handed out.
  size_t committed = 0;  // Bytes that have memory behind them.
};

constexpr size_t kRegionCount = 8;
constexpr size_t kRegionSize = PartitionAddressSpace::kBRPPoolSize / kRegionCount;
constexpr size_t kCommitSize = size_t{64} << 10;

// Never destroyed: objects in static storage may free theirs at the very end.
std::mutex g_mutex;  // Guards the regions and every next_free.
Region g_regions[kRegionCount];

constexpr size_t SlotSize(size_t region) {
  return size_t{64} << (2 * region);
}
constexpr size_t Capacity(size_t region) {
  return SlotSize(region) - sizeof(SlotFooter);
}

static_assert(kRegionSize % SlotSize(kRegionCount - 1) == 0, "slots must fill their region");

void Check(bool condition, const char* message) {
  if (condition) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_FATAL).stream() << message;
}

size_t RegionOf(uintptr_t address) {
  return (address - PartitionAddressSpace::BRPPoolBase()) / kRegionSize;
}

// The start of the slot that `address` lies in; slots are aligned to their own size.
uintptr_t SlotOf(uintptr_t address) {
  return address & ~(SlotSize(RegionOf(address)) - 1);
}

SlotFooter* FooterOf(uintptr_t address) {
  return reinterpret_cast<SlotFooter*>(SlotOf(address) + Capacity(RegionOf(address)));
}

void Poison(uintptr_t begin, size_t size) {
  if (__asan_poison_memory_region == nullptr) return;
  __asan_poison_memory_region(reinterpret_cast<void*>(begin), size);
}

void Unpoison(uintptr_t begin, size_t size) {
  if (__asan_unpoison_memory_region == nullptr) return;
  __asan_unpoison_memory_region(reinterpret_cast<void*>(begin), size);
}

bool ReservePool() {
  static const bool reserved = [] {
    if (!PartitionAddressSpace::Init()) return false;
    if (__lsan_register_root_region != nullptr) {
      __lsan_register_root_region(reinterpret_cast<void*>(PartitionAddressSpace::BRPPoolBase()),
                                  PartitionAddressSpace::kBRPPoolSize);
    }
    return true;
  }();
  return reserved;
}

// A slot that was never handed out; null if there is none or the system has no memory for it.
SlotFooter* TakeFreshSlot(size_t index) {
  Region& region = g_regions[index];
  if (region.used == kRegionSize) return nullptr;
  const uintptr_t begin = PartitionAddressSpace::BRPPoolBase() + index * kRegionSize;
  if (region.used == region.committed) {
    const size_t grow = std::max(SlotSize(index), kCommitSize);
    void* fresh = reinterpret_cast<void*>(begin + region.committed);
    if (mprotect(fresh, grow, PROT_READ | PROT_WRITE) != 0) return nullptr;
    region.committed += grow;
  }
  const uintptr_t slot = begin + region.used;
  region.used += SlotSize(index);
  Poison(slot, Capacity(index));
  return new (reinterpret_cast<void*>(slot + Capacity(index))) SlotFooter;
}

SlotFooter* TakeSlot(size_t index) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  SlotFooter*& free = g_regions[index].free;
  if (free == nullptr) return TakeFreshSlot(index);
  SlotFooter* footer = free;
  free = footer->next_free;
  return footer;
}

void ReturnSlot(SlotFooter* footer) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  SlotFooter*& free = g_regions[RegionOf(reinterpret_cast<uintptr_t>(footer))].free;
  footer->next_free = free;
  free = footer;
}

}  // namespace

void* AllocateProtected(size_t size) {
  size_t index = 0;
  while (index < kRegionCount && size > Capacity(index)) ++index;
  if (index == kRegionCount || !ReservePool()) return ::operator new(size);
  SlotFooter* footer = TakeSlot(index);
  if (footer == nullptr) return ::operator new(size);
  footer->size = static_cast<uint32_t>(size);
  footer->count.store(kLive, std::memory_order_relaxed);
  const uintptr_t slot = SlotOf(reinterpret_cast<uintptr_t>(footer));
  Unpoison(slot, size);
  return reinterpret_cast<void*>(slot);
}

void FreeProtected(void* memory) {
  const auto address = reinterpret_cast<uintptr_t>(memory);
  if (!PartitionAddressSpace::IsInBRPPool(address)) return ::operator delete(memory);
  SlotFooter* footer = FooterOf(address);
  Check(address == SlotOf(address) && (footer->count.load(std::memory_order_relaxed) & kLive) != 0,
        "Memory was freed twice, or was not allocated here");
  // Before the count tells: from then on another thread may let go last and the slot be reused.
  std::memset(memory, kQuarantinedByte, footer->size);
  Poison(address, footer->size);
  const uint32_t before = footer->count.fetch_sub(kLive, std::memory_order_acq_rel);
  if (before == kLive) return ReturnSlot(footer);
  partition_alloc::GetDanglingRawPtrDetectedFn()(address);
}

namespace internal {

template <bool AllowDangling>
void RawPtrBackupRefImpl<AllowDangling>::AcquireInternal(uintptr_t address) {
  const uint32_t before = FooterOf(address)->count.fetch_add(kReference, std::memory_order_relaxed);
  Check(before != 0, "A raw_ptr was set to freed memory");
}

template <bool AllowDangling>
void RawPtrBackupRefImpl<AllowDangling>::ReleaseInternal(uintptr_t address) {
  SlotFooter* footer = FooterOf(address);
  const uint32_t before = footer->count.fetch_sub(kReference, std::memory_order_acq_rel);
  Check(before >= kReference, "A raw_ptr was released that held no reference");
  if (before == kReference) ReturnSlot(footer);
}

template struct RawPtrBackupRefImpl<false>;

}  // namespace internal
}  // namespace base
