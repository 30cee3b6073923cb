#ifndef BASE_ALLOCATOR_PARTITION_ALLOCATOR_DANGLING_RAW_PTR_CHECKS_H_
#define BASE_ALLOCATOR_PARTITION_ALLOCATOR_DANGLING_RAW_PTR_CHECKS_H_

#include <cstdint>

namespace partition_alloc {

// Called once for each object that is freed while a raw_ptr still holds it, on the thread that
// frees it, after its destructor. `id` tells the objects apart: it is the address of the
// allocation, which is not to be read.
using DanglingRawPtrDetectedFn = void(uintptr_t id);

// The default writes an ERROR record. `detected` must not be null. Any thread.
void SetDanglingRawPtrDetectedFn(DanglingRawPtrDetectedFn* detected);
DanglingRawPtrDetectedFn* GetDanglingRawPtrDetectedFn();

}  // namespace partition_alloc

#endif  // BASE_ALLOCATOR_PARTITION_ALLOCATOR_DANGLING_RAW_PTR_CHECKS_H_
