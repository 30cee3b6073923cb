#include "core/server/plain_scanner.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "rpc/profile/profile.pb.h"

namespace varnic {
namespace {

using google::protobuf::Message;

// Never true of what protobuf does not parse.
bool IsPlain(const Message& prototype, const std::string& bytes) {
  const bool is_plain =
      PlainScanner(*prototype.GetDescriptor())
          .Scan(bytes, [](int /*number*/, std::uint64_t /*value*/) { return true; });
  const std::unique_ptr<Message> message(prototype.New());
  EXPECT_TRUE(!is_plain || message->ParseFromString(bytes)) << testing::PrintToString(bytes);
  return is_plain;
}
bool IsPlainAnswer(const std::string& bytes) {
  return IsPlain(rpc::CanAccessFile::default_instance(), bytes);
}

rpc::CanAccessFile Answer() {
  rpc::CanAccessFile answer;
  answer.mutable_profile_id()->set_value("work");
  answer.mutable_response()->set_allow(true);
  answer.set_call_id(300);
  return answer;
}

TEST(PlainScannerTest, FieldsAreToldInTheirOrderWithTheValuesOfNumbers) {
  const PlainScanner scanner(*rpc::CanAccessFile::descriptor());
  std::vector<std::pair<int, std::uint64_t>> fields;

  EXPECT_TRUE(scanner.Scan(Answer().SerializeAsString(), [&](int number, std::uint64_t value) {
    fields.emplace_back(number, value);
    return true;
  }));

  EXPECT_EQ(fields, (std::vector<std::pair<int, std::uint64_t>>{{1, 0}, {4, 0}, {5, 300}}));
}

TEST(PlainScannerTest, AFieldThatIsRefusedEndsTheScan) {
  const PlainScanner scanner(*rpc::CanAccessFile::descriptor());
  int fields = 0;

  EXPECT_FALSE(scanner.Scan(Answer().SerializeAsString(), [&](int number, std::uint64_t) {
    ++fields;
    return number != 4;
  }));

  EXPECT_EQ(fields, 2);
}

TEST(PlainScannerTest, NothingAndLongTextArePlain) {
  rpc::CanAccessFile answer = Answer();
  answer.mutable_profile_id()->set_value(std::string(100'000, 'x'));

  EXPECT_TRUE(IsPlainAnswer(""));
  EXPECT_TRUE(IsPlainAnswer(answer.SerializeAsString()));
}

TEST(PlainScannerTest, WhatIsCutShortIsNotPlain) {
  const std::string whole = Answer().SerializeAsString();
  const std::vector<std::size_t> between_fields = {0, 8, 12, whole.size()};

  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const bool is_between =
        std::find(between_fields.begin(), between_fields.end(), size) != between_fields.end();
    EXPECT_EQ(IsPlainAnswer(whole.substr(0, size)), is_between) << size;
  }
}

TEST(PlainScannerTest, EveryByteThatDiffersIsPlainOnlyIfProtobufReadsIt) {
  const std::string whole = Answer().SerializeAsString();
  int plain = 0;
  for (std::size_t i = 0; i < whole.size(); ++i) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string changed = whole;
      changed[i] = static_cast<char>(byte);
      if (IsPlainAnswer(changed)) ++plain;
    }
  }

  EXPECT_GT(plain, 500);  // Text, and numbers.
}

TEST(PlainScannerTest, TextThatIsNotAsciiIsNotPlain) {
  rpc::CanAccessFile answer = Answer();
  answer.mutable_profile_id()->set_value("zoë");
  EXPECT_FALSE(IsPlainAnswer(answer.SerializeAsString()));

  answer.mutable_profile_id()->set_value("12345678901234567\xff");
  EXPECT_FALSE(IsPlainAnswer(answer.SerializePartialAsString()));
}

TEST(PlainScannerTest, UnknownFieldsOtherWireTypesAndGroupsAreNotPlain) {
  EXPECT_FALSE(IsPlainAnswer("\x78\x01"));                      // Field 15.
  EXPECT_FALSE(IsPlainAnswer("\x2a\x01x"));                     // The call id as bytes.
  EXPECT_FALSE(IsPlainAnswer(std::string("\x2d\0\0\0\0", 5)));  // And as a fixed32.
  EXPECT_FALSE(IsPlainAnswer("\x2b\x2c"));                      // And as a group.
  EXPECT_FALSE(IsPlainAnswer(std::string("\0", 1)));
  EXPECT_FALSE(IsPlainAnswer("\x0c"));              // The end of a group that has not begun.
  EXPECT_FALSE(IsPlainAnswer("\x22\x02\x78\x01"));  // Inside of the response.
}

TEST(PlainScannerTest, NumbersOfTenBytesAreNotPlain) {
  rpc::CanAccessFile answer = Answer();
  answer.set_call_id(-1);

  EXPECT_FALSE(IsPlainAnswer(answer.SerializeAsString()));
  EXPECT_FALSE(IsPlainAnswer("\x28\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"));
  EXPECT_FALSE(IsPlainAnswer("\x0a\xff\xff\xff\xff\xff\xff\xff\x7fx"));  // A length.
}

// `number` in `size` bytes, of which the last may say nothing.
std::string Varint(unsigned number, std::size_t size) {
  std::string bytes;
  for (; size > 1; --size, number >>= 7) bytes += static_cast<char>((number & 0x7f) | 0x80);
  return bytes + static_cast<char>(number & 0x7f);
}

TEST(PlainScannerTest, NumbersAndLengthsMayTakeMoreBytesThanTheyNeedAsFarAsProtobufReadsThem) {
  const std::string response = "\x22" + Varint(0, 1);
  for (std::size_t size = 1; size <= 12; ++size) {
    EXPECT_EQ(IsPlainAnswer("\x28" + Varint(1, size)), size <= 9) << size;
    EXPECT_EQ(IsPlainAnswer("\x0a" + Varint(0, size) + response), size <= 4) << size;
    EXPECT_EQ(IsPlainAnswer("\x22" + Varint(0, size)), size <= 4) << size;
    const std::string id = "\x0a" + Varint(1, size) + "x";
    EXPECT_EQ(IsPlainAnswer("\x0a" + Varint(static_cast<unsigned>(id.size()), 1) + id), size <= 4)
        << size;
  }
}

TEST(PlainScannerTest, FieldsOfFixedSizeAndBytesArePlain) {
  google::protobuf::DoubleValue number;
  number.set_value(1.5);
  google::protobuf::BytesValue bytes;
  bytes.set_value("\xff\xfe");

  EXPECT_TRUE(IsPlain(number, number.SerializeAsString()));
  EXPECT_FALSE(IsPlain(number, number.SerializeAsString().substr(0, 8)));
  EXPECT_TRUE(IsPlain(bytes, bytes.SerializeAsString()));
}

TEST(PlainScannerTest, MapsAreNotPlain) {
  // {"a": true}, by hand: the library's maps are not made for a program under ThreadSanitizer.
  const std::string map(
      "\x0a\x07\x0a\x01"
      "a"
      "\x12\x02\x20\x01",
      9);
  ASSERT_TRUE(google::protobuf::Struct().ParseFromString(map));

  EXPECT_FALSE(IsPlain(google::protobuf::Struct(), map));
}

TEST(PlainScannerTest, DeepMessagesAreNotPlain) {
  google::protobuf::Value flat;
  flat.set_bool_value(true);
  google::protobuf::Value deep = flat;
  for (int i = 0; i < 20; ++i) {
    google::protobuf::Value outer;
    *outer.mutable_list_value()->add_values() = deep;
    deep = outer;
  }

  EXPECT_TRUE(IsPlain(flat, flat.SerializeAsString()));
  EXPECT_FALSE(IsPlain(deep, deep.SerializeAsString()));
}

// Protobuf refuses a message without them.
TEST(PlainScannerTest, NothingIsPlainOfATypeThatRequiresFields) {
  google::protobuf::UninterpretedOption option;  // Its name parts do.
  option.set_double_value(1);

  EXPECT_FALSE(IsPlain(option, option.SerializeAsString()));
  EXPECT_FALSE(IsPlain(option, ""));
}

}  // namespace
}  // namespace varnic
