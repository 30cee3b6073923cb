#include "core/common/rpc/shared_event.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "rpc/identifiers.pb.h"
#include "rpc/profile/profile.pb.h"

namespace varnic {
namespace {

ProfileId Profile(const std::string& value) {
  ProfileId profile;
  profile.set_value(value);
  return profile;
}

TEST(SharedEventTest, HoldsTheSerializedEventAndItsKeysContent) {
  rpc::NetworkChanged event;
  event.set_online(true);
  const ProfileId key = Profile("work");

  const SharedEvent shared(event, key);

  EXPECT_EQ(shared.payload(), event.SerializeAsString());
  EXPECT_EQ(shared.conflation_key(), key.SerializeAsString());
}

TEST(SharedEventTest, KeysOfEqualContentConflate) {
  const rpc::NetworkChanged event;

  EXPECT_EQ(SharedEvent(event, Profile("work")).conflation_key(),
            SharedEvent(event, Profile("work")).conflation_key());
  EXPECT_NE(SharedEvent(event, Profile("work")).conflation_key(),
            SharedEvent(event, Profile("home")).conflation_key());
  EXPECT_NE(SharedEvent(event, Profile("work")).conflation_key(),
            SharedEvent(event, Profile("")).conflation_key());
}

TEST(SharedEventTest, CopiesShareTheBytesAndKeepThem) {
  rpc::NetworkChanged event;
  event.set_online(true);
  std::optional<SharedEvent> first(SharedEvent(event, Profile("work")));
  const char* bytes = first->payload().data();

  const SharedEvent second = *first;
  first.reset();

  EXPECT_EQ(second.payload().data(), bytes);
  EXPECT_EQ(second.payload(), event.SerializeAsString());
}

}  // namespace
}  // namespace varnic
