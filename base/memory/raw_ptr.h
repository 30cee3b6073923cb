#ifndef BASE_MEMORY_RAW_PTR_H_
#define BASE_MEMORY_RAW_PTR_H_

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "base/allocator/partition_allocator/partition_address_space.h"

namespace base {
namespace internal {

// The book-keeping of raw_ptr: a reference on the allocation that an address lies in. Any thread.
template <bool AllowDangling>
struct RawPtrBackupRefImpl {
  static_assert(!AllowDangling, "this stand-in knows no pointers that may dangle");

  // Only for an address in the pool.
  static void AcquireInternal(uintptr_t address);
  static void ReleaseInternal(uintptr_t address);

  template <typename T>
  static T* WrapRawPtr(T* pointer) {
    const auto address = reinterpret_cast<uintptr_t>(pointer);
    if (IsSupportedAndNotNull(address)) AcquireInternal(address);
    return pointer;
  }

  template <typename T>
  static void ReleaseWrappedPtr(T* pointer) {
    const auto address = reinterpret_cast<uintptr_t>(pointer);
    if (IsSupportedAndNotNull(address)) ReleaseInternal(address);
  }

  static bool IsSupportedAndNotNull(uintptr_t address) {
    return partition_alloc::internal::PartitionAddressSpace::IsInBRPPool(address);
  }
};

}  // namespace internal

// A pointer that owns nothing but makes a use after free harmless and loud. While it points into
// the protected pool (protected_pool.h), it holds a reference on that allocation, which keeps the
// memory out of reuse after the object has been freed. To anything else it is a plain pointer.
//
// It is one word, the plain pointer, null by default, when moved from, and after its destructor.
// T may be incomplete. One thread at a time, as with a plain pointer; raw_ptrs of different threads
// may hold the same object. It has no arithmetic of its own: what is computed with it is a plain
// pointer.
template <typename T>
class raw_ptr {
  using Impl = internal::RawPtrBackupRefImpl<false>;
  template <typename U>
  using EnableIfConvertible = std::enable_if_t<std::is_convertible_v<U*, T*>>;

 public:
  constexpr raw_ptr() noexcept = default;
  constexpr raw_ptr(std::nullptr_t) noexcept {}                              // NOLINT: implicit
  raw_ptr(T* pointer) noexcept : wrapped_ptr_(Impl::WrapRawPtr(pointer)) {}  // NOLINT: implicit
  raw_ptr(const raw_ptr& other) noexcept : raw_ptr(other.wrapped_ptr_) {}
  raw_ptr(raw_ptr&& other) noexcept : wrapped_ptr_(std::exchange(other.wrapped_ptr_, nullptr)) {}
  template <typename U, typename = EnableIfConvertible<U>>
  raw_ptr(const raw_ptr<U>& other) noexcept : raw_ptr(static_cast<T*>(other.get())) {}  // NOLINT
  template <typename U, typename = EnableIfConvertible<U>>
  raw_ptr(raw_ptr<U>&& other) noexcept : raw_ptr(static_cast<T*>(other.get())) {  // NOLINT
    other = nullptr;
  }

  ~raw_ptr() {
    Impl::ReleaseWrappedPtr(wrapped_ptr_);
    // Volatile, or the compiler would drop a store that no valid read can see.
    *const_cast<T* volatile*>(&wrapped_ptr_) = nullptr;
  }

  raw_ptr& operator=(raw_ptr other) noexcept {
    std::swap(wrapped_ptr_, other.wrapped_ptr_);
    return *this;
  }

  T* get() const { return wrapped_ptr_; }
  T* operator->() const { return wrapped_ptr_; }
  std::add_lvalue_reference_t<T> operator*() const { return *wrapped_ptr_; }

  operator T*() const { return wrapped_ptr_; }  // NOLINT: implicit
  // For static_cast, which may go down to a derived type.
  template <typename U>
  explicit operator U*() const {
    return static_cast<U*>(wrapped_ptr_);
  }

 private:
  T* wrapped_ptr_ = nullptr;
};

}  // namespace base

using base::raw_ptr;

#endif  // BASE_MEMORY_RAW_PTR_H_
