#include "base/memory/protected_pool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/allocator/partition_allocator/dangling_raw_ptr_checks.h"
#include "base/allocator/partition_allocator/partition_address_space.h"
#include "base/logging.h"
#include "base/memory/raw_ptr.h"

extern "C" {
[[gnu::weak]] int __asan_address_is_poisoned(const volatile void* address);
[[gnu::weak]] int __lsan_do_recoverable_leak_check();
}

namespace base {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

uintptr_t AddressOf(const volatile void* memory) {
  return reinterpret_cast<uintptr_t>(memory);
}

bool IsInPool(const void* memory) {
  return partition_alloc::internal::PartitionAddressSpace::IsInBRPPool(AddressOf(memory));
}

// Looks at freed memory too, which the address sanitizer would not let us.
[[gnu::no_sanitize_address, gnu::noinline]] bool IsFilledWith(const volatile unsigned char* memory,
                                                              size_t size, unsigned char byte) {
  for (size_t i = 0; i < size; ++i) {
    if (memory[i] != byte) return false;
  }
  return true;
}

std::vector<uintptr_t>& Reports() {
  static std::vector<uintptr_t> reports;
  return reports;
}

void Report(uintptr_t id) {
  Reports().push_back(id);
}

class ProtectedPoolTest : public ::testing::Test {
 protected:
  ProtectedPoolTest() { partition_alloc::SetDanglingRawPtrDetectedFn(&Report); }
  ~ProtectedPoolTest() override {
    partition_alloc::SetDanglingRawPtrDetectedFn(default_detected_);
    Reports().clear();
  }

  partition_alloc::DanglingRawPtrDetectedFn* default_detected() const { return default_detected_; }

  // Whether the next allocation of this size is at `address`. A slot that is given back is the
  // first to be taken again.
  static bool IsNextAllocation(uintptr_t address, size_t size) {
    void* next = AllocateProtected(size);
    const bool same = AddressOf(next) == address;
    FreeProtected(next);
    return same;
  }

 private:
  partition_alloc::DanglingRawPtrDetectedFn* const default_detected_ =
      partition_alloc::GetDanglingRawPtrDetectedFn();
};

using ProtectedPoolDeathTest = ProtectedPoolTest;

TEST_F(ProtectedPoolTest, AllocationsAreWritableAlignedAndApart) {
  std::vector<unsigned char*> memory;

  for (size_t size : {0, 1, 48, 49, 1000, 70000, 300000}) {
    memory.push_back(static_cast<unsigned char*>(AllocateProtected(size)));
    std::memset(memory.back(), static_cast<int>(memory.size()), size);
  }

  EXPECT_EQ(std::set<unsigned char*>(memory.begin(), memory.end()).size(), memory.size());
  EXPECT_TRUE(IsFilledWith(memory[2], 48, 3));
  EXPECT_TRUE(IsFilledWith(memory[6], 300000, 7));
  for (unsigned char* each : memory) {
    EXPECT_TRUE(IsInPool(each));
    EXPECT_EQ(AddressOf(each) % 64, 0u);
    FreeProtected(each);
  }
}

TEST_F(ProtectedPoolTest, FreedMemoryThatNobodyHoldsIsUsedAgainUnreported) {
  void* memory = AllocateProtected(100);

  FreeProtected(memory);

  EXPECT_TRUE(IsNextAllocation(AddressOf(memory), 100));
  EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(ProtectedPoolTest, FreedMemoryIsKeptUntilTheLastPointerLetsGo) {
  int* object = new (AllocateProtected(sizeof(int))) int(7);
  raw_ptr<int> first = object;
  raw_ptr<int> second = first;

  FreeProtected(object);

  EXPECT_FALSE(IsNextAllocation(AddressOf(object), sizeof(int)));
  first = nullptr;
  EXPECT_FALSE(IsNextAllocation(AddressOf(object), sizeof(int)));
  second = nullptr;
  EXPECT_TRUE(IsNextAllocation(AddressOf(object), sizeof(int)));
}

TEST_F(ProtectedPoolTest, ADanglingObjectIsReportedOnceHoweverManyPointersHoldIt) {
  void* memory = AllocateProtected(24);
  std::vector<raw_ptr<void>> holders(3, memory);

  FreeProtected(memory);
  holders.resize(5, holders[0]);
  holders.clear();

  EXPECT_THAT(Reports(), ElementsAre(AddressOf(memory)));
}

TEST_F(ProtectedPoolTest, ADanglingObjectIsAnErrorRecordByDefault) {
  partition_alloc::SetDanglingRawPtrDetectedFn(default_detected());
  void* memory = AllocateProtected(24);
  raw_ptr<void> holder = memory;
  ::testing::internal::CaptureStderr();

  FreeProtected(memory);

  const std::string output = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(output, HasSubstr(" ERROR "));
  EXPECT_THAT(output, HasSubstr("was destroyed while a raw_ptr still points to it"));
}

TEST_F(ProtectedPoolTest, TheDefaultReportHonoursTheMinimumLevel) {
  partition_alloc::SetDanglingRawPtrDetectedFn(default_detected());
  void* memory = AllocateProtected(24);
  raw_ptr<void> holder = memory;
  logging::SetMinLogLevel(logging::LOGGING_FATAL);
  ::testing::internal::CaptureStderr();

  FreeProtected(memory);

  logging::SetMinLogLevel(logging::LOGGING_INFO);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(ProtectedPoolTest, ADanglingObjectIsFilledWithTheQuarantineByte) {
  auto* memory = static_cast<unsigned char*>(AllocateProtected(40));
  std::memset(memory, 1, 40);
  raw_ptr<unsigned char> holder = memory;

  FreeProtected(memory);

  EXPECT_TRUE(IsFilledWith(memory, 40, kQuarantinedByte));
}

TEST_F(ProtectedPoolTest, PointersIntoAndJustPastAnAllocationCountForIt) {
  auto* memory = static_cast<unsigned char*>(AllocateProtected(48));
  raw_ptr<unsigned char> inside = memory + 47;
  raw_ptr<unsigned char> past = memory + 48;

  FreeProtected(memory);

  EXPECT_THAT(Reports(), ElementsAre(AddressOf(memory)));
  inside = nullptr;
  EXPECT_FALSE(IsNextAllocation(AddressOf(memory), 48));
  past = nullptr;
  EXPECT_TRUE(IsNextAllocation(AddressOf(memory), 48));
}

TEST_F(ProtectedPoolTest, AnObjectTooLargeForThePoolIsAllocatedOutside) {
  constexpr size_t kSize = 1 << 20;
  void* memory = AllocateProtected(kSize);
  std::memset(memory, 1, kSize);
  raw_ptr<void> holder = memory;

  EXPECT_FALSE(IsInPool(memory));
  FreeProtected(memory);
  EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(ProtectedPoolTest, AllocationsGoOutsideWhileTheirSlotsAreAllTaken) {
  constexpr size_t kSize = 512 << 10;
  std::vector<void*> inside;

  void* memory = AllocateProtected(kSize);
  while (IsInPool(memory)) {
    inside.push_back(memory);
    memory = AllocateProtected(kSize);
  }

  EXPECT_EQ(inside.size(), 8u);
  std::memset(memory, 1, kSize);
  FreeProtected(memory);
  for (void* each : inside) FreeProtected(each);
  EXPECT_TRUE(IsNextAllocation(AddressOf(inside.back()), kSize));
}

TEST_F(ProtectedPoolTest, FreeingNullDoesNothing) {
  FreeProtected(nullptr);

  EXPECT_THAT(Reports(), IsEmpty());
}

TEST_F(ProtectedPoolTest, ThreadsMayAllocateFreeAndHoldAtTheSameTime) {
  partition_alloc::SetDanglingRawPtrDetectedFn([](uintptr_t) {});
  int* shared = new (AllocateProtected(sizeof(int))) int(0);
  raw_ptr<int> holder = shared;
  std::vector<std::thread> threads;

  for (int id = 0; id < 4; ++id) {
    threads.emplace_back([id, copy = holder] {
      for (int i = 0; i < 1000; ++i) {
        int* own = new (AllocateProtected(sizeof(int))) int(id);
        const raw_ptr<int> to_shared = copy;  // NOLINT(performance-unnecessary-copy-initialization)
        raw_ptr<int> to_own = own;
        EXPECT_EQ(*to_own, id);
        FreeProtected(own);
      }
    });
  }
  FreeProtected(shared);
  holder = nullptr;
  for (std::thread& thread : threads) thread.join();
  threads.clear();

  void* next = AllocateProtected(sizeof(int));
  EXPECT_TRUE(IsInPool(next));
  FreeProtected(next);
}

TEST_F(ProtectedPoolTest, AddressSanitizerKnowsWhatMayBeTouched) {
  if (__asan_address_is_poisoned == nullptr) GTEST_SKIP() << "needs the address sanitizer";
  auto* memory = static_cast<unsigned char*>(AllocateProtected(20));
  raw_ptr<unsigned char> holder = memory;

  EXPECT_FALSE(__asan_address_is_poisoned(memory + 19));
  EXPECT_TRUE(__asan_address_is_poisoned(memory + 20));
  FreeProtected(memory);
  EXPECT_TRUE(__asan_address_is_poisoned(memory));
}

TEST_F(ProtectedPoolTest, LeakCheckersFollowThePointersOfALiveObject) {
  if (__lsan_do_recoverable_leak_check == nullptr) GTEST_SKIP() << "needs a leak checker";
  struct Owner {
    std::unique_ptr<int> member;
  };
  std::thread([] {
    // Never freed, and no pointer to it is kept: only the pool tells the checker of the member.
    new (AllocateProtected(sizeof(Owner))) Owner{std::make_unique<int>(7)};
  }).join();

  EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
}

TEST_F(ProtectedPoolDeathTest, FreeingTwiceEndsTheProcess) {
  void* memory = AllocateProtected(24);
  raw_ptr<void> holder = memory;
  FreeProtected(memory);

  EXPECT_DEATH(FreeProtected(memory), "FATAL .*freed twice");
}

TEST_F(ProtectedPoolDeathTest, FreeingTheMiddleOfAnAllocationEndsTheProcess) {
  auto* memory = static_cast<unsigned char*>(AllocateProtected(24));

  EXPECT_DEATH(FreeProtected(memory + 8), "FATAL .*was not allocated here");

  FreeProtected(memory);
}

TEST_F(ProtectedPoolDeathTest, PointingToFreedMemoryEndsTheProcess) {
  void* memory = AllocateProtected(24);
  FreeProtected(memory);

  EXPECT_DEATH(raw_ptr<void>{memory}, "FATAL .*set to freed memory");
}

}  // namespace
}  // namespace base
