#include "core/net/block_pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

namespace varnic::net {
namespace {

TEST(BlockPoolTest, BlocksOfEverySizeAreTheirOwnersAlone) {
  std::vector<char*> blocks;
  for (std::size_t size = 0; size < 2000; ++size) {
    blocks.push_back(static_cast<char*>(BlockPool::Allocate(size)));
    std::memset(blocks.back(), static_cast<int>(size % 251), size);
  }

  for (std::size_t size = 0; size < blocks.size(); ++size) {
    for (std::size_t i = 0; i < size; ++i) {
      ASSERT_EQ(static_cast<unsigned char>(blocks[size][i]), size % 251) << size;
    }
  }
  for (std::size_t size = 0; size < blocks.size(); ++size) BlockPool::Free(blocks[size], size);
}

TEST(BlockPoolTest, BlocksAreAlignedForAnyObject) {
  for (std::size_t size = 1; size < 1000; size += 7) {
    void* block = BlockPool::Allocate(size);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0u);
    BlockPool::Free(block, size);
  }
}

TEST(BlockPoolTest, MoreThanIsKeptMayBeFreedAndAllocatedAgain) {
  for (int round = 0; round < 2; ++round) {
    std::set<void*> blocks;
    for (int i = 0; i < 5000; ++i) blocks.insert(BlockPool::Allocate(100));
    EXPECT_EQ(blocks.size(), 5000u);
    for (void* block : blocks) BlockPool::Free(block, 100);
  }
}

TEST(BlockPoolTest, AnotherThreadMayFreeABlock) {
  void* block = BlockPool::Allocate(64);

  std::thread([block] { BlockPool::Free(block, 64); }).join();

  BlockPool::Free(BlockPool::Allocate(64), 64);
}

TEST(BlockPoolTest, FreeingNothingIsFine) {
  BlockPool::Free(nullptr, 64);
}

// What is destroyed with its thread frees its memory when the pool's own end may have come.
struct LateObject {
  ~LateObject() { BlockPool::Free(block, 48); }
  void* block = BlockPool::Allocate(48);
};

TEST(BlockPoolTest, AnObjectThatEndsWithItsThreadMayFreeItsBlock) {
  std::thread([] {
    thread_local LateObject late;
    EXPECT_NE(late.block, nullptr);
    BlockPool::Free(BlockPool::Allocate(48), 48);
  }).join();
}

class PooledThing : public Pooled {
 public:
  explicit PooledThing(int* ends) : ends_(ends) {}
  virtual ~PooledThing() { ++*ends_; }

 private:
  int* ends_;
};
class LargerThing : public PooledThing {
 public:
  using PooledThing::PooledThing;
  char text[500] = {};
};

TEST(BlockPoolTest, APooledObjectIsDestroyedThroughItsBase) {
  int ends = 0;

  for (int i = 0; i < 3; ++i) {
    PooledThing* thing = new LargerThing(&ends);
    delete thing;
  }

  EXPECT_EQ(ends, 3);
}

}  // namespace
}  // namespace varnic::net
