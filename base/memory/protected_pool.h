#ifndef BASE_MEMORY_PROTECTED_POOL_H_
#define BASE_MEMORY_PROTECTED_POOL_H_

#include <cstddef>

// Memory for objects that raw_ptr watches over. Each allocation has a reference count beside it,
// one reference for every raw_ptr that points into it. An object that is freed while referenced is
// filled with kQuarantinedByte, reported once (dangling_raw_ptr_checks.h), and its memory is not
// handed out again before the last raw_ptr lets go: a late access reads a known pattern, never
// another object.
//
// This is not an allocator for everything. It is for the few objects of a class that has
//   static void* operator new(size_t size) { return base::AllocateProtected(size); }
//   static void operator delete(void* memory) { base::FreeProtected(memory); }
// and it has these limits:
// - A slot has 64 bytes, 256, 1 KiB and so on to 1 MiB; 16 bytes of it are the count's.
// - Each size has 8 MiB, and memory once used stays with the process.
// - What does not fit comes from ::operator new and is not protected.
// - An object on the stack or in static storage is not protected either.
// - Leak checkers follow the pointers in the pool, and do not see an object in it that leaks.
//
// Any thread. Freeing memory twice, and setting a raw_ptr to freed memory, end the process as far
// as they are noticed, which is until the memory is handed out again.
namespace base {

inline constexpr unsigned char kQuarantinedByte = 0xEF;

// Aligned for any type not larger than `size` as long as it is in the pool; otherwise as
// ::operator new aligns. Never null.
[[nodiscard]] void* AllocateProtected(size_t size);

// Takes what AllocateProtected() gave, from the pool or not; null is fine.
void FreeProtected(void* memory);

}  // namespace base

#endif  // BASE_MEMORY_PROTECTED_POOL_H_
