#include "core/server/metrics/http_request_reader.h"

#include <gtest/gtest.h>

#include <string>

namespace varnic {
namespace {

using State = HttpRequestReader::State;

constexpr char kRequest[] = "GET /metrics?from=x HTTP/1.1\r\nHost: localhost\r\n\r\n";

State StateAfter(const std::string& text) {
  HttpRequestReader reader;
  return reader.Read(text);
}

TEST(HttpRequestReaderTest, HeadIsReadHoweverItIsSplit) {
  const std::string request = kRequest;
  for (std::size_t split = 0; split < request.size(); ++split) {
    HttpRequestReader reader;

    EXPECT_EQ(reader.Read(request.substr(0, split)), State::kIncomplete);
    EXPECT_EQ(reader.Read(request.substr(split)), State::kComplete);

    EXPECT_EQ(reader.method(), "GET");
    EXPECT_EQ(reader.path(), "/metrics");
  }
}

TEST(HttpRequestReaderTest, WhatFollowsTheHeadIsNotRead) {
  HttpRequestReader reader;

  EXPECT_EQ(reader.Read(std::string(kRequest) + "\x01no request"), State::kComplete);

  EXPECT_EQ(reader.path(), "/metrics");
}

TEST(HttpRequestReaderTest, PathIsFoundInEveryFormOfTheTarget) {
  const std::pair<std::string, std::string> targets[] = {
      {"GET http://localhost:9464/metrics", "/metrics"},
      {"GET /metrics#part", "/metrics"},
      {"GET http://localhost", ""},
      {"OPTIONS *", "*"},
      {"CONNECT localhost:80", ""}};
  for (const auto& [target, path] : targets) {
    HttpRequestReader reader;

    EXPECT_EQ(reader.Read(target + " HTTP/1.0\r\n\r\n"), State::kComplete) << target;

    EXPECT_EQ(reader.path(), path) << target;
  }
}

TEST(HttpRequestReaderTest, OtherProtocolsAreMalformedRequests) {
  EXPECT_EQ(StateAfter("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"), State::kMalformed);
  EXPECT_EQ(StateAfter("GET / HTTP/2.0\r\n\r\n"), State::kMalformed);
  EXPECT_EQ(StateAfter("GET /metrics\r\n\r\n"), State::kMalformed);
  EXPECT_EQ(StateAfter("\x16\x03\x01\x02"), State::kMalformed);
  EXPECT_EQ(StateAfter("GET /metrics HTTP/1.1\r\nno colon\r\n\r\n"), State::kMalformed);
}

TEST(HttpRequestReaderTest, HeadMayBeAsLongAsTheLimitAndNoLonger) {
  const std::string start = "GET / HTTP/1.1\r\nX: ";
  const std::string end = "\r\n\r\n";
  const std::string filler(HttpRequestReader::kMaxBytes - start.size() - end.size(), 'x');

  EXPECT_EQ(StateAfter(start + filler + end), State::kComplete);
  EXPECT_EQ(StateAfter(start + filler + "x" + end), State::kTooLarge);
}

TEST(HttpRequestReaderTest, EmptyLinesWithoutEndAreTooLargeAsWell) {
  HttpRequestReader reader;
  State state = State::kIncomplete;

  for (std::size_t i = 0; i < HttpRequestReader::kMaxBytes; i += 2) state = reader.Read("\r\n");

  EXPECT_EQ(state, State::kTooLarge);
}

}  // namespace
}  // namespace varnic
