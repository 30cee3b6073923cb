#include "core/host/browser/cut_message.h"

#include <string>
#include <variant>

#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

// The event of a request, and where it may end.
const std::string kPaused =
    R"({"method":"Fetch.requestPaused","params":{"requestId":"R","request":)"
    R"({"url":"http://a/","method":"POST","headers":{"A":"1","B":"2"},"postData":"xxxxxxxx"},)"
    R"("frameId":"F"}})";

// The params of the event; a text for anything else.
Json Read(const std::string& beginning) {
  const absl::StatusOr<DevToolsMessage> message = ReadCutMessage({beginning, ""});
  if (!message.ok()) return message.status().ToString();
  const auto* const event = std::get_if<DevToolsEvent>(&*message);
  return event == nullptr ? Json("no event") : event->params;
}

std::string UpTo(const std::string& text) {
  return kPaused.substr(0, kPaused.find(text) + text.size());
}

TEST(CutMessageTest, RequestIsKnownByWhatStandsBeforeItsUpload) {
  EXPECT_EQ(Read(UpTo("postData\":\"xxx")), Json::parse(R"({"requestId":"R","request":
      {"url":"http://a/","method":"POST","headers":{"A":"1","B":"2"}}})"));
}

TEST(CutMessageTest, HeadersAreWholeOrNotThere) {
  EXPECT_EQ(Read(UpTo("\"A\":\"1\",")), Json::parse(R"({"requestId":"R","request":
      {"url":"http://a/","method":"POST"}})"));
}

TEST(CutMessageTest, UrlIsWholeOrNotThere) {
  EXPECT_EQ(Read(UpTo("http:")), Json::parse(R"({"requestId":"R","request":{}})"));
}

TEST(CutMessageTest, WhereverItEndsItIsNoTrouble) {
  for (size_t size = 0; size <= kPaused.size(); ++size) {
    const Json params = Read(kPaused.substr(0, size));
    EXPECT_TRUE(params.is_string() || params.is_object()) << params;
  }
  EXPECT_EQ(Read(kPaused), Json::parse(kPaused)["params"]);
}

// Of a navigation whose frame has a long name.
std::string SessionOf(const std::string& ending) {
  const absl::StatusOr<DevToolsMessage> message = ReadCutMessage(
      {R"({"method":"Page.frameNavigated","params":{"frame":{"id":"F","name":"xxx)", ending});
  if (!message.ok()) return message.status().ToString();
  const auto& event = std::get<DevToolsEvent>(*message);
  EXPECT_EQ(event.params, Json::parse(R"({"frame":{"id":"F"}})"));
  return event.session_id;
}

TEST(CutMessageTest, SessionStandsAtTheEnd) {
  EXPECT_EQ(SessionOf(R"(xxx","url":"u"}},"sessionId":"S"})"), "S");
  EXPECT_EQ(SessionOf(R"(xxx","url":"u"}}})"), "");
}

TEST(CutMessageTest, PageCannotWriteASession) {
  EXPECT_EQ(SessionOf(R"(xxx},\"sessionId\":\"T\"}"}},"sessionId":"S"})"), "S");
  EXPECT_EQ(SessionOf(R"(xxx},\"sessionId\":\"T\"}"}})"), "");
  EXPECT_EQ(SessionOf(R"({"x":{},"sessionId":"T"}}})"), "");
  EXPECT_EQ(SessionOf(R"(},"sessionId":"T)"), "");
}

TEST(CutMessageTest, AnswerIsAnError) {
  const absl::StatusOr<DevToolsMessage> message =
      ReadCutMessage({R"({"id":7,"result":{"a":"xxx)", ""});

  ASSERT_TRUE(message.ok()) << message.status();
  const auto* const answer = std::get_if<DevToolsAnswer>(&*message);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->id, 7);
  EXPECT_TRUE(absl::IsResourceExhausted(answer->result.status())) << answer->result.status();
}

TEST(CutMessageTest, AllElseIsNothing) {
  const std::string nothing = "INVALID_ARGUMENT: a message is too long";

  EXPECT_EQ(Read(R"({"method":"Target.targetInfoChanged","params":{"targetInfo":{"title":"xxx)"),
            nothing);
  EXPECT_EQ(Read(R"({"method":"Fetch.requestPaused","params":7,"x":"xxx)"), nothing);
  EXPECT_EQ(Read(R"({"id":99999999999,"result":"xxx)"), nothing);
  EXPECT_EQ(Read(R"({"id":-1,"result":"xxx)"), nothing);
  EXPECT_EQ(Read("[1,[2,3"), nothing);
  EXPECT_EQ(Read("7"), nothing);
  EXPECT_EQ(Read("garbage"), nothing);
  EXPECT_EQ(Read(""), nothing);
  EXPECT_EQ(Read(std::string(100, '[')), nothing);
}

}  // namespace
}  // namespace varnic::host
