#include "base/allocator/partition_allocator/dangling_raw_ptr_checks.h"

#include <atomic>
#include <ios>

#include "base/logging.h"

namespace partition_alloc {
namespace {

void LogDanglingRawPtr(uintptr_t id) {
  if (!logging::ShouldCreateLogMessage(logging::LOGGING_ERROR)) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_ERROR).stream()
      << "The object at 0x" << std::hex << id
      << " was destroyed while a raw_ptr still points to it; its memory is kept out of use.";
}

std::atomic<DanglingRawPtrDetectedFn*> g_detected{&LogDanglingRawPtr};

}  // namespace

void SetDanglingRawPtrDetectedFn(DanglingRawPtrDetectedFn* detected) {
  g_detected = detected;
}
DanglingRawPtrDetectedFn* GetDanglingRawPtrDetectedFn() {
  return g_detected;
}

}  // namespace partition_alloc
