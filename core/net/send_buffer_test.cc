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

TEST(SendBufferTest, SharedPieceIsNotCopiedAndLetGoWhenItIsTaken) {
  const auto shared = std::make_shared<const std::string>("event");
  SendBuffer one;
  SendBuffer two;
  one.AppendShared(shared);
  two.AppendShared(shared);
  EXPECT_EQ(shared.use_count(), 3);

  TakeAll(one, 16);

  EXPECT_EQ(shared.use_count(), 2);
}

TEST(SendBufferTest, EmptyOneGivesNothing) {
  SendBuffer buffer;
  char part[4];

  EXPECT_EQ(buffer.Take(part, sizeof(part)), 0U);
}

}  // namespace
}  // namespace varnic::net
