#include "tools/answer_text.h"

#include <gmock/gmock.h>
#include <google/protobuf/empty.pb.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <string>

#include "rpc/profile/profile.pb.h"

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;

TEST(AnswerTextTest, PeopleGetTheValueAlone) {
  google::protobuf::StringValue text;
  text.set_value("Grüße");
  google::protobuf::BoolValue flag;
  BrowserId id;
  id.set_value(7);

  EXPECT_EQ(FormatAnswerForPeople(text), "Grüße\n");
  EXPECT_EQ(FormatAnswerForPeople(flag), "false\n");
  EXPECT_EQ(FormatAnswerForPeople(id), "7\n");
  EXPECT_EQ(FormatAnswerForPeople(google::protobuf::Empty()), "");
}

TEST(AnswerTextTest, PeopleGetALineForEachField) {
  rpc::UserAgentMetadata metadata;
  for (const char* brand : {"Chromium", "Not A Brand"}) {
    metadata.add_brands()->set_brand(brand);
    metadata.mutable_brands()->rbegin()->set_version("156");
  }
  metadata.set_platform("Linux");

  const std::string text = FormatAnswerForPeople(metadata);

  EXPECT_THAT(text, HasSubstr("brands: Chromium 156, Not A Brand 156\n"));
  EXPECT_THAT(text, HasSubstr("platform: Linux\n"));
  EXPECT_THAT(text, HasSubstr("mobile: false\n"));
}

TEST(AnswerTextTest, AnswerForPeopleDoesNothingToTheTerminalAndKeepsToItsLine) {
  google::protobuf::StringValue name;
  name.set_value("My \\ profile\x1b[2J\nplatform: none\r\u202E");
  rpc::UserAgentMetadata metadata;
  metadata.add_brands()->set_brand("Chromium\x1b]0;title\x07");
  metadata.set_platform("Linux\nmobile: true");

  const std::string text = FormatAnswerForPeople(metadata);

  EXPECT_EQ(FormatAnswerForPeople(name),
            "My \\ profile\\x1b[2J\\nplatform: none\\r\\xe2\\x80\\xae\n");
  EXPECT_THAT(text, HasSubstr("brands: Chromium\\x1b]0;title\\x07 \n"));
  EXPECT_THAT(text, HasSubstr("platform: Linux\\nmobile: true\n"));
}

TEST(AnswerTextTest, AnswerForProgramsKeepsEveryCharacter) {
  google::protobuf::StringValue name;
  name.set_value("a\x1b[2J\nb");

  EXPECT_EQ(FormatAnswerAsJson(name), "\"a\\u001b[2J\\nb\"\n");
}

TEST(AnswerTextTest, ProgramsGetJsonWithEveryField) {
  rpc::UserAgentMetadata metadata;
  metadata.set_platform("Linux");

  EXPECT_THAT(FormatAnswerAsJson(metadata), HasSubstr(R"("platform":"Linux")"));
  EXPECT_THAT(FormatAnswerAsJson(metadata), HasSubstr(R"("mobile":false)"));
}

}  // namespace
}  // namespace varnic::tools
