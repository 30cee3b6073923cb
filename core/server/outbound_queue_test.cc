#include "core/server/outbound_queue.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace varnic {
namespace {

using Outcome = OutboundQueue::Outcome;

OutboundMessage Message(const std::string& text) {
  return {text, nullptr};
}

OutboundMessage Event(const std::string& text) {
  return {"", std::make_shared<const std::string>(text)};
}

std::vector<std::string> PopAll(OutboundQueue& queue) {
  std::vector<std::string> texts;
  while (!queue.empty()) {
    const OutboundMessage message = queue.Pop();
    texts.push_back(message.head + (message.shared == nullptr ? "" : *message.shared));
  }
  return texts;
}

OutboundLimits Limits() {
  OutboundLimits limits;
  limits.conflate_from_messages = 2;
  limits.max_messages = 4;
  limits.max_bytes = 100;
  return limits;
}

TEST(OutboundQueueTest, MessagesAndEventsComeOutInTheirOrder) {
  OutboundQueue queue(OutboundLimits{});
  queue.Push(Message("one"));
  queue.PushEvent(Event("two"), "key");
  queue.Push(Message("three"));

  EXPECT_EQ(queue.messages(), 3U);
  EXPECT_EQ(queue.bytes(), 11U);
  EXPECT_EQ(PopAll(queue), (std::vector<std::string>{"one", "two", "three"}));
  EXPECT_EQ(queue.bytes(), 0U);
}

TEST(OutboundQueueTest, EventsOfOneKeyAllWaitWhileThereAreFew) {
  OutboundQueue queue(Limits());

  EXPECT_EQ(queue.PushEvent(Event("one"), "key"), Outcome::kQueued);
  EXPECT_EQ(queue.PushEvent(Event("two"), "key"), Outcome::kQueued);

  EXPECT_EQ(PopAll(queue), (std::vector<std::string>{"one", "two"}));
}

TEST(OutboundQueueTest, NewerEventTakesThePlaceOfTheNewestOfItsKeyWhenManyWait) {
  OutboundQueue queue(Limits());
  queue.PushEvent(Event("a1"), "a");
  queue.PushEvent(Event("b1"), "b");

  EXPECT_EQ(queue.PushEvent(Event("a2 is longer"), "a"), Outcome::kConflated);

  EXPECT_EQ(queue.bytes(), 14U);
  EXPECT_EQ(PopAll(queue), (std::vector<std::string>{"a2 is longer", "b1"}));
}

TEST(OutboundQueueTest, QuestionIsNeverReplaced) {
  OutboundQueue queue(Limits());
  for (const char* text : {"q1", "q2", "q3"}) {
    EXPECT_EQ(queue.Push(Message(text)), Outcome::kQueued);
  }

  EXPECT_EQ(queue.PushEvent(Event("event"), "key"), Outcome::kQueued);

  EXPECT_EQ(PopAll(queue), (std::vector<std::string>{"q1", "q2", "q3", "event"}));
}

TEST(OutboundQueueTest, EventThatWasSentIsNotReplaced) {
  OutboundQueue queue(Limits());
  queue.PushEvent(Event("old"), "key");
  queue.Push(Message("q1"));
  queue.Pop();
  queue.Push(Message("q2"));

  EXPECT_EQ(queue.PushEvent(Event("new"), "key"), Outcome::kQueued);

  EXPECT_EQ(PopAll(queue), (std::vector<std::string>{"q1", "q2", "new"}));
}

TEST(OutboundQueueTest, OlderEventOfAKeyMayLeaveWhileANewerOneWaits) {
  OutboundQueue queue(Limits());
  queue.PushEvent(Event("one"), "key");
  queue.PushEvent(Event("two"), "key");
  queue.Pop();
  queue.Push(Message("q"));

  EXPECT_EQ(queue.PushEvent(Event("three"), "key"), Outcome::kConflated);

  EXPECT_EQ(PopAll(queue), (std::vector<std::string>{"three", "q"}));
}

TEST(OutboundQueueTest, TooManyMessagesOverflow) {
  OutboundQueue queue(Limits());
  for (int i = 0; i < 4; ++i) queue.Push(Message("x"));

  EXPECT_EQ(queue.Push(Message("x")), Outcome::kOverflow);
  EXPECT_EQ(queue.PushEvent(Event("x"), "key"), Outcome::kOverflow);
  EXPECT_EQ(queue.messages(), 4U);
}

TEST(OutboundQueueTest, TooManyBytesOverflow) {
  OutboundQueue queue(Limits());
  queue.Push(Message(std::string(60, 'x')));

  EXPECT_EQ(queue.Push(Message(std::string(41, 'x'))), Outcome::kOverflow);
  EXPECT_EQ(queue.Push(Message(std::string(40, 'x'))), Outcome::kQueued);
}

TEST(OutboundQueueTest, EventInPlaceOfAShorterOneMayOverflow) {
  OutboundQueue queue(Limits());
  queue.Push(Message(std::string(60, 'x')));
  queue.PushEvent(Event("event"), "key");

  EXPECT_EQ(queue.PushEvent(Event(std::string(41, 'x')), "key"), Outcome::kOverflow);
  EXPECT_EQ(queue.bytes(), 65U);
  EXPECT_EQ(queue.PushEvent(Event(std::string(40, 'x')), "key"), Outcome::kConflated);
}

TEST(OutboundQueueTest, MessageThatFindsNothingWaitingMayBeOfAnyLength) {
  OutboundQueue queue(Limits());

  EXPECT_EQ(queue.Push(Message(std::string(1000, 'x'))), Outcome::kQueued);
  EXPECT_EQ(queue.Push(Message("y")), Outcome::kOverflow);
}

TEST(OutboundQueueTest, EventsOfManyKeysThatNobodyReadsStayWithinTheLimits) {
  OutboundQueue queue(Limits());

  for (int i = 0; i < 1000; ++i) queue.PushEvent(Event("event"), std::to_string(i % 7));

  EXPECT_LE(queue.messages(), 4U);
  EXPECT_LE(queue.bytes(), 100U);
}

}  // namespace
}  // namespace varnic
