#include "core/host/browser/nul_message_reader.h"

#include <memory>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using std::string_literals::operator""s;

class NulMessageReaderTest : public ::testing::Test {
 protected:
  void Read(const std::string& bytes) {
    reader_.Read(bytes, [this](const NulMessage& message) {
      messages_.emplace_back(message.text);
      endings_.emplace_back(message.ending);
      return true;
    });
  }

  NulMessageReader reader_{/*max_message_bytes=*/5};
  std::vector<std::string> messages_;
  std::vector<std::string> endings_;
};

TEST_F(NulMessageReaderTest, CutsAtEachNul) {
  Read("one\0two\0"s);

  EXPECT_THAT(messages_, ElementsAre("one", "two"));
}

TEST_F(NulMessageReaderTest, PutsPiecesTogether) {
  for (const char byte : "one\0two\0"s) Read(std::string(1, byte));

  EXPECT_THAT(messages_, ElementsAre("one", "two"));
}

TEST_F(NulMessageReaderTest, KeepsAHalfMessage) {
  Read("one\0tw"s);

  EXPECT_THAT(messages_, ElementsAre("one"));
  EXPECT_EQ(reader_.unfinished_bytes(), 2u);
}

TEST_F(NulMessageReaderTest, LeavesOutEmptyMessages) {
  Read("\0\0\0"s);

  EXPECT_THAT(messages_, IsEmpty());
}

TEST_F(NulMessageReaderTest, TakesTheLongestMessage) {
  Read("12345\0"s);
  Read("123"s);
  Read("45\0"s);

  EXPECT_THAT(messages_, ElementsAre("12345", "12345"));
}

TEST_F(NulMessageReaderTest, KeepsHowALongerMessageBeginsAndEnds) {
  for (const char byte : "123456789\0one\0"s) Read(std::string(1, byte));
  Read("123456789\0two\0"s);

  EXPECT_THAT(messages_, ElementsAre("12345", "one", "12345", "two"));
  EXPECT_THAT(endings_, ElementsAre("123456789", "", "123456789", ""));
}

TEST_F(NulMessageReaderTest, HoldsLittleOfAMessageWithoutAnEnd) {
  NulMessageReader reader(/*max_message_bytes=*/8 << 20);
  const std::string piece(1 << 20, 'x');
  for (int i = 0; i < 20; ++i) {
    reader.Read(piece, [](const NulMessage&) { return true; });
  }
  EXPECT_EQ(reader.unfinished_bytes(),
            NulMessageReader::kTextBytes + NulMessageReader::kEndingBytes);

  std::string ending;
  reader.Read("the end\0"s, [&ending](const NulMessage& message) {
    ending = message.ending;
    return true;
  });

  EXPECT_EQ(ending, std::string(NulMessageReader::kEndingBytes - 7, 'x') + "the end");
  EXPECT_EQ(reader.unfinished_bytes(), 0u);
}

TEST_F(NulMessageReaderTest, MayBeDestroyedByItsCallback) {
  auto reader = std::make_unique<NulMessageReader>(/*max_message_bytes=*/5);
  reader->Read("on", [](const NulMessage&) { return true; });

  reader->Read("e\0two\0"s, [&](const NulMessage& message) {
    messages_.emplace_back(message.text);
    reader = nullptr;
    return false;
  });

  EXPECT_THAT(messages_, ElementsAre("one"));
}

}  // namespace
}  // namespace varnic::host
