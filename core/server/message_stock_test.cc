#include "core/server/message_stock.h"

#include <google/protobuf/dynamic_message.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <memory>
#include <string>
#include <utility>

#include "core/net/block_pool.h"
#include "rpc/identifiers.pb.h"

namespace varnic {
namespace {

using google::protobuf::Message;

// The message that the stock gives after it got back `text`.
std::unique_ptr<Message> TakeAfter(MessageStock& stock, const std::string& text) {
  auto message = stock.Take(ProfileId::default_instance());
  static_cast<ProfileId&>(*message).set_value(text);
  const std::size_t bytes = message->ByteSizeLong();
  stock.Give(std::move(message), bytes);
  return stock.Take(ProfileId::default_instance());
}

// What the process has allocated; 0 under a sanitizer.
std::size_t AllocatedBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

TEST(MessageStockTest, AMessageThatIsUsedAgainIsEmpty) {
  MessageStock stock;

  const auto message = TakeAfter(stock, "Profile 1");

  EXPECT_EQ(message->ByteSizeLong(), 0u);
}

TEST(MessageStockTest, TwoUsersHaveTwoMessages) {
  MessageStock stock;
  auto first = stock.Take(ProfileId::default_instance());
  auto second = stock.Take(ProfileId::default_instance());
  EXPECT_NE(first, second);

  stock.Give(std::move(first), 0);
  stock.Give(std::move(second), 0);

  const auto third = stock.Take(ProfileId::default_instance());
  EXPECT_NE(third, stock.Take(ProfileId::default_instance()));
}

TEST(MessageStockTest, AMessageOfAnotherTypeIsNotMistaken) {
  MessageStock stock;
  TakeAfter(stock, "Profile 1");
  stock.Give(stock.Take(ProfileId::default_instance()), 0);

  const auto message = stock.Take(BrowserId::default_instance());

  EXPECT_EQ(message->GetDescriptor(), BrowserId::descriptor());
}

TEST(MessageStockTest, AMessageThatComesBackLateIsNotMistaken) {
  MessageStock stock;
  auto late = stock.Take(ProfileId::default_instance());
  stock.Take(BrowserId::default_instance());

  stock.Give(std::move(late), 0);

  const auto message = stock.Take(BrowserId::default_instance());
  EXPECT_EQ(message->GetDescriptor(), BrowserId::descriptor());
}

TEST(MessageStockTest, TheMemoryOfALargeMessageIsNotKept) {
  MessageStock stock;

  const auto message = TakeAfter(stock, std::string(100'000, 'x'));

  EXPECT_LT(message->SpaceUsedLong(), 1000u);
}

TEST(MessageStockTest, TheMemoryOfAMessageThatWasCutIsNotKept) {
  MessageStock stock;
  auto message = stock.Take(ProfileId::default_instance());
  static_cast<ProfileId&>(*message).set_value(std::string(100'000, 'x'));
  static_cast<ProfileId&>(*message).set_value("cut");

  stock.Give(std::move(message), 5);

  message = stock.Take(ProfileId::default_instance());
  EXPECT_LT(message->SpaceUsedLong(), 1000u);
}

TEST(MessageStockTest, TheMemoryOfManyUnknownFieldsIsNotKept) {
  MessageStock stock;
  const std::size_t before = AllocatedBytes();
  auto message = stock.Take(ProfileId::default_instance());
  auto& fields = *message->GetReflection()->MutableUnknownFields(message.get());
  for (int i = 0; i < 100'000; ++i) fields.AddVarint(100, 1);

  stock.Give(std::move(message), 0);

  EXPECT_LT(AllocatedBytes(), before + 100'000);
}

// A service may take the factory of its messages along.
TEST(MessageStockTest, ADynamicMessageDoesNotOutliveItsFactory) {
  MessageStock stock;
  auto factory = std::make_unique<google::protobuf::DynamicMessageFactory>();

  stock.Give(stock.Take(*factory->GetPrototype(ProfileId::descriptor())), 0);

  factory = nullptr;
}

TEST(MessageStockTest, NoMessageIsUsedForEver) {
  MessageStock stock;
  if (!net::BlockPool::Keeps()) GTEST_SKIP() << "nothing is used again";
  auto message = TakeAfter(stock, std::string(500, 'x'));
  EXPECT_GT(message->SpaceUsedLong(), 500u);

  int uses = 0;
  while (message->SpaceUsedLong() > 500 && uses < 1000) {
    stock.Give(std::move(message), 0);
    message = stock.Take(ProfileId::default_instance());
    ++uses;
  }

  EXPECT_LE(uses, 100);
}

TEST(MessageStockTest, AParsedMessageThatStaysSmallIsKept) {
  MessageStock stock;
  if (!net::BlockPool::Keeps()) GTEST_SKIP() << "nothing is used again";
  auto message = stock.Take(ProfileId::default_instance());
  ASSERT_TRUE(message->ParseFromString("\n\3abc"));
  const Message* const first = message.get();

  stock.Give(std::move(message), 5, MessageStock::Filler::kParser);

  message = stock.Take(ProfileId::default_instance());
  EXPECT_EQ(message.get(), first);
  EXPECT_EQ(message->ByteSizeLong(), 0u);
}

TEST(MessageStockTest, AParsedMessageWithUnknownFieldsIsNotKept) {
  MessageStock stock;
  std::string fields;
  for (int i = 0; i < 100'000; ++i) fields += "\x10\1";
  const std::size_t before = AllocatedBytes();
  auto message = stock.Take(ProfileId::default_instance());
  ASSERT_TRUE(message->ParseFromString(fields));

  stock.Give(std::move(message), 0, MessageStock::Filler::kParser);

  EXPECT_LT(AllocatedBytes(), before + 100'000);
}

}  // namespace
}  // namespace varnic
