#include "core/net/frame_message.h"

#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <string>

#include "core/net/message_framing.h"

namespace varnic::net {
namespace {

TEST(FrameMessageTest, AnEmptyMessageIsItsPrefix) {
  EXPECT_EQ(FrameMessage(google::protobuf::StringValue()), std::string(5, '\0'));
}

TEST(FrameMessageTest, AMessageStandsBehindItsPrefixAndIsReadBack) {
  google::protobuf::StringValue message;
  message.set_value(std::string(70'000, 'x'));

  const std::string framed = FrameMessage(message);

  MessageReader reader(1 << 20);
  std::string read;
  const absl::Status status = reader.Read(framed, [&](std::string_view bytes, bool compressed) {
    EXPECT_FALSE(compressed);
    read = bytes;
    return absl::OkStatus();
  });
  EXPECT_TRUE(status.ok()) << status;
  EXPECT_EQ(read, message.SerializeAsString());
  EXPECT_FALSE(reader.mid_message());
}

TEST(FrameMessageTest, ASmallMessageIsTheSameInABuffer) {
  google::protobuf::StringValue message;
  message.set_value("small");
  const std::string framed = FrameMessage(message);
  std::string buffer(framed.size(), 'x');

  EXPECT_EQ(FrameMessageIn(absl::MakeSpan(buffer), message), framed);
  EXPECT_EQ(FrameMessageIn(absl::MakeSpan(buffer).first(framed.size() - 1), message).data(),
            nullptr);
}

}  // namespace
}  // namespace varnic::net
