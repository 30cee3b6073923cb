#ifndef BASE_ALLOCATOR_PARTITION_ALLOCATOR_PARTITION_ADDRESS_SPACE_H_
#define BASE_ALLOCATOR_PARTITION_ALLOCATOR_PARTITION_ADDRESS_SPACE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace partition_alloc::internal {

// The one range of addresses in which allocations have a reference count (the BRP pool, for
// "backup reference pointer"). Who allocates in it: base/memory/protected_pool.h.
//
// Reserved on first use and never given back. Any thread.
class PartitionAddressSpace {
 public:
  static constexpr size_t kBRPPoolSize = size_t{64} << 20;

  // Reserves the range, without memory behind it, unless that was done before. False if the system
  // refuses. Not to be called by two threads at a time.
  [[nodiscard]] static bool Init();

  static bool IsInBRPPool(uintptr_t address) { return (address & kBaseMask) == BRPPoolBase(); }

  // Meaningful after Init(). Relaxed: whoever has an address in the pool got it after Init().
  static uintptr_t BRPPoolBase() { return brp_pool_base_.load(std::memory_order_relaxed); }

 private:
  static constexpr uintptr_t kBaseMask = ~uintptr_t{kBRPPoolSize - 1};
  static constexpr uintptr_t kNotReserved = 1;  // No masked address equals it.

  static inline std::atomic<uintptr_t> brp_pool_base_{kNotReserved};
};

}  // namespace partition_alloc::internal

#endif  // BASE_ALLOCATOR_PARTITION_ALLOCATOR_PARTITION_ADDRESS_SPACE_H_
