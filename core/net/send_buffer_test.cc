#include "core/net/send_buffer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace varnic::net {
namespace {

std::string TakeAll(SendBuffer& buffer, std::size_t step) {
  std::string all;
  std::string part(step, '\0');
  while (!buffer.empty()) all.append(part, 0, buffer.Take(&part[0], step));
  return all;
}

TEST(SendBufferTest, PiecesComeOutInTheirOrderHoweverTheyAreTaken) {
  for (std::size_t step = 1; step < 20; ++step) {
    SendBuffer buffer;
    buffer.Append("one ");
    buffer.AppendShared(std::make_shared<const std::string>("two "));
    buffer.Append("");
    buffer.Append("three");
    ASSERT_EQ(buffer.bytes(), 13U);

    EXPECT_EQ(TakeAll(buffer, step), "one two three") << step;
    EXPECT_EQ(buffer.bytes(), 0U);
  }
}

TEST(SendBufferTest, MayBeFilledAgainInTheMiddleOfAPiece) {
  SendBuffer buffer;
  buffer.Append("abc");
  char part[2];
  ASSERT_EQ(buffer.Take(part, 2), 2U);

  buffer.Append("def");

  EXPECT_EQ(TakeAll(buffer, 16), "cdef");
}

TEST(SendBufferTest, LargeSharedPieceIsNotCopiedAndLetGoWhenItIsTaken) {
  const auto shared = std::make_shared<const std::string>(SendBuffer::kSmall + 1, 'e');
  SendBuffer one;
  SendBuffer two;
  one.AppendShared(shared);
  two.AppendShared(shared);
  EXPECT_EQ(shared.use_count(), 3);

  TakeAll(one, 16);

  EXPECT_EQ(shared.use_count(), 2);
}

TEST(SendBufferTest, SmallSharedPieceIsLetGoAtOnce) {
  const auto shared = std::make_shared<const std::string>("event");
  SendBuffer buffer;

  buffer.AppendShared(shared);

  EXPECT_EQ(shared.use_count(), 1);
  EXPECT_EQ(TakeAll(buffer, 16), "event");
}

TEST(SendBufferTest, PiecesOfEverySizeKeepTheirOrder) {
  for (const std::size_t step : {1u, 7u, 500u, 20'000u}) {
    SendBuffer buffer;
    std::string all;
    for (int i = 0; i < 200; ++i) {
      const std::string piece(static_cast<std::size_t>(i * i % 900),
                              static_cast<char>('a' + i % 26));
      all += piece;
      if (i % 3 == 0) {
        buffer.AppendShared(std::make_shared<const std::string>(piece));
      } else {
        buffer.Append(piece);
      }
    }
    ASSERT_EQ(buffer.bytes(), all.size());

    EXPECT_EQ(TakeAll(buffer, step), all) << step;
  }
}

TEST(SendBufferTest, MayBeFilledAgainWhenItWasEmpty) {
  SendBuffer buffer;
  for (const std::size_t size : {10u, 300u, 20u, 5'000u, 400u, 1u}) {
    const std::string piece(size, 'p');
    buffer.Append(piece);
    EXPECT_EQ(TakeAll(buffer, 100), piece);
    EXPECT_TRUE(buffer.empty());
  }
}

TEST(SendBufferTest, EmptyOneGivesNothing) {
  SendBuffer buffer;
  char part[4];

  EXPECT_EQ(buffer.Take(part, sizeof(part)), 0U);
}

TEST(SendBufferTest, CopiedPiecesStandInTheirOrder) {
  SendBuffer buffer;
  buffer.AppendCopy("one ");
  buffer.Append("two ");
  buffer.AppendCopy(std::string(1'000, '3'));
  buffer.AppendCopy(" four");

  EXPECT_EQ(TakeAll(buffer, 7), "one two " + std::string(1'000, '3') + " four");
}

}  // namespace
}  // namespace varnic::net
