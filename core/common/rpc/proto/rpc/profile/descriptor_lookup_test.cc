#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "rpc/profile/profile.rpc.h"

// The linker sends this program's own look-ups of files in a DescriptorPool here (see --wrap in
// CMakeLists.txt); those inside the protobuf library stay as they are.
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names.
extern "C" {
const google::protobuf::FileDescriptor*
__real__ZNK6google8protobuf14DescriptorPool14FindFileByNameERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
    const google::protobuf::DescriptorPool* pool, const std::string& name);
}

namespace {
std::atomic<int> g_lookups{0};
}

extern "C" const google::protobuf::FileDescriptor*
__wrap__ZNK6google8protobuf14DescriptorPool14FindFileByNameERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
    const google::protobuf::DescriptorPool* pool, const std::string& name) {
  ++g_lookups;
  return __real__ZNK6google8protobuf14DescriptorPool14FindFileByNameERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
      pool, name);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace rpc {
namespace {

// The only test of this program: the first call happens once for each process.
TEST(DescriptorLookupTest, HappensOnceHoweverManyThreadsAskFirst) {
  constexpr int kThreads = 8;
  std::atomic<int> ready{0};
  std::vector<const google::protobuf::ServiceDescriptor*> seen(2 * kThreads);
  std::vector<std::thread> threads;
  ASSERT_EQ(g_lookups, 0);

  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ProfileRpc service;
      ++ready;
      while (ready < kThreads) std::this_thread::yield();
      seen[2 * i] = i % 2 == 0 ? ProfileRpc::descriptor() : service.GetDescriptor();
      seen[2 * i + 1] = ProfileRpc::descriptor();
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(g_lookups, 1);
  ASSERT_NE(seen[0], nullptr);
  EXPECT_EQ(seen[0]->name(), "Profile");
  EXPECT_EQ(seen, std::vector<const google::protobuf::ServiceDescriptor*>(2 * kThreads, seen[0]));
}

}  // namespace
}  // namespace rpc
