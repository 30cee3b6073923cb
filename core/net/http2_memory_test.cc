#include "core/net/http2_memory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

namespace varnic::net {
namespace {

const nghttp2_mem kMemory = Http2Memory();

TEST(Http2MemoryTest, GrowingAndShrinkingKeepsTheContent) {
  auto* memory = static_cast<char*>(kMemory.realloc(nullptr, 4, nullptr));
  std::memcpy(memory, "abcd", 4);

  memory = static_cast<char*>(kMemory.realloc(memory, 5000, nullptr));
  EXPECT_EQ(std::string(memory, 4), "abcd");
  memory = static_cast<char*>(kMemory.realloc(memory, 2, nullptr));
  EXPECT_EQ(std::string(memory, 2), "ab");

  kMemory.free(memory, nullptr);
}

TEST(Http2MemoryTest, ClearedMemoryIsClearedWhenItIsUsedAgain) {
  void* used = kMemory.malloc(64, nullptr);
  std::memset(used, 'x', 64);
  kMemory.free(used, nullptr);

  auto* cleared = static_cast<char*>(kMemory.calloc(4, 16, nullptr));

  EXPECT_EQ(std::string(cleared, 64), std::string(64, '\0'));
  kMemory.free(cleared, nullptr);
}

TEST(Http2MemoryTest, MemoryThatNobodyHasIsNotThere) {
  EXPECT_EQ(kMemory.calloc(std::numeric_limits<std::size_t>::max() / 8, 16, nullptr), nullptr);
}

TEST(Http2MemoryTest, IsAlignedForAnyObject) {
  void* memory = kMemory.malloc(24, nullptr);

  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0u);
  kMemory.free(memory, nullptr);
}

TEST(Http2MemoryTest, FreeingNothingIsFine) {
  kMemory.free(nullptr, nullptr);
}

}  // namespace
}  // namespace varnic::net
