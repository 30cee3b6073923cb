#include "base/allocator/partition_allocator/partition_address_space.h"

#include <sys/mman.h>

namespace partition_alloc::internal {
namespace {

void* AsPointer(uintptr_t address) {
  return reinterpret_cast<void*>(address);
}

}  // namespace

bool PartitionAddressSpace::Init() {
  if (BRPPoolBase() != kNotReserved) return true;
  // Twice the size holds an aligned range for certain; the rest is given back.
  void* reserved = mmap(nullptr, 2 * kBRPPoolSize, PROT_NONE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, /*fd=*/-1, /*offset=*/0);
  if (reserved == MAP_FAILED) return false;
  const auto begin = reinterpret_cast<uintptr_t>(reserved);
  const uintptr_t base = (begin + kBRPPoolSize - 1) & kBaseMask;
  if (base > begin) munmap(reserved, base - begin);
  munmap(AsPointer(base + kBRPPoolSize), begin + kBRPPoolSize - base);
  brp_pool_base_.store(base, std::memory_order_relaxed);
  return true;
}

}  // namespace partition_alloc::internal
