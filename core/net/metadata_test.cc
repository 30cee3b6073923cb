#include "core/net/metadata.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace varnic::net {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

void ExpectRefused(std::string_view key, std::string_view value, const std::string& text) {
  Metadata metadata;

  const absl::Status status = metadata.Add(key, value);

  EXPECT_EQ(status.code(), absl::StatusCode::kInvalidArgument) << key;
  EXPECT_THAT(std::string(status.message()), HasSubstr(text));
  EXPECT_TRUE(metadata.empty());
}

TEST(MetadataTest, RequestHasItsCustomFieldsInTheirOrder) {
  HeaderList headers;
  for (const auto& [name, value] :
       {std::pair(":path", "/a/b"), std::pair("te", "trailers"), std::pair("x-one", "1"),
        std::pair("content-type", "application/grpc"), std::pair("grpc-timeout", "1S"),
        std::pair("user-agent", "test"), std::pair("x-one", "2")}) {
    headers.Add(name, value);
  }

  const Metadata metadata = Metadata::FromHeaders(headers);

  EXPECT_EQ(metadata.entries().size(), 3u);
  EXPECT_THAT(metadata.FindAll("x-one"), ElementsAre("1", "2"));
  EXPECT_EQ(metadata.Find("x-one"), "1");
  EXPECT_EQ(metadata.Find("user-agent"), "test");
  EXPECT_EQ(metadata.Find("grpc-timeout"), std::nullopt);
}

TEST(MetadataTest, BytesOfARequestAreDecodedWithAndWithoutPadding) {
  HeaderList headers;
  headers.Add("x-bin", "AP8=");
  headers.Add("x-bin", "AP8,!?,YWI");

  EXPECT_THAT(Metadata::FromHeaders(headers).FindAll("x-bin"),
              ElementsAre(std::string("\0\xff", 2), std::string("\0\xff", 2), "ab"));
}

TEST(MetadataTest, TextIsSentAsItIsAndBytesInBase64) {
  Metadata metadata;

  ASSERT_TRUE(metadata.Add("x-text", "a, b ~").ok());
  ASSERT_TRUE(metadata.Add("x-bytes-bin", std::string("\0\xff", 2)).ok());

  EXPECT_EQ(metadata.entries()[0].value, "a, b ~");
  EXPECT_EQ(metadata.entries()[1].value, "AP8");
  EXPECT_EQ(metadata.Find("x-bytes-bin"), std::string("\0\xff", 2));
}

TEST(MetadataTest, KeysThatGrpcDoesNotAllowAreRefused) {
  for (const std::string_view key : {"", "X-Upper", ":path", "with blank", "umlaut-\xc3\xa4"}) {
    ExpectRefused(key, "1", "A metadata key has");
  }
}

TEST(MetadataTest, KeysOfOthersAreRefused) {
  for (const std::string_view key :
       {"grpc-status", "grpc-anything", "content-type", "te", "host"}) {
    ExpectRefused(key, "1", std::string(key));
  }
}

TEST(MetadataTest, ValuesThatAreNoTextAreRefused) {
  for (const std::string_view value : {"line\n", "\x7f", "\xc3\xa4", " blank", "blank "}) {
    ExpectRefused("x-text", value, "x-text");
  }
}

TEST(MetadataTest, LimitIsExact) {
  Metadata metadata;
  const std::size_t room = Metadata::kMaxBytes - 32 - 1;

  EXPECT_EQ(metadata.Add("x", std::string(room + 1, 'x')).code(),
            absl::StatusCode::kResourceExhausted);
  EXPECT_TRUE(metadata.Add("x", std::string(room, 'x')).ok());

  EXPECT_EQ(metadata.size_bytes(), Metadata::kMaxBytes);
  EXPECT_EQ(metadata.Add("y", "").code(), absl::StatusCode::kResourceExhausted);
}

HeaderList Request(const std::string& agent, const std::string& trace) {
  HeaderList headers;
  headers.Add(":path", "/rpc.Profile/Name");
  headers.Add("te", "trailers");
  headers.Add("user-agent", agent);
  if (!trace.empty()) headers.Add("x-trace", trace);
  return headers;
}

TEST(MetadataMemoTest, RequestsThatSayTheSameShareIt) {
  MetadataMemo memo;

  const auto first = memo.Of(Request("agent", "7"));

  EXPECT_EQ(first->Find("x-trace"), "7");
  EXPECT_EQ(memo.Of(Request("agent", "7")), first);
}

TEST(MetadataMemoTest, ARequestGetsWhatItSaysItself) {
  MetadataMemo memo;
  memo.Of(Request("agent", "7"));

  EXPECT_EQ(memo.Of(Request("agent", "8"))->Find("x-trace"), "8");
  EXPECT_EQ(memo.Of(Request("agent", ""))->entries().size(), 1u);
  EXPECT_EQ(memo.Of(Request("agent", "8"))->entries().size(), 2u);
  EXPECT_EQ(memo.Of(Request("other", "8"))->Find("user-agent"), "other");
  EXPECT_TRUE(memo.Of(HeaderList())->empty());
}

TEST(MetadataMemoTest, WhatIsLargeIsNotKept) {
  MetadataMemo memo;
  const std::string large(2000, 'x');

  const std::weak_ptr<const Metadata> metadata = memo.Of(Request("agent", large));

  EXPECT_TRUE(metadata.expired());
}

TEST(MetadataMemoTest, AListThatHasChangedIsReadAgain) {
  MetadataMemo memo;
  HeaderList headers = Request("agent", "7");
  const auto first = memo.Of(headers);
  EXPECT_EQ(memo.Of(headers), first);

  headers.Truncate(headers.size() - 1);
  headers.Add("x-trace", "8");

  EXPECT_EQ(memo.Of(headers)->Find("x-trace"), "8");
}

}  // namespace
}  // namespace varnic::net
