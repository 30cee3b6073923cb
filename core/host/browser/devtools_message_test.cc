#include "core/host/browser/devtools_message.h"

#include <string>
#include <variant>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using ::testing::HasSubstr;
using std::string_literals::operator""s;

DevToolsAnswer Answer(const std::string& text) {
  const auto message = ParseDevToolsMessage(text);
  EXPECT_TRUE(message.ok()) << message.status();
  const auto* answer = message.ok() ? std::get_if<DevToolsAnswer>(&*message) : nullptr;
  EXPECT_NE(answer, nullptr) << text;
  return answer == nullptr ? DevToolsAnswer{0, absl::UnknownError("none")} : *answer;
}

DevToolsEvent Event(const std::string& text) {
  const auto message = ParseDevToolsMessage(text);
  EXPECT_TRUE(message.ok()) << message.status();
  const auto* event = message.ok() ? std::get_if<DevToolsEvent>(&*message) : nullptr;
  EXPECT_NE(event, nullptr) << text;
  return event == nullptr ? DevToolsEvent() : *event;
}

absl::Status ErrorWithCode(int code) {
  return Answer(absl::StrCat(R"({"id":7,"error":{"code":)", code, R"(,"message":"No."}})"))
      .result.status();
}

TEST(DevToolsMessageTest, AnswerHasItsIdAndResult) {
  const DevToolsAnswer answer = Answer(R"({"id":7,"result":{"a":1},"sessionId":"S"})");

  EXPECT_EQ(answer.id, 7);
  ASSERT_TRUE(answer.result.ok()) << answer.result.status();
  EXPECT_EQ(*answer.result, Json({{"a", 1}}));
}

TEST(DevToolsMessageTest, ErrorIsAStatusWithItsText) {
  const absl::Status status =
      Answer(
          R"({"id":7,"error":{"code":-32602,"message":"Invalid parameters","data":"url: missing"}})")
          .result.status();

  EXPECT_EQ(status, absl::InvalidArgumentError("Invalid parameters: url: missing (code -32602)"));
}

TEST(DevToolsMessageTest, EachKindOfErrorHasACode) {
  EXPECT_TRUE(absl::IsNotFound(ErrorWithCode(-32001)));
  EXPECT_TRUE(absl::IsUnimplemented(ErrorWithCode(-32601)));
  EXPECT_TRUE(absl::IsInvalidArgument(ErrorWithCode(-32600)));
  EXPECT_TRUE(absl::IsInternal(ErrorWithCode(-32603)));
  EXPECT_TRUE(absl::IsUnknown(ErrorWithCode(-32000)));
}

TEST(DevToolsMessageTest, TextOfAnErrorIsEscapedAndCut) {
  const std::string text = Answer(absl::StrCat(R"({"id":7,"error":{"code":1,"message":"a\nb)",
                                               std::string(1000, 'x'), "\"}}"))
                               .result.status()
                               .ToString();

  EXPECT_THAT(text, HasSubstr("a\\nbxxx"));
  EXPECT_LT(text.size(), 400u);
}

TEST(DevToolsMessageTest, AnswerWithoutResultIsAnError) {
  for (const char* rest : {"", R"(,"result":1)", R"(,"result":null)", R"(,"error":1)"}) {
    EXPECT_TRUE(absl::IsInternal(Answer(absl::StrCat("{\"id\":7", rest, "}")).result.status()));
  }
}

TEST(DevToolsMessageTest, EventHasItsMethodSessionAndParams) {
  const DevToolsEvent event = Event(R"({"method":"A.b","params":{"c":1},"sessionId":"S"})");

  EXPECT_EQ(event.method, "A.b");
  EXPECT_EQ(event.session_id, "S");
  EXPECT_EQ(event.params, Json({{"c", 1}}));
}

TEST(DevToolsMessageTest, EventMayHaveNeitherSessionNorParams) {
  const DevToolsEvent event = Event(R"({"method":"A.b"})");

  EXPECT_EQ(event.session_id, "");
  EXPECT_EQ(event.params, Json::object());
}

TEST(DevToolsMessageTest, ErrorWithoutIdIsAComplaint) {
  const auto message =
      ParseDevToolsMessage(R"({"error":{"code":-32700,"message":"JSON: wrong"},"id":null})");

  ASSERT_TRUE(message.ok()) << message.status();
  const auto* complaint = std::get_if<DevToolsComplaint>(&*message);
  ASSERT_NE(complaint, nullptr);
  EXPECT_EQ(complaint->error, absl::UnknownError("JSON: wrong (code -32700)"));
}

TEST(DevToolsMessageTest, WhatIsNoMessageIsRefused) {
  for (const std::string text :
       {"", "x", "{", "[]", "1", "\"text\"", "{}", R"({"id":0})", R"({"id":-1,"result":{}})",
        R"({"id":2147483648,"result":{}})", R"({"id":18446744073709551615,"result":{}})",
        R"({"id":1.5,"result":{}})", R"({"method":""})", R"({"method":7})",
        R"({"method":"A.b","params":[]})", R"({"id":7,"result":{}} {})", "{\"a\":\"\xff\"}"}) {
    const auto message = ParseDevToolsMessage(text);

    EXPECT_TRUE(absl::IsInvalidArgument(message.status())) << text << ": " << message.status();
  }
}

TEST(DevToolsMessageTest, NestingHasABound) {
  const auto nested = [](size_t depth) {
    return absl::StrCat(R"({"id":7,"result":{"a":)", std::string(depth, '['),
                        std::string(depth, ']'), "}}");
  };

  EXPECT_TRUE(Answer(nested(400)).result.ok());
  EXPECT_TRUE(absl::IsInvalidArgument(ParseDevToolsMessage(nested(1'000'000)).status()));
  EXPECT_FALSE(ParseDevToolsMessage(std::string(1'000'000, '[')).ok());
}

TEST(DevToolsMessageTest, HalfSurrogatePairsAreReplaced) {
  const DevToolsAnswer answer =
      Answer(R"({"id":7,"result":{"a":"\ud83d|\ude00|\ud83d\ude00|\\ud83d|\ud83d\ud83d\ude00"}})");

  ASSERT_TRUE(answer.result.ok()) << answer.result.status();
  EXPECT_EQ((*answer.result)["a"], "\uFFFD|\uFFFD|\U0001F600|\\ud83d|\uFFFD\U0001F600");
}

TEST(DevToolsMessageTest, HalfSurrogatePairAtTheVeryEndIsRefused) {
  EXPECT_TRUE(absl::IsInvalidArgument(ParseDevToolsMessage(R"({"id":7,"a":"\ud83d)").status()));
  EXPECT_TRUE(absl::IsInvalidArgument(ParseDevToolsMessage("{\"id\":7,\"a\":\"\\").status()));
}

TEST(DevToolsMessageTest, CommandEndsInOneNul) {
  const std::string text = SerializeDevToolsCommand(7, "A.b", {{"c", 1}}, "");

  EXPECT_EQ(text, R"({"id":7,"method":"A.b","params":{"c":1}})" + "\0"s);
}

TEST(DevToolsMessageTest, CommandOfASessionNamesIt) {
  const std::string text = SerializeDevToolsCommand(7, "A.b", Json::object(), "S");

  EXPECT_EQ(Json::parse(text.c_str())["sessionId"], "S");
}

TEST(DevToolsMessageTest, CommandNeverHasANulOrBadBytesInside) {
  const std::string text = SerializeDevToolsCommand(7, "A.b", {{"c", "a\0b\xff"s}}, "");

  EXPECT_EQ(text.find('\0'), text.size() - 1);
  EXPECT_EQ(Json::parse(text.c_str())["params"]["c"], "a\0b\uFFFD"s);
}

}  // namespace
}  // namespace varnic::host
