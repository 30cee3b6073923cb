#include "core/common/rpc/message_hash.h"

#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>

#include "rpc/event_subscription.pb.h"
#include "rpc/identifiers.pb.h"

namespace varnic {
namespace {

using google::protobuf::Message;

static_assert(std::is_empty_v<MessageHash> && std::is_default_constructible_v<MessageHash>);
static_assert(std::is_empty_v<MessageEqual> && std::is_default_constructible_v<MessageEqual>);
static_assert(std::is_same_v<std::invoke_result_t<const MessageHash, const Message*>, std::size_t>);
static_assert(
    std::is_same_v<std::invoke_result_t<const MessageEqual, const Message*, const Message*>, bool>);

bool Equal(const Message& a, const Message& b) {
  const bool equal = MessageEqual()(&a, &b);
  EXPECT_EQ(MessageEqual()(&b, &a), equal);
  return equal;
}

std::size_t Hash(const Message& message) {
  return MessageHash()(&message);
}

ProfileId Profile(const std::string& value) {
  ProfileId profile;
  profile.set_value(value);
  return profile;
}

// A google.protobuf.Struct with the numbers below `count` as keys, entered from either end. Made
// inside the library: its map has another layout in our own code under the thread sanitizer.
std::unique_ptr<Message> Numbers(int count, bool backwards) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    const std::string number = std::to_string(backwards ? count - 1 - i : i);
    text += "fields { key: '" + number + "' value { number_value: " + number + " } }";
  }
  std::unique_ptr<Message> numbers(google::protobuf::Struct::default_instance().New(nullptr));
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, numbers.get()));
  return numbers;
}

TEST(MessageHashTest, DistinctObjectsOfEqualContentAreEqualAndHashAlike) {
  const ProfileId a = Profile("work");
  const ProfileId b = Profile("work");

  EXPECT_TRUE(Equal(a, b));
  EXPECT_EQ(Hash(a), Hash(b));
}

TEST(MessageHashTest, AnObjectIsEqualToItself) {
  const ProfileId a = Profile("work");

  EXPECT_TRUE(Equal(a, a));
}

TEST(MessageHashTest, DifferentContentIsNotEqual) {
  EXPECT_FALSE(Equal(Profile("work"), Profile("home")));
  EXPECT_FALSE(Equal(Profile("work"), Profile("workshop")));
  EXPECT_FALSE(Equal(Profile("work"), Profile("")));
  EXPECT_NE(Hash(Profile("work")), Hash(Profile("home")));
}

TEST(MessageHashTest, EmptyMessagesAreEqualToTheDefaultInstance) {
  EXPECT_TRUE(Equal(ProfileId(), ProfileId::default_instance()));
  EXPECT_EQ(Hash(Profile("")), Hash(ProfileId::default_instance()));
}

TEST(MessageHashTest, MessagesOfDifferentTypesWithEqualBytesAreNotEqual) {
  const ProfileId profile = Profile("work");
  google::protobuf::StringValue text;
  text.set_value("work");

  ASSERT_EQ(profile.SerializeAsString(), text.SerializeAsString());
  EXPECT_FALSE(Equal(profile, text));
  EXPECT_FALSE(Equal(ProfileId(), google::protobuf::StringValue()));
  EXPECT_NE(Hash(profile), Hash(text));
}

TEST(MessageHashTest, UnknownFieldsCount) {
  const std::string field_15("\x78\x01", 2);
  ProfileId with_unknown;
  ProfileId with_same_unknown;
  ASSERT_TRUE(with_unknown.ParseFromString(field_15));
  ASSERT_TRUE(with_same_unknown.ParseFromString(field_15));

  EXPECT_FALSE(Equal(with_unknown, ProfileId()));
  EXPECT_TRUE(Equal(with_unknown, with_same_unknown));
  EXPECT_EQ(Hash(with_unknown), Hash(with_same_unknown));
}

TEST(MessageHashTest, APresentEmptySubMessageCounts) {
  rpc::EventSubscription with_key;
  with_key.mutable_key();

  EXPECT_FALSE(Equal(with_key, rpc::EventSubscription()));
}

TEST(MessageHashTest, TheOrderOfMapFieldsDoesNotMatter) {
  const auto forwards = Numbers(100, /*backwards=*/false);
  const auto backwards = Numbers(100, /*backwards=*/true);

  EXPECT_TRUE(Equal(*forwards, *backwards));
  EXPECT_EQ(Hash(*forwards), Hash(*backwards));
  EXPECT_FALSE(Equal(*forwards, *Numbers(99, /*backwards=*/false)));
}

TEST(MessageHashTest, ContentOfEverySizeIsComparedToItsEnd) {
  for (std::size_t size : {1u, 127u, 508u, 509u, 510u, 511u, 512u, 513u, 100'000u}) {
    const ProfileId a = Profile(std::string(size, 'a'));
    const ProfileId b = Profile(std::string(size, 'a'));
    const ProfileId other = Profile(std::string(size - 1, 'a') + "b");

    EXPECT_TRUE(Equal(a, b)) << size;
    EXPECT_EQ(Hash(a), Hash(b)) << size;
    EXPECT_FALSE(Equal(a, other)) << size;
    EXPECT_NE(Hash(a), Hash(other)) << size;
  }
}

// Made from the same descriptor, by a class of its own.
TEST(MessageHashTest, ADynamicMessageOfEqualContentIsEqualAndHashesAlike) {
  google::protobuf::DynamicMessageFactory factory;
  const Message& prototype = *factory.GetPrototype(ProfileId::descriptor());
  for (const std::size_t size : {0u, 1u, 127u, 128u, 2000u}) {
    const ProfileId profile = Profile(std::string(size, 'a'));
    const std::unique_ptr<Message> dynamic(prototype.New());
    ASSERT_TRUE(dynamic->ParseFromString(profile.SerializeAsString()));

    EXPECT_TRUE(Equal(*dynamic, profile)) << size;
    EXPECT_EQ(Hash(*dynamic), Hash(profile)) << size;
    EXPECT_FALSE(Equal(*dynamic, Profile(std::string(size, 'a') + "b"))) << size;
  }
}

TEST(MessageHashTest, HashFollowsTheContentWhenAMessageChanges) {
  ProfileId a = Profile("a rather long name that will be cut");
  Hash(a);

  a.set_value("short");

  EXPECT_TRUE(Equal(a, Profile("short")));
  EXPECT_EQ(Hash(a), Hash(Profile("short")));
}

}  // namespace
}  // namespace varnic
