#include "core/common/rpc/field_writer.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "rpc/profile/profile.pb.h"

namespace varnic {
namespace {

using rpc::CanAccessFile;

TEST(FieldWriterTest, WritesWhatProtobufWrites) {
  for (const std::size_t size : {0u, 1u, 127u, 128u, 100'000u}) {
    CanAccessFile message;
    message.mutable_profile_id()->set_value("work");
    message.mutable_request()->set_path(std::string(size, 'x'));
    message.set_call_id(77);
    std::string bytes;

    AppendMessageField(CanAccessFile::kProfileIdFieldNumber, message.profile_id(), bytes);
    AppendMessageField(CanAccessFile::kRequestFieldNumber, message.request(), bytes);
    AppendInt64Field(CanAccessFile::kCallIdFieldNumber, message.call_id(), bytes);

    EXPECT_EQ(bytes, message.SerializeAsString()) << size;
  }
}

TEST(FieldWriterTest, AnEmptyMessageIsThereNevertheless) {
  std::string bytes;

  AppendMessageField(CanAccessFile::kProfileIdFieldNumber, ProfileId(), bytes);

  CanAccessFile message;
  ASSERT_TRUE(message.ParseFromString(bytes));
  EXPECT_TRUE(message.has_profile_id());
}

TEST(FieldWriterTest, NumbersOfAnySizeAndFieldsOfAnyNumberAreRead) {
  for (const std::int64_t value :
       {std::int64_t{-1}, std::int64_t{127}, std::int64_t{128},
        std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
    CanAccessFile number;
    std::string bytes;

    AppendInt64Field(1000, 1, bytes);  // Unknown.
    AppendInt64Field(CanAccessFile::kCallIdFieldNumber, value, bytes);

    ASSERT_TRUE(number.ParseFromString(bytes));
    EXPECT_EQ(number.call_id(), value);
  }
}

}  // namespace
}  // namespace varnic
