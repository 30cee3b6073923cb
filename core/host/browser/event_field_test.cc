#include "core/host/browser/event_field.h"

#include "gtest/gtest.h"

namespace varnic::host {
namespace {

TEST(EventFieldTest, FindsTextsAtTheirPaths) {
  const nlohmann::json event = {{"a", "x"}, {"b", {{"c", "y"}}}};

  EXPECT_EQ(EventText(event, {"a"}), "x");
  EXPECT_EQ(EventText(event, {"b", "c"}), "y");
}

TEST(EventFieldTest, WhatIsNotThereOrNoTextIsEmpty) {
  const nlohmann::json event = {{"a", 7}, {"b", {1, 2}}, {"c", nullptr}};

  EXPECT_EQ(EventText(event, {"a"}), "");
  EXPECT_EQ(EventText(event, {"a", "b"}), "");
  EXPECT_EQ(EventText(event, {"b", "c"}), "");
  EXPECT_EQ(EventText(event, {"c"}), "");
  EXPECT_EQ(EventText(event, {"d"}), "");
  EXPECT_EQ(EventText(nlohmann::json("text"), {"a"}), "");
}

}  // namespace
}  // namespace varnic::host
