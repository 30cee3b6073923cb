#include "core/net/header_list.h"

#include <gtest/gtest.h>

#include <string>

namespace varnic::net {
namespace {

TEST(HeaderListTest, FieldsKeepTheirOrder) {
  HeaderList headers;
  headers.Add(":path", "/a");
  headers.Add("te", "trailers");

  ASSERT_EQ(headers.size(), 2u);
  EXPECT_EQ(headers[0].name, ":path");
  EXPECT_EQ(headers[0].value, "/a");
  EXPECT_EQ(headers[1].name, "te");
  EXPECT_EQ(headers[1].value, "trailers");
}

TEST(HeaderListTest, TheFirstFieldOfANameIsFound) {
  HeaderList headers;
  headers.Add("key", "first");
  headers.Add("key", "second");

  EXPECT_EQ(headers.Find("key"), "first");
}

TEST(HeaderListTest, AnEmptyValueIsNotAMissingField) {
  HeaderList headers;
  headers.Add("empty", "");

  EXPECT_NE(headers.Find("empty").data(), nullptr);
  EXPECT_EQ(headers.Find("empty"), "");
  EXPECT_EQ(headers.Find("missing").data(), nullptr);
  EXPECT_EQ(headers.Find("empt").data(), nullptr);
}

TEST(HeaderListTest, ValuesMayContainAnyByte) {
  HeaderList headers;
  headers.Add("binary", std::string("\0\xff:", 3));
  headers.Add("after", "it");

  EXPECT_EQ(headers.Find("binary"), std::string("\0\xff:", 3));
  EXPECT_EQ(headers.Find("after"), "it");
}

TEST(HeaderListTest, AClearedListHoldsOnlyTheNextBlock) {
  HeaderList headers;
  headers.Add("old", "a long value that takes room");

  headers.Clear();
  headers.Add("new", "x");

  ASSERT_EQ(headers.size(), 1u);
  EXPECT_EQ(headers.Find("new"), "x");
  EXPECT_EQ(headers.Find("old").data(), nullptr);
}

}  // namespace
}  // namespace varnic::net
