#include "tools/question_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;

constexpr char kHostile[] = "\x1b]0;x\x07 \xc2\x9b y\n\u202E";

rpc::CanAccessFile::Request FileRequest(const std::string& path, const std::string& origin) {
  rpc::CanAccessFile::Request request;
  request.set_path(path);
  request.set_origin(origin);
  request.set_access(rpc::CanAccessFile::READ);
  return request;
}

rpc::Authenticate::Request Challenge() {
  rpc::Authenticate::Request request;
  request.set_url("https://example.com/");
  request.set_challenger_host("example.com");
  request.set_challenger_port(443);
  request.set_scheme("basic");
  request.set_realm("Staff");
  return request;
}

void ExpectHarmless(const std::string& text) {
  for (const char* harm : {"\x1b", "\x07", "\xc2\x9b", "\n", "\u202E"}) {
    EXPECT_THAT(text, ::testing::Not(HasSubstr(harm)));
  }
}

TEST(QuestionTextTest, FileAnswerIsOneLine) {
  const auto request = FileRequest("/etc/motd", "https://example.com");

  EXPECT_EQ(DescribeFileAnswer("P", request, "allow", "--allow /etc/**").for_people,
            "allow      read    /etc/motd  for https://example.com  (--allow /etc/**)");
  EXPECT_EQ(DescribeFileAnswer("P", rpc::CanAccessFile::Request(), "withdrawn", "").for_people,
            "withdrawn  access  \"\"  for \"\"");
}

TEST(QuestionTextTest, FileAnswerForProgramsHasTheRequest) {
  const auto request = FileRequest("/etc/motd", "https://example.com");

  const Happening happening = DescribeFileAnswer("P", request, "deny", "no rule matches");

  EXPECT_EQ(happening.type, "file");
  EXPECT_EQ(happening.profile, "P");
  EXPECT_EQ(happening.fields["request"]["path"], "/etc/motd");
  EXPECT_EQ(happening.fields["request"]["access"], "READ");
  EXPECT_EQ(happening.fields["answer"], "deny");
  EXPECT_EQ(happening.fields["reason"], "no rule matches");
}

TEST(QuestionTextTest, CredentialsAnswerIsOneLineWithoutThePassword) {
  EXPECT_EQ(DescribeCredentialsAnswer("P", Challenge(), "sent", "alice", "").for_people,
            "sent       basic      server example.com:443  realm Staff  as alice  page "
            "https://example.com/");
  EXPECT_EQ(DescribeCredentialsAnswer("P", Challenge(), "cancelled", "", "why").for_people,
            "cancelled  basic      server example.com:443  realm Staff  page "
            "https://example.com/  (why)");
}

TEST(QuestionTextTest, ProxyIsToldFromAServer) {
  auto request = Challenge();
  request.set_is_proxy(true);

  EXPECT_THAT(AskForCredentials("", request), HasSubstr("the proxy example.com:443"));
  EXPECT_EQ(DescribeCredentialsAnswer("", request, "sent", "a", "").fields["request"]["isProxy"],
            true);
}

TEST(QuestionTextTest, QuestionsNameEverythingThatMatters) {
  EXPECT_EQ(AskAboutFile("", FileRequest("/etc/motd", "https://example.com")),
            "May the page of https://example.com read /etc/motd? Profile (default) [y/N] ");
  EXPECT_EQ(AskForCredentials("P", Challenge()),
            "Credentials for the server example.com:443 (basic, realm Staff), page "
            "https://example.com/, profile P");
}

TEST(QuestionTextTest, PathCannotPassForTheRestOfTheQuestion) {
  const auto request = FileRequest("/a? Profile x [y/N]", "null read /b");

  EXPECT_EQ(AskAboutFile("", request),
            "May the page of \"null read /b\" read \"/a? Profile x [y/N]\"? Profile (default) "
            "[y/N] ");
}

TEST(QuestionTextTest, WhatPagesWriteDoesNothingToTheTerminal) {
  const auto file = FileRequest(kHostile, kHostile);
  rpc::Authenticate::Request challenge;
  challenge.set_url(kHostile);
  challenge.set_challenger_host(kHostile);
  challenge.set_scheme(kHostile);
  challenge.set_realm(kHostile);

  ExpectHarmless(AskAboutFile(kHostile, file));
  ExpectHarmless(AskForCredentials(kHostile, challenge));
  ExpectHarmless(DescribeFileAnswer(kHostile, file, "deny", kHostile).for_people);
  ExpectHarmless(
      DescribeCredentialsAnswer(kHostile, challenge, "sent", kHostile, kHostile).for_people);
}

TEST(QuestionTextTest, LongTextsOfPagesAreCut) {
  const std::string text(200000, 'a');
  rpc::Authenticate::Request challenge;
  challenge.set_url(text);
  challenge.set_challenger_host(text);
  challenge.set_scheme(text);
  challenge.set_realm(text);

  EXPECT_LT(AskForCredentials("", challenge).size(), 2000u);
  EXPECT_LT(DescribeCredentialsAnswer("", challenge, "sent", text, "").for_people.size(), 2500u);
  EXPECT_LT(AskAboutFile("", FileRequest("/" + text, text)).size(), 5000u);
  EXPECT_THAT(AskForCredentials("", challenge), HasSubstr("(200000 bytes)"));
}

TEST(QuestionTextTest, PathThatMayBeAllowedIsShownWhole) {
  const std::string path = "/" + std::string(4095, 'a');

  EXPECT_THAT(AskAboutFile("", FileRequest(path, "")), HasSubstr(path + "?"));
}

}  // namespace
}  // namespace varnic::tools
