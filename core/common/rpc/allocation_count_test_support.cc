#include "core/common/rpc/allocation_count_test_support.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> g_made{0};
std::atomic<long> g_freed{0};

void* Allocate(std::size_t size) {
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) std::abort();
  ++g_made;
  return memory;
}

void Free(void* memory) {
  if (memory == nullptr) return;
  ++g_freed;
  std::free(memory);
}

}  // namespace

// Every form but the aligned ones, because a sanitizer's own form of one of them would not go with
// ours of another.
void* operator new(std::size_t size) {
  return Allocate(size);
}
void* operator new[](std::size_t size) {
  return Allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return Allocate(size);
}
void operator delete(void* memory) noexcept {
  Free(memory);
}
void operator delete[](void* memory) noexcept {
  Free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  Free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  Free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  Free(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
  Free(memory);
}

namespace varnic::testing {

AllocationCount::AllocationCount() : made_before_(g_made), freed_before_(g_freed) {}

long AllocationCount::made() const {
  return g_made - made_before_;
}
long AllocationCount::freed() const {
  return g_freed - freed_before_;
}

}  // namespace varnic::testing
