#include "core/common/rpc/message_registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <unordered_map>

#include "core/common/rpc/observed_key_test_support.h"
#include "rpc/identifiers.pb.h"

namespace varnic {
namespace {

using google::protobuf::Message;
using ::testing::ElementsAre;
using testing::KeyLog;
using testing::ObservedKey;

ProfileId Profile(const std::string& value) {
  ProfileId profile;
  profile.set_value(value);
  return profile;
}

class MessageRegistryTest : public ::testing::Test {
 protected:
  ~MessageRegistryTest() override {
    while (!registry_.empty()) EraseEntry(registry_, registry_.begin());
    EXPECT_EQ(log_.live, 0);
  }

  // The stored key.
  const ObservedKey& Add(const std::string& value) {
    const ObservedKey key(log_, Profile(value));
    return static_cast<const ObservedKey&>(*registry_.emplace(CloneKey(key), 0).first->first);
  }

  KeyLog log_;
  MessageRegistry<int> registry_;
};

TEST_F(MessageRegistryTest, IsAnUnorderedMapOverMessageContent) {
  using Expected =
      std::unordered_map<const google::protobuf::Message*, int, MessageHash, MessageEqual>;

  EXPECT_TRUE((std::is_same_v<MessageRegistry<int>, Expected>));
  EXPECT_EQ(registry_.max_load_factor(), 1.0f);
}

TEST_F(MessageRegistryTest, ACloneIsAnotherObjectOfEqualTypeAndContent) {
  const ProfileId key = Profile("work");

  const std::unique_ptr<const Message> clone(CloneKey(key));

  EXPECT_NE(clone.get(), &key);
  EXPECT_EQ(clone->GetArena(), nullptr);
  EXPECT_TRUE(MessageEqual()(clone.get(), &key));
}

TEST_F(MessageRegistryTest, ACloneIsMadeByNewAndThenCopied) {
  const ObservedKey key(log_, Profile("work"));

  delete CloneKey(key);

  EXPECT_EQ(log_.clones, 1);
  EXPECT_EQ(log_.copies, 1);
}

TEST_F(MessageRegistryTest, DistinctKeysOfEqualContentFindTheSameEntry) {
  Add("work");
  const ProfileId one = Profile("work");
  const ProfileId another = Profile("work");

  EXPECT_NE(registry_.find(&one), registry_.end());
  EXPECT_EQ(registry_.find(&one), registry_.find(&another));
}

TEST_F(MessageRegistryTest, FreeingTheCallersKeyLeavesTheEntryIntact) {
  auto key = std::make_unique<ProfileId>(Profile("work"));
  registry_.emplace(CloneKey(*key), 5);

  key.reset();

  const ProfileId probe = Profile("work");
  ASSERT_NE(registry_.find(&probe), registry_.end());
  EXPECT_EQ(registry_.find(&probe)->second, 5);
}

TEST_F(MessageRegistryTest, ALookupInAnEmptyTableDoesNotHash) {
  const ObservedKey probe(log_, Profile("work"));

  EXPECT_EQ(registry_.find(&probe), registry_.end());

  EXPECT_EQ(probe.reads(), 0);
}

TEST_F(MessageRegistryTest, ALookupInATableThatBecameEmptyDoesNotHash) {
  Add("work");
  EraseEntry(registry_, registry_.begin());
  const ObservedKey probe(log_, Profile("work"));

  EXPECT_EQ(registry_.find(&probe), registry_.end());

  EXPECT_EQ(probe.reads(), 0);
}

TEST_F(MessageRegistryTest, ALookupReadsOnlyTheStoredKeyOfEqualHash) {
  const ObservedKey& work = Add("work");
  const ObservedKey& home = Add("home");
  const int work_reads = work.reads();
  const int home_reads = home.reads();

  const ProfileId probe = Profile("work");
  const ProfileId absent = Profile("absent");
  EXPECT_NE(registry_.find(&probe), registry_.end());
  EXPECT_EQ(registry_.find(&absent), registry_.end());

  EXPECT_GT(work.reads(), work_reads);
  EXPECT_EQ(home.reads(), home_reads);
}

TEST_F(MessageRegistryTest, GrowingReadsNoStoredKey) {
  const ObservedKey& first = Add("first");
  const int reads = first.reads();
  const std::size_t buckets = registry_.bucket_count();

  for (int i = 0; i < 100; ++i) Add(std::to_string(i));

  EXPECT_GT(registry_.bucket_count(), buckets);
  EXPECT_EQ(first.reads(), reads);
}

TEST_F(MessageRegistryTest, NeverHoldsMoreEntriesThanBuckets) {
  for (int i = 0; i < 500; ++i) {
    Add(std::to_string(i));

    ASSERT_LE(registry_.size(), registry_.bucket_count());
  }
}

TEST_F(MessageRegistryTest, RemovingAnEntryFreesItsKeyOnceAfterTheEntryLeft) {
  const Message* stored = &Add("work");
  log_.deleted.clear();
  std::size_t size_at_deletion = 99;
  log_.on_delete = [&] { size_at_deletion = registry_.size(); };

  EraseEntry(registry_, registry_.begin());

  log_.on_delete = [] {};
  EXPECT_THAT(log_.deleted, ElementsAre(stored));
  EXPECT_EQ(size_at_deletion, 0u);
}

TEST_F(MessageRegistryTest, RemovingAnEntryLeavesTheOthers) {
  const Message* stays = &Add("stays");
  const Message* goes = &Add("goes");
  log_.deleted.clear();

  EraseEntry(registry_, registry_.find(goes));

  EXPECT_THAT(log_.deleted, ElementsAre(goes));
  ASSERT_EQ(registry_.size(), 1u);
  EXPECT_EQ(registry_.begin()->first, stays);
}

TEST_F(MessageRegistryTest, TheTablesDestructorFreesNoKey) {
  const ObservedKey key(log_, Profile("work"));
  const Message* stored = CloneKey(key);
  {
    MessageRegistry<int> registry;
    registry.emplace(stored, 1);
  }

  EXPECT_EQ(log_.live, 2);
  EXPECT_TRUE(MessageEqual()(stored, &key));
  delete stored;
}

}  // namespace
}  // namespace varnic
