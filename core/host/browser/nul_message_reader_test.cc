#include "core/host/browser/nul_message_reader.h"

#include <memory>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using std::string_literals::operator""s;

class NulMessageReaderTest : public ::testing::Test {
 protected:
  absl::Status Read(const std::string& bytes) {
    return reader_.Read(bytes, [this](std::string_view message) {
      messages_.emplace_back(message);
      return true;
    });
  }

  NulMessageReader reader_{/*max_message_bytes=*/5};
  std::vector<std::string> messages_;
};

TEST_F(NulMessageReaderTest, CutsAtEachNul) {
  EXPECT_TRUE(Read("one\0two\0"s).ok());

  EXPECT_THAT(messages_, ElementsAre("one", "two"));
}

TEST_F(NulMessageReaderTest, PutsPiecesTogether) {
  for (const char byte : "one\0two\0"s) EXPECT_TRUE(Read(std::string(1, byte)).ok());

  EXPECT_THAT(messages_, ElementsAre("one", "two"));
}

TEST_F(NulMessageReaderTest, KeepsAHalfMessage) {
  EXPECT_TRUE(Read("one\0tw"s).ok());

  EXPECT_THAT(messages_, ElementsAre("one"));
  EXPECT_EQ(reader_.unfinished_bytes(), 2u);
}

TEST_F(NulMessageReaderTest, LeavesOutEmptyMessages) {
  EXPECT_TRUE(Read("\0\0\0"s).ok());

  EXPECT_THAT(messages_, IsEmpty());
}

TEST_F(NulMessageReaderTest, TakesTheLongestMessage) {
  EXPECT_TRUE(Read("12345\0"s).ok());
  EXPECT_TRUE(Read("123"s).ok());
  EXPECT_TRUE(Read("45\0"s).ok());

  EXPECT_THAT(messages_, ElementsAre("12345", "12345"));
}

TEST_F(NulMessageReaderTest, RefusesALongerMessageBeforeItsEnd) {
  EXPECT_TRUE(Read("123"s).ok());

  const absl::Status status = Read("456"s);

  EXPECT_TRUE(absl::IsResourceExhausted(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("more than 5 bytes"));
  EXPECT_THAT(messages_, IsEmpty());
}

TEST_F(NulMessageReaderTest, RefusesALongerMessageInOnePiece) {
  EXPECT_TRUE(absl::IsResourceExhausted(Read("123456\0"s)));
  EXPECT_THAT(messages_, IsEmpty());
}

TEST_F(NulMessageReaderTest, MayBeDestroyedByItsCallback) {
  auto reader = std::make_unique<NulMessageReader>(/*max_message_bytes=*/5);
  EXPECT_TRUE(reader->Read("on", [](std::string_view) { return true; }).ok());

  const absl::Status status = reader->Read("e\0two\0"s, [&](std::string_view message) {
    messages_.emplace_back(message);
    reader = nullptr;
    return false;
  });

  EXPECT_TRUE(status.ok()) << status;
  EXPECT_THAT(messages_, ElementsAre("one"));
}

}  // namespace
}  // namespace varnic::host
