#include "core/net/grpc_request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace varnic::net {
namespace {

using ::testing::HasSubstr;

// Keeps the block that a parsed request points into.
class GrpcRequestTest : public ::testing::Test {
 protected:
  // Parses a good request with `changes`: a field without a value is left out.
  GrpcRequest Parse(const std::vector<std::pair<std::string, const char*>>& changes) {
    std::vector<std::pair<std::string, const char*>> fields = {
        {":method", "POST"},
        {":path", "/rpc.Profile/Path"},
        {"te", "trailers"},
        {"content-type", "application/grpc"},
    };
    for (const auto& [name, value] : changes) {
      for (auto& field : fields) {
        if (field.first == name) field.second = nullptr;
      }
      fields.emplace_back(name, value);
    }
    headers_.Clear();
    for (const auto& [name, value] : fields) {
      if (value != nullptr) headers_.Add(name, value);
    }
    return ParseGrpcRequest(headers_);
  }

  std::string RejectionOf(const std::vector<std::pair<std::string, const char*>>& changes) {
    const GrpcRequest request = Parse(changes);
    const auto* rejection = std::get_if<HttpRejection>(&request);
    return rejection == nullptr ? "none" : std::string(rejection->http_status);
  }

 private:
  HeaderList headers_;
};

TEST_F(GrpcRequestTest, ARequestWithoutOptionsHasNoTimeoutAndNoCompression) {
  const GrpcRequest request = Parse({});

  const auto* head = std::get_if<GrpcRequestHead>(&request);
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(head->path, "/rpc.Profile/Path");
  EXPECT_EQ(head->timeout, absl::InfiniteDuration());
  EXPECT_EQ(head->encoding, "identity");
}

TEST_F(GrpcRequestTest, TimeoutAndEncodingAreRead) {
  const GrpcRequest request = Parse({{"grpc-timeout", "250m"}, {"grpc-encoding", "gzip"}});

  const auto* head = std::get_if<GrpcRequestHead>(&request);
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(head->timeout, absl::Milliseconds(250));
  EXPECT_EQ(head->encoding, "gzip");
}

TEST_F(GrpcRequestTest, AnyOtherMethodThanPostIs405) {
  EXPECT_EQ(RejectionOf({{":method", "GET"}}), "405");
  EXPECT_EQ(RejectionOf({{":method", "post"}}), "405");
  EXPECT_EQ(RejectionOf({{":method", nullptr}}), "405");
}

TEST_F(GrpcRequestTest, AnyOtherContentTypeThanGrpcIs415) {
  for (const char* type : {"application/json", "application/grpc-web", "application/grp", ""}) {
    EXPECT_EQ(RejectionOf({{"content-type", type}}), "415") << type;
  }
  EXPECT_EQ(RejectionOf({{"content-type", nullptr}}), "415");
  for (const char* type : {"application/grpc+proto", "application/grpc;charset=utf-8"}) {
    EXPECT_EQ(RejectionOf({{"content-type", type}}), "none") << type;
  }
}

TEST_F(GrpcRequestTest, AMalformedTimeoutIsAnInternalErrorThatNamesIt) {
  for (const char* timeout : {"", "1", "S", "123456789S", "-1S", "1x", "1 S", "999999999999S"}) {
    const GrpcRequest request = Parse({{"grpc-timeout", timeout}});

    const auto* status = std::get_if<absl::Status>(&request);
    ASSERT_NE(status, nullptr) << timeout;
    EXPECT_EQ(status->code(), absl::StatusCode::kInternal);
    EXPECT_THAT(std::string(status->message()), HasSubstr(timeout));
  }
}

TEST_F(GrpcRequestTest, WhatIsNoCallIsRejectedBeforeItsTimeoutIsRead) {
  EXPECT_EQ(RejectionOf({{":method", "GET"}, {"grpc-timeout", "soon"}}), "405");
  EXPECT_EQ(RejectionOf({{"content-type", "text/html"}, {"grpc-timeout", "soon"}}), "415");
}

TEST(GrpcRequestMemoTest, EachBlockGivesWhatItSays) {
  GrpcRequestMemo memo;
  HeaderList headers;
  headers.Add(":method", "POST");
  headers.Add("content-type", "application/grpc");
  headers.Add(":path", "/a");
  EXPECT_EQ(std::get<GrpcRequestHead>(memo.Of(headers)).path, "/a");
  EXPECT_EQ(std::get<GrpcRequestHead>(memo.Of(headers)).path, "/a");

  headers.Truncate(2);
  headers.Add(":path", "/b");

  EXPECT_EQ(std::get<GrpcRequestHead>(memo.Of(headers)).path, "/b");
}

}  // namespace
}  // namespace varnic::net
