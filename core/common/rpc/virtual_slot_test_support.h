#ifndef CORE_COMMON_RPC_VIRTUAL_SLOT_TEST_SUPPORT_H_
#define CORE_COMMON_RPC_VIRTUAL_SLOT_TEST_SUPPORT_H_

#include <cstddef>
#include <cstring>

namespace varnic::testing {

// The place of a virtual member function in its class's dispatch table, where the destructor has
// the places 0 and 1 (Itanium C++ ABI: a pointer to a virtual member starts with its byte offset,
// plus one on most machines).
template <class Method>
std::size_t VirtualSlot(Method method) {
  static_assert(sizeof(method) == 2 * sizeof(std::size_t));
  std::size_t offset = 0;
  std::memcpy(&offset, &method, sizeof(offset));
  return offset / sizeof(void*);
}

}  // namespace varnic::testing

#endif  // CORE_COMMON_RPC_VIRTUAL_SLOT_TEST_SUPPORT_H_
