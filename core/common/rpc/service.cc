#include "core/common/rpc/service.h"

// In a browser tree the allocator protects every allocation by itself, and this header is not
// there.
#if __has_include("base/memory/protected_pool.h")
#include "base/memory/protected_pool.h"
#define VARNIC_HAS_PROTECTED_POOL 1
#else
#define VARNIC_HAS_PROTECTED_POOL 0
#endif

namespace varnic {

Service::Service() = default;
Service::~Service() = default;

void* Service::operator new(std::size_t size) {
#if VARNIC_HAS_PROTECTED_POOL
  return base::AllocateProtected(size);
#else
  return ::operator new(size);
#endif
}

void Service::operator delete(void* memory) noexcept {
#if VARNIC_HAS_PROTECTED_POOL
  base::FreeProtected(memory);
#else
  ::operator delete(memory);
#endif
}

}  // namespace varnic
