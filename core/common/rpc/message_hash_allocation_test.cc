#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/common/rpc/allocation_count_test_support.h"
#include "core/common/rpc/message_hash.h"
#include "core/common/rpc/message_registry.h"
#include "rpc/identifiers.pb.h"

namespace varnic {
namespace {

using testing::AllocationCount;

ProfileId Profile(const std::string& value) {
  ProfileId profile;
  profile.set_value(value);
  return profile;
}

TEST(AllocationCountTest, SeesWhatIsMadeAndFreed) {
  const AllocationCount count;

  // By way of a library, which no compiler can look through.
  std::unique_ptr<google::protobuf::Message> freed(ProfileId::default_instance().New(nullptr));
  const std::unique_ptr<google::protobuf::Message> kept(freed->New(nullptr));
  freed.reset();

  EXPECT_EQ(count.made(), 2);
  EXPECT_EQ(count.freed(), 1);
  EXPECT_EQ(count.live(), 1);
}

TEST(MessageHashAllocationTest, HashingAndComparingASmallKeyDoesNotAllocate) {
  const ProfileId a = Profile(std::string(300, 'a'));
  const ProfileId b = Profile(std::string(300, 'a'));
  MessageHash()(&a);  // protobuf's own first-time work.
  const AllocationCount count;

  const bool alike = MessageHash()(&a) == MessageHash()(&b);
  const bool equal = MessageEqual()(&a, &b);

  EXPECT_EQ(count.made(), 0);
  EXPECT_TRUE(alike && equal);
}

TEST(MessageHashAllocationTest, HashingALargeKeyGivesItsMemoryBack) {
  const ProfileId key = Profile(std::string(100'000, 'a'));
  const AllocationCount count;

  MessageHash()(&key);

  EXPECT_GT(count.made(), 0);
  EXPECT_EQ(count.live(), 0);
}

TEST(MessageRegistryAllocationTest, ALookupCopiesNothing) {
  MessageRegistry<int> registry;
  const ProfileId stored = Profile("work");
  registry.emplace(&stored, 1);
  const ProfileId present = Profile("work");
  const ProfileId absent = Profile("home");
  const AllocationCount count;

  const bool found = registry.find(&present) != registry.end();
  const bool missed = registry.find(&absent) == registry.end();

  EXPECT_EQ(count.made(), 0);
  EXPECT_TRUE(found && missed);
}

TEST(MessageRegistryAllocationTest, ErasingAnEntryFreesNodeKeyAndValue) {
  MessageRegistry<std::string> registry;
  const ProfileId key = Profile("work");
  EraseEntry(registry, registry.emplace(CloneKey(key), "").first);  // Leaves its bucket array.
  const AllocationCount count;

  EraseEntry(registry, registry.emplace(CloneKey(key), std::string(100, 'v')).first);

  EXPECT_GE(count.made(), 3);
  EXPECT_EQ(count.live(), 0);
}

TEST(MessageRegistryAllocationTest, TheTablesDestructorFreesEverythingButTheKeys) {
  const ProfileId key = Profile("");
  const google::protobuf::Message* stored = nullptr;
  const AllocationCount count;
  {
    MessageRegistry<std::string> registry;
    stored = CloneKey(key);
    registry.emplace(stored, std::string(100, 'v'));
  }

  EXPECT_EQ(count.live(), 1);
  delete stored;
  EXPECT_EQ(count.live(), 0);
}

}  // namespace
}  // namespace varnic
