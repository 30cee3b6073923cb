#include "base/memory/raw_ptr.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/allocator/partition_allocator/dangling_raw_ptr_checks.h"
#include "base/allocator/partition_allocator/partition_address_space.h"
#include "base/memory/protected_pool.h"

namespace base {
namespace {

struct First {
  virtual ~First() = default;
  int first = 1;
};

struct Second {
  virtual ~Second() = default;
  int second = 2;
};

// An object of the pool, as a class makes itself one.
struct Both final : First, Second {
  static void* operator new(size_t size) { return AllocateProtected(size); }
  static void operator delete(void* memory) { FreeProtected(memory); }
};

struct Incomplete;
struct HoldsIncomplete {
  raw_ptr<Incomplete> pointer;
};

static_assert(sizeof(raw_ptr<Both>) == sizeof(void*));
static_assert(std::is_standard_layout_v<raw_ptr<Both>>);
static_assert(std::is_nothrow_move_constructible_v<raw_ptr<Both>>);
static_assert(!std::is_convertible_v<raw_ptr<Second>, raw_ptr<Both>>);
static_assert(!std::is_convertible_v<raw_ptr<const Both>, raw_ptr<Both>>);

int g_reports = 0;

class RawPtrTest : public ::testing::Test {
 protected:
  RawPtrTest() {
    partition_alloc::SetDanglingRawPtrDetectedFn([](uintptr_t) { ++g_reports; });
    g_reports = 0;
  }
  ~RawPtrTest() override { partition_alloc::SetDanglingRawPtrDetectedFn(default_detected_); }

  // Whether a raw_ptr holds `object`, which is freed to find out.
  static bool FreeAndSeeWhetherHeld(Both* object) {
    const int before = g_reports;
    delete object;
    return g_reports > before;
  }

  // Whether nobody holds the slot of a freed Both any more: the last slot given back is the first
  // to be taken.
  static bool IsFreeForReuse(uintptr_t address) {
    Both* next = new Both;
    const bool same = reinterpret_cast<uintptr_t>(next) == address;
    delete next;
    return same;
  }

 private:
  partition_alloc::DanglingRawPtrDetectedFn* const default_detected_ =
      partition_alloc::GetDanglingRawPtrDetectedFn();
};

TEST_F(RawPtrTest, IsNullByDefault) {
  raw_ptr<Both> by_default;
  raw_ptr<Both> from_null = nullptr;
  HoldsIncomplete holder;

  EXPECT_EQ(by_default.get(), nullptr);
  EXPECT_EQ(from_null, nullptr);
  EXPECT_FALSE(by_default);
  EXPECT_FALSE(holder.pointer);
}

TEST_F(RawPtrTest, IsUsedLikeAPlainPointer) {
  int values[] = {1, 2};
  raw_ptr<int> pointer = values;

  *pointer = 5;
  int* plain = pointer;

  EXPECT_EQ(plain, values);
  EXPECT_EQ(*pointer.get(), 5);
  EXPECT_EQ(pointer[1], 2);
  EXPECT_EQ(pointer + 1, &values[1]);
  EXPECT_TRUE(pointer);
}

TEST_F(RawPtrTest, ComparesWithRawPtrsAndPlainPointers) {
  Both both;
  Both other;
  raw_ptr<Both> pointer = &both;
  raw_ptr<Second> base = pointer;

  EXPECT_TRUE(pointer == &both);
  EXPECT_TRUE(&other != pointer);
  EXPECT_TRUE(pointer == base);
  EXPECT_TRUE(pointer != nullptr);
  EXPECT_EQ((std::set<raw_ptr<Both>>{&both, &other, &both}).size(), 2u);
}

TEST_F(RawPtrTest, ConvertsToBasesAndConstAndBackByCast) {
  Both both;
  raw_ptr<Both> pointer = &both;

  raw_ptr<Second> base = pointer;
  raw_ptr<const Both> constant = pointer;
  raw_ptr<void> untyped = pointer;
  base = &both;

  EXPECT_EQ(base->second, 2);
  EXPECT_EQ(constant->first, 1);
  EXPECT_EQ(untyped.get(), &both);
  EXPECT_EQ(static_cast<Both*>(base), &both);
}

TEST_F(RawPtrTest, HoldsAnObjectOfThePool) {
  Both* object = new Both;
  raw_ptr<Both> pointer = object;

  EXPECT_EQ(pointer->second, 2);
  EXPECT_TRUE(FreeAndSeeWhetherHeld(object));
}

TEST_F(RawPtrTest, LetsGoWhenDestroyed) {
  Both* object = new Both;
  { raw_ptr<Both> pointer = object; }

  EXPECT_FALSE(FreeAndSeeWhetherHeld(object));
}

TEST_F(RawPtrTest, LetsGoWhenSetToSomethingElse) {
  Both* object = new Both;
  Both* other = new Both;
  raw_ptr<Both> pointer = object;

  pointer = other;

  EXPECT_FALSE(FreeAndSeeWhetherHeld(object));
  EXPECT_TRUE(FreeAndSeeWhetherHeld(other));
}

TEST_F(RawPtrTest, EveryCopyHoldsOnItsOwn) {
  Both* object = new Both;
  const auto address = reinterpret_cast<uintptr_t>(object);
  std::vector<raw_ptr<Both>> copies(2, object);
  copies.push_back(copies[0]);
  delete object;

  EXPECT_FALSE(IsFreeForReuse(address));
  copies.resize(1);
  EXPECT_FALSE(IsFreeForReuse(address));
  copies.clear();
  EXPECT_TRUE(IsFreeForReuse(address));
}

TEST_F(RawPtrTest, MovingHandsTheHoldOnAndLeavesNull) {
  Both* object = new Both;
  const auto address = reinterpret_cast<uintptr_t>(object);
  raw_ptr<Both> source = object;

  raw_ptr<Both> target = std::move(source);
  raw_ptr<Both> last;
  last = std::move(target);

  // NOLINTBEGIN(bugprone-use-after-move, clang-analyzer-cplusplus.Move): null by contract.
  EXPECT_EQ(source.get(), nullptr);
  EXPECT_EQ(target.get(), nullptr);
  // NOLINTEND(bugprone-use-after-move, clang-analyzer-cplusplus.Move)
  EXPECT_TRUE(FreeAndSeeWhetherHeld(object));
  last = nullptr;
  EXPECT_TRUE(IsFreeForReuse(address));
}

TEST_F(RawPtrTest, MovingToABaseLeavesNullToo) {
  Both* object = new Both;
  raw_ptr<Both> source = object;

  raw_ptr<Second> target = std::move(source);

  EXPECT_EQ(source.get(), nullptr);  // NOLINT(bugprone-use-after-move): it is null by contract.
  target = nullptr;
  EXPECT_FALSE(FreeAndSeeWhetherHeld(object));
}

TEST_F(RawPtrTest, AssigningToItselfKeepsTheHold) {
  Both* object = new Both;
  raw_ptr<Both> pointer = object;
  raw_ptr<Both>& same = pointer;

  pointer = same;
  pointer = std::move(same);

  EXPECT_EQ(pointer.get(), object);
  EXPECT_TRUE(FreeAndSeeWhetherHeld(object));
}

TEST_F(RawPtrTest, ADanglingPointerCanStillBeCopied) {
  Both* object = new Both;
  const auto address = reinterpret_cast<uintptr_t>(object);
  raw_ptr<Both> pointer = object;
  delete object;

  raw_ptr<Both> copy = pointer;
  pointer = nullptr;

  EXPECT_FALSE(IsFreeForReuse(address));
  copy = nullptr;
  EXPECT_TRUE(IsFreeForReuse(address));
}

TEST_F(RawPtrTest, APointerToASecondBaseHoldsTheWholeObject) {
  Both* object = new Both;
  raw_ptr<Second> pointer = object;

  EXPECT_NE(static_cast<void*>(pointer.get()), object);
  EXPECT_TRUE(FreeAndSeeWhetherHeld(object));
}

TEST_F(RawPtrTest, KeepsNoBooksOnWhatIsOutsideThePool) {
  static Both in_static_storage;
  Both on_the_stack;
  raw_ptr<Both> pointer = &on_the_stack;

  raw_ptr<Both> copy = pointer;
  pointer = &in_static_storage;

  EXPECT_FALSE(partition_alloc::internal::PartitionAddressSpace::IsInBRPPool(
      reinterpret_cast<uintptr_t>(copy.get())));
  EXPECT_EQ(copy.get(), &on_the_stack);
  EXPECT_EQ(g_reports, 0);
}

TEST_F(RawPtrTest, TheFirstWordIsThePointerAndNullAfterTheDestructor) {
  int value = 0;
  alignas(raw_ptr<int>) unsigned char storage[sizeof(raw_ptr<int>)];
  auto* word = reinterpret_cast<uintptr_t volatile*>(storage);

  auto* pointer = new (storage) raw_ptr<int>(&value);
  const uintptr_t while_alive = *word;
  pointer->~raw_ptr();

  EXPECT_EQ(while_alive, reinterpret_cast<uintptr_t>(&value));
  EXPECT_EQ(*word, 0u);
}

}  // namespace
}  // namespace base
