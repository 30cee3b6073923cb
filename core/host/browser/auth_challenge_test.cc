#include "core/host/browser/auth_challenge.h"

#include <string>

#include "absl/strings/str_cat.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

Json Event(const std::string& url, const std::string& origin) {
  return {
      {"request", {{"url", url}}},
      {"authChallenge",
       {{"source", "Server"}, {"origin", origin}, {"scheme", "Basic"}, {"realm", "The \"R\""}}}};
}

std::string ChallengerOf(const std::string& origin) {
  const auto question = LoginQuestion(Event("http://a/", origin));
  if (!question) return "no question";
  return absl::StrCat(question->challenger_host(), " ", question->challenger_port());
}

std::string UrlOf(const std::string& url) {
  const auto question = LoginQuestion(Event(url, "http://a"));
  return question ? question->url() : "no question";
}

TEST(AuthChallengeTest, QuestionSaysWhatTheChallengeSays) {
  const auto question = LoginQuestion(Event("https://a.example/x?y=1", "https://a.example:8443"));

  ASSERT_TRUE(question.has_value());
  EXPECT_EQ(question->url(), "https://a.example/x?y=1");
  EXPECT_EQ(question->challenger_host(), "a.example");
  EXPECT_EQ(question->challenger_port(), 8443u);
  EXPECT_EQ(question->scheme(), "basic");
  EXPECT_EQ(question->realm(), "The \"R\"");
  EXPECT_FALSE(question->is_proxy());
}

TEST(AuthChallengeTest, ProxyIsToldFromAServer) {
  Json event = Event("http://a/", "http://proxy:3128");
  event["authChallenge"]["source"] = "Proxy";

  EXPECT_TRUE(LoginQuestion(event)->is_proxy());
}

TEST(AuthChallengeTest, PortIsTheSchemesOwnIfTheOriginHasNone) {
  EXPECT_EQ(ChallengerOf("http://a"), "a 80");
  EXPECT_EQ(ChallengerOf("https://a"), "a 443");
  EXPECT_EQ(ChallengerOf("https://a/"), "a 443");
  EXPECT_EQ(ChallengerOf("other://a"), "a 0");
}

TEST(AuthChallengeTest, Ipv6AddressesHaveNoBrackets) {
  EXPECT_EQ(ChallengerOf("http://[::1]:8080"), "::1 8080");
  EXPECT_EQ(ChallengerOf("https://[2001:db8::1]"), "2001:db8::1 443");
}

TEST(AuthChallengeTest, OddOriginsAreNoTrouble) {
  EXPECT_EQ(ChallengerOf("a"), "a 0");
  EXPECT_EQ(ChallengerOf("http://a:99999"), "a 0");
  EXPECT_EQ(ChallengerOf("http://a:x"), "a 0");
  EXPECT_EQ(ChallengerOf("http://"), " 80");
  EXPECT_EQ(ChallengerOf(""), "no question");
}

TEST(AuthChallengeTest, CredentialsAndFragmentsAreNotOfTheUrl) {
  EXPECT_EQ(UrlOf("http://ann:secret@a/x#y"), "http://a/x");
  EXPECT_EQ(UrlOf("http://ann:se@cret@a?q=b@c"), "http://a?q=b@c");
  EXPECT_EQ(UrlOf("http://a/x@y"), "http://a/x@y");
  EXPECT_EQ(UrlOf("about:blank#x"), "about:blank");
}

TEST(AuthChallengeTest, TooLongAQuestionIsNone) {
  Json event = Event("http://a/", "http://a");
  event["authChallenge"]["realm"] = std::string(64 << 10, 'R');

  EXPECT_EQ(UrlOf("http://a/" + std::string(60'000, 'x')).size(), 60'009u);
  EXPECT_EQ(UrlOf("http://a/" + std::string(64 << 10, 'x')), "no question");
  EXPECT_FALSE(LoginQuestion(event).has_value());
}

TEST(AuthChallengeTest, EventOfAnotherFormIsNoQuestion) {
  EXPECT_FALSE(LoginQuestion(Json::object()).has_value());
  EXPECT_FALSE(LoginQuestion({{"request", 7}, {"authChallenge", "x"}}).has_value());
}

}  // namespace
}  // namespace varnic::host
