#include "core/common/rpc/readable_payload.h"

#include <gtest/gtest.h>

#include <string>

#include "rpc/profile/profile.pb.h"

namespace varnic {
namespace {

bool IsReadableWithPath(const std::string& path) {
  rpc::CanAccessFile question;
  question.set_call_id(1'000'000);
  question.mutable_request()->set_path(path);
  return IsReadable(question, question.SerializeAsString());
}

TEST(ReadablePayloadTest, TextIsReadable) {
  EXPECT_TRUE(IsReadableWithPath(""));
  EXPECT_TRUE(IsReadableWithPath("/etc/hosts"));
  EXPECT_TRUE(IsReadableWithPath("/home/zoë/世界"));
}

TEST(ReadablePayloadTest, BytesThatAreNoTextAreNot) {
  EXPECT_FALSE(IsReadableWithPath("/tmp/\xff"));
  EXPECT_FALSE(IsReadableWithPath("\xc3"));
  EXPECT_FALSE(IsReadableWithPath(std::string(5000, 'x') + "\xed\xa0\x80"));
}

}  // namespace
}  // namespace varnic
