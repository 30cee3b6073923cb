#ifndef CORE_NET_BLOCK_POOL_H_
#define CORE_NET_BLOCK_POOL_H_

#include <cstddef>

namespace varnic::net {

// Memory for the small objects that come and go with every call. Each thread keeps what it
// has freed, up to 64 KiB of each of two dozen sizes, for the next call: many calls that come at
// once overflow the caches that the C library has for this. Larger blocks are the C library's.
//
// A block may be freed on another thread than it was allocated on. Under AddressSanitizer nothing
// is kept, so that it sees every use of freed memory.
class BlockPool {
 public:
  // Aligned as any object may want it. Never null.
  static void* Allocate(std::size_t size);
  // `size` as it was allocated; null is fine.
  static void Free(void* block, std::size_t size);

  // False under AddressSanitizer.
  static bool Keeps();
};

// For a class whose objects, and those of classes derived from it, are to live in the pool.
class Pooled {
 public:
  static void* operator new(std::size_t size) { return BlockPool::Allocate(size); }
  static void operator delete(void* block, std::size_t size) { BlockPool::Free(block, size); }

 protected:
  ~Pooled() = default;
};

}  // namespace varnic::net

#endif  // CORE_NET_BLOCK_POOL_H_
