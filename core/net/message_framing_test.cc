#include "core/net/message_framing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace varnic::net {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr size_t kMaxMessageSize = 4 << 20;

std::string Framed(std::string_view message, bool compressed = false) {
  const MessagePrefix prefix = MakeMessagePrefix(static_cast<uint32_t>(message.size()), compressed);
  return std::string(prefix.data(), prefix.size()).append(message);
}

// A message's text, marked with a "*" if it is compressed.
std::string Described(std::string_view message, bool compressed) {
  return std::string(compressed ? "*" : "").append(message);
}

// Feeds `wire` in chunks of `chunk_size` and collects the messages.
absl::Status ReadInChunks(std::string_view wire, size_t chunk_size, MessageReader& reader,
                          std::vector<std::string>& messages) {
  for (; !wire.empty(); wire.remove_prefix(std::min(chunk_size, wire.size()))) {
    absl::Status status =
        reader.Read(wire.substr(0, chunk_size), [&](std::string_view message, bool compressed) {
          messages.push_back(Described(message, compressed));
          return absl::OkStatus();
        });
    if (!status.ok()) return status;
  }
  return reader.Finish();
}

absl::Status IgnoreMessage(std::string_view, bool) {
  return absl::OkStatus();
}

TEST(MessagePrefixTest, ThePrefixIsTheFlagAndTheBigEndianLength) {
  EXPECT_THAT(MakeMessagePrefix(0), ElementsAre(0, 0, 0, 0, 0));
  EXPECT_THAT(MakeMessagePrefix(0x01020304), ElementsAre(0, 1, 2, 3, 4));
  MessagePrefix written;
  EXPECT_EQ(WriteMessagePrefix(0x01020304, written.data()), written.data() + written.size());
  EXPECT_THAT(written, ElementsAre(0, 1, 2, 3, 4));
  EXPECT_THAT(MakeMessagePrefix(0xFFFFFFFE, /*compressed=*/true),
              ElementsAre(1, '\xFF', '\xFF', '\xFF', '\xFE'));
}

TEST(MessageReaderTest, SeveralMessagesInOneChunkAreReadInOrder) {
  MessageReader reader(kMaxMessageSize);
  std::vector<std::string> messages;

  const absl::Status status =
      ReadInChunks(Framed("one") + Framed("") + Framed("two", true), 100, reader, messages);

  EXPECT_EQ(status, absl::OkStatus());
  EXPECT_THAT(messages, ElementsAre("one", "", "*two"));
}

TEST(MessageReaderTest, ChunksOfAnySizeGiveTheSameMessages) {
  const std::string large(700, 'x');
  const std::string wire = Framed("one") + Framed("") + Framed(large, true) + Framed("two");

  for (size_t chunk_size = 1; chunk_size <= wire.size(); ++chunk_size) {
    MessageReader reader(large.size());
    std::vector<std::string> messages;

    EXPECT_EQ(ReadInChunks(wire, chunk_size, reader, messages), absl::OkStatus());
    EXPECT_THAT(messages, ElementsAre("one", "", "*" + large, "two")) << chunk_size;
  }
}

TEST(MessageReaderTest, ASplitAtAnyByteGivesTheSameMessages) {
  const std::string wire = Framed("one") + Framed("", true) + Framed("two") + Framed("");

  for (size_t split = 0; split <= wire.size(); ++split) {
    MessageReader reader(kMaxMessageSize);
    std::vector<std::string> messages;
    const auto collect = [&](std::string_view message, bool compressed) {
      messages.push_back(Described(message, compressed));
      return absl::OkStatus();
    };

    EXPECT_EQ(reader.Read(wire.substr(0, split), collect), absl::OkStatus());
    EXPECT_EQ(reader.Read(wire.substr(split), collect), absl::OkStatus());
    EXPECT_EQ(reader.Finish(), absl::OkStatus());
    EXPECT_THAT(messages, ElementsAre("one", "*", "two", "")) << split;
  }
}

TEST(MessageReaderTest, AnEmptyMessageIsHandedOutWithTheLastByteOfItsPrefix) {
  MessageReader reader(kMaxMessageSize);
  std::vector<std::string> messages;

  ASSERT_EQ(ReadInChunks(Framed(""), 1, reader, messages), absl::OkStatus());

  EXPECT_THAT(messages, ElementsAre(""));
}

TEST(MessageReaderTest, AWholeMessageIsHandedOutWhereItLies) {
  MessageReader reader(kMaxMessageSize);
  const std::string wire = Framed(std::string(1000, 'x'));
  const char* seen = nullptr;

  const absl::Status status = reader.Read(wire, [&](std::string_view message, bool) {
    seen = message.data();
    return absl::OkStatus();
  });

  EXPECT_EQ(status, absl::OkStatus());
  EXPECT_EQ(seen, wire.data() + MessagePrefix{}.size());
  EXPECT_EQ(reader.buffer_capacity(), std::string().capacity());
}

TEST(MessageReaderTest, ABodyWhosePrefixCameEarlierIsHandedOutWhereItLies) {
  MessageReader reader(kMaxMessageSize);
  const std::string wire = Framed(std::string(1000, 'x'));
  const std::string_view body = std::string_view(wire).substr(MessagePrefix{}.size());
  const char* seen = nullptr;
  ASSERT_EQ(reader.Read(wire.substr(0, MessagePrefix{}.size()), IgnoreMessage), absl::OkStatus());

  const absl::Status status = reader.Read(body, [&](std::string_view message, bool) {
    seen = message.data();
    return absl::OkStatus();
  });

  EXPECT_EQ(status, absl::OkStatus());
  EXPECT_EQ(seen, body.data());
}

TEST(MessageReaderTest, AnAnnouncedMessageCostsOnlyWhatHasArrived) {
  MessageReader reader(kMaxMessageSize);
  const std::string wire = Framed(std::string(kMaxMessageSize, 'x'));

  ASSERT_EQ(reader.Read(wire.substr(0, 1000), IgnoreMessage), absl::OkStatus());

  EXPECT_LE(reader.buffer_capacity(), 2000u);
  EXPECT_TRUE(reader.mid_message());
}

TEST(MessageReaderTest, TheBufferIsGivenBackAfterALargeMessage) {
  MessageReader reader(kMaxMessageSize);
  std::vector<std::string> messages;

  ASSERT_EQ(ReadInChunks(Framed(std::string(1 << 20, 'x')), 16384, reader, messages),
            absl::OkStatus());

  ASSERT_EQ(messages.size(), 1u);
  EXPECT_LE(reader.buffer_capacity(), 16384u);
}

TEST(MessageReaderTest, TheBufferIsKeptAfterASmallMessage) {
  MessageReader reader(kMaxMessageSize);
  std::vector<std::string> messages;

  ASSERT_EQ(ReadInChunks(Framed(std::string(1000, 'x')), 100, reader, messages), absl::OkStatus());

  EXPECT_GE(reader.buffer_capacity(), 1000u);
}

TEST(MessageReaderTest, UnfinishedIsWhatWasGatheredOfAMessage) {
  MessageReader reader(kMaxMessageSize);
  const std::string wire = Framed(std::string(100, 'x'));
  const auto expect_none = [&](std::string_view, bool) {
    EXPECT_EQ(reader.unfinished_bytes(), 0u);
    return absl::OkStatus();
  };

  ASSERT_EQ(reader.Read(wire.substr(0, 3), expect_none), absl::OkStatus());
  EXPECT_EQ(reader.unfinished_bytes(), 0u);
  ASSERT_EQ(reader.Read(wire.substr(3, 42), expect_none), absl::OkStatus());
  EXPECT_EQ(reader.unfinished_bytes(), 40u);
  ASSERT_EQ(reader.Read(wire.substr(45), expect_none), absl::OkStatus());
  EXPECT_EQ(reader.unfinished_bytes(), 0u);
}

TEST(MessageReaderTest, WhatIsDiscardedIsGivenBack) {
  MessageReader reader(kMaxMessageSize);
  ASSERT_EQ(reader.Read(Framed(std::string(1000, 'x')).substr(0, 500), IgnoreMessage),
            absl::OkStatus());

  reader.Discard();

  EXPECT_EQ(reader.unfinished_bytes(), 0u);
  EXPECT_EQ(reader.buffer_capacity(), std::string().capacity());
}

TEST(MessageReaderTest, MessageThatIsBeingReadIsNotDiscarded) {
  MessageReader reader(kMaxMessageSize);
  const std::string wire = Framed(std::string(1000, 'x'));
  ASSERT_EQ(reader.Read(wire.substr(0, 500), IgnoreMessage), absl::OkStatus());

  const absl::Status status = reader.Read(wire.substr(500), [&](std::string_view message, bool) {
    reader.Discard();
    EXPECT_EQ(message, std::string(1000, 'x'));
    return absl::OkStatus();
  });

  EXPECT_EQ(status, absl::OkStatus());
}

TEST(MessageReaderTest, AMessageOfTheLargestSizeIsRead) {
  MessageReader reader(5);
  std::vector<std::string> messages;

  EXPECT_EQ(ReadInChunks(Framed("12345"), 100, reader, messages), absl::OkStatus());

  EXPECT_THAT(messages, ElementsAre("12345"));
}

TEST(MessageReaderTest, ATooLargeMessageIsRefusedByItsPrefixAlone) {
  const MessagePrefix prefix = MakeMessagePrefix(5'000'000);
  const std::string wire = Framed("fine") + std::string(prefix.data(), prefix.size());

  for (size_t chunk_size = 1; chunk_size <= wire.size(); ++chunk_size) {
    MessageReader reader(kMaxMessageSize);
    std::vector<std::string> messages;

    const absl::Status status = ReadInChunks(wire, chunk_size, reader, messages);

    EXPECT_EQ(status.code(), absl::StatusCode::kResourceExhausted);
    EXPECT_THAT(std::string(status.message()), HasSubstr("(5000000 vs. 4194304 bytes)"));
    EXPECT_THAT(messages, ElementsAre("fine"));
  }
}

TEST(MessageReaderTest, TheLargestLengthIsRefusedWithoutOverflow) {
  MessageReader reader(kMaxMessageSize);

  const absl::Status status = reader.Read("\x01\xFF\xFF\xFF\xFF", IgnoreMessage);

  EXPECT_THAT(std::string(status.message()), HasSubstr("4294967295 vs."));
}

TEST(MessageReaderTest, AnUnknownCompressedFlagIsAnInternalError) {
  for (const char flag : {'\x02', '\x7F', '\xFF'}) {
    MessageReader reader(kMaxMessageSize);
    std::string wire = Framed("text");
    wire[0] = flag;
    std::vector<std::string> messages;

    const absl::Status status = ReadInChunks(wire, 3, reader, messages);

    EXPECT_EQ(status.code(), absl::StatusCode::kInternal);
    EXPECT_THAT(std::string(status.message()),
                HasSubstr("flag " + std::to_string(static_cast<unsigned char>(flag)) + ";"));
    EXPECT_TRUE(messages.empty());
  }
}

TEST(MessageReaderTest, AfterAnErrorNothingMoreIsRead) {
  MessageReader reader(kMaxMessageSize);
  const absl::Status first = reader.Read(std::string(5, '\x07'), IgnoreMessage);
  std::vector<std::string> messages;

  const absl::Status second = ReadInChunks(Framed("late"), 100, reader, messages);

  EXPECT_FALSE(first.ok());
  EXPECT_EQ(second, first);
  EXPECT_EQ(reader.Finish(), first);
  EXPECT_TRUE(messages.empty());
}

TEST(MessageReaderTest, AnErrorOfTheCallbackEndsTheReading) {
  const std::string wire = Framed("one") + Framed("two") + Framed("three");

  for (const size_t chunk_size : {size_t{1}, wire.size()}) {
    MessageReader reader(kMaxMessageSize);
    int calls = 0;
    absl::Status status;
    for (size_t at = 0; at < wire.size() && status.ok(); at += chunk_size) {
      status = reader.Read(wire.substr(at, chunk_size), [&](std::string_view, bool) {
        return ++calls == 2 ? absl::CancelledError("enough") : absl::OkStatus();
      });
    }

    EXPECT_EQ(status, absl::CancelledError("enough"));
    EXPECT_EQ(calls, 2);
  }
}

TEST(MessageReaderTest, AStreamMayEndOnlyBetweenMessages) {
  const std::string wire = Framed("text");

  for (size_t size = 0; size <= wire.size(); ++size) {
    MessageReader reader(kMaxMessageSize);
    ASSERT_EQ(reader.Read(wire.substr(0, size), IgnoreMessage), absl::OkStatus());

    const bool between_messages = size == 0 || size == wire.size();

    EXPECT_EQ(reader.mid_message(), !between_messages) << size;
    EXPECT_EQ(reader.Finish().code(),
              between_messages ? absl::StatusCode::kOk : absl::StatusCode::kInternal);
  }
}

TEST(MessageReaderTest, TheEndInsideAMessageSaysHowFarItCame) {
  MessageReader in_prefix(kMaxMessageSize);
  MessageReader in_body(kMaxMessageSize);
  ASSERT_EQ(in_prefix.Read(Framed("text").substr(0, 3), IgnoreMessage), absl::OkStatus());
  ASSERT_EQ(in_body.Read(Framed("text").substr(0, 8), IgnoreMessage), absl::OkStatus());

  EXPECT_THAT(std::string(in_prefix.Finish().message()),
              HasSubstr("ended in the middle of a message: 3 of the prefix's 5 bytes"));
  EXPECT_THAT(std::string(in_body.Finish().message()),
              HasSubstr("ended in the middle of a message: 3 of 4 bytes"));
}

}  // namespace
}  // namespace varnic::net
