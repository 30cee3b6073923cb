#include "core/net/header_list.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>

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

TEST(HeaderListTest, ATruncatedListHoldsItsFirstFields) {
  HeaderList headers;
  headers.Add("first", "1");
  headers.Add("second", "2");

  headers.Truncate(1);
  headers.Add("third", "3");

  ASSERT_EQ(headers.size(), 2u);
  EXPECT_EQ(headers.Find("first"), "1");
  EXPECT_EQ(headers.Find("second").data(), nullptr);
  EXPECT_EQ(headers.Find("third"), "3");
}

TEST(HeaderListTest, TheRevisionIsAnotherAfterEachChange) {
  HeaderList headers;
  HeaderList other;
  headers.Add("key", "value");
  other.Add("key", "value");
  const std::uint64_t one_field = headers.revision();

  EXPECT_NE(other.revision(), one_field);
  headers.Truncate(1);
  EXPECT_EQ(headers.revision(), one_field);
  headers.Add("more", "x");
  EXPECT_NE(headers.revision(), one_field);
  headers.Truncate(1);
  EXPECT_NE(headers.revision(), one_field);
}

// A loop may go on in another thread, with its connections.
TEST(HeaderListTest, AnotherThreadGivesOtherRevisions) {
  HeaderList headers;
  std::uint64_t elsewhere = 0;
  std::thread thread([&] {
    HeaderList other;
    other.Add("key", "value");
    elsewhere = other.revision();
  });
  thread.join();
  std::thread another([&] { headers.Add("key", "other"); });
  another.join();

  EXPECT_NE(headers.revision(), elsewhere);
}

}  // namespace
}  // namespace varnic::net
