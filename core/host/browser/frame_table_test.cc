#include "core/host/browser/frame_table.h"

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A page with a frame in it, and one in that.
class FrameTableTest : public ::testing::Test {
 protected:
  FrameTableTest() {
    table_.OnPageAttached("S", "main", "context");
    table_.OnFrameNavigated("main", "https://a.example");
    table_.OnFrameAttached("S", "child", "main");
    table_.OnFrameAttached("S", "grandchild", "child");
  }

  FrameTable table_;
};

TEST_F(FrameTableTest, FramesAreOfTheirPagesContext) {
  EXPECT_EQ(table_.ContextOf("main"), "context");
  EXPECT_EQ(table_.ContextOf("grandchild"), "context");
  EXPECT_EQ(table_.ContextOf("other"), std::nullopt);
  EXPECT_EQ(table_.SessionOf("grandchild"), "S");
  EXPECT_EQ(table_.SessionOf("other"), std::nullopt);
}

TEST_F(FrameTableTest, DocumentAsksForWhatItShows) {
  table_.OnFrameNavigated("child", "https://b.example");

  EXPECT_EQ(table_.AskerOf("main", false), "https://a.example");
  EXPECT_EQ(table_.AskerOf("child", false), "https://b.example");
  EXPECT_EQ(table_.AskerOf("other", false), "null");
}

TEST_F(FrameTableTest, FirstDocumentOfAFrameIsItsParents) {
  EXPECT_EQ(table_.AskerOf("child", false), "https://a.example");
}

TEST_F(FrameTableTest, DocumentAroundAFrameAsksForItsDocument) {
  table_.OnFrameNavigated("child", "https://b.example");

  EXPECT_EQ(table_.AskerOf("child", true), "https://a.example");
  EXPECT_EQ(table_.AskerOf("grandchild", true), "https://b.example");
}

TEST_F(FrameTableTest, NobodyAsksForWhatAClientOpens) {
  table_.OnNavigationStarted("main");

  EXPECT_EQ(table_.AskerOf("main", true), "null");
}

TEST_F(FrameTableTest, PageThatLeadsElsewhereAsksForThat) {
  table_.OnNavigationRequested("main");
  table_.OnNavigationStarted("main");
  EXPECT_EQ(table_.AskerOf("main", true), "https://a.example");

  table_.OnNavigationStarted("main");
  EXPECT_EQ(table_.AskerOf("main", true), "null");
}

TEST_F(FrameTableTest, RemovedFrameTakesThoseInsideWithIt) {
  EXPECT_THAT(table_.OnFrameRemoved("child"), ElementsAre("grandchild", "child"));
  EXPECT_THAT(table_.OnFrameRemoved("child"), IsEmpty());

  EXPECT_EQ(table_.size(), 1u);
}

TEST_F(FrameTableTest, ClosedPageTakesItsFramesWithIt) {
  EXPECT_THAT(table_.OnPageDetached("S"), ElementsAre("grandchild", "child", "main"));
  EXPECT_THAT(table_.OnPageDetached("S"), IsEmpty());

  EXPECT_EQ(table_.size(), 0u);
}

TEST_F(FrameTableTest, FrameMayMoveToASessionOfItsOwnAndBack) {
  table_.OnPageAttached("T", "child", "context");
  table_.OnFrameAttached("T", "inner", "child");
  EXPECT_EQ(table_.AskerOf("child", true), "https://a.example");

  EXPECT_THAT(table_.OnPageDetached("T"), ElementsAre("grandchild", "inner"));

  EXPECT_EQ(table_.ContextOf("child"), "context");
  EXPECT_THAT(table_.OnPageDetached("S"), ElementsAre("child", "main"));
}

TEST_F(FrameTableTest, EndOfAFormerSessionTakesNothing) {
  table_.OnPageAttached("T", "main", "context");

  EXPECT_THAT(table_.OnPageDetached("S"), IsEmpty());

  EXPECT_EQ(table_.ContextOf("main"), "context");
}

TEST_F(FrameTableTest, FrameOfAnUnknownParentIsUnknown) {
  table_.OnFrameAttached("S", "x", "other");
  table_.OnFrameAttached("S", "main", "main");
  table_.OnFrameAttached("S", "main", "grandchild");

  EXPECT_EQ(table_.ContextOf("x"), std::nullopt);
  EXPECT_EQ(table_.size(), 3u);
}

TEST(FrameTableLimitTest, FramesOverTheLimitAreUnknown) {
  FrameTable table(2);
  table.OnPageAttached("S", "main", "");
  table.OnFrameAttached("S", "one", "main");

  table.OnFrameAttached("S", "two", "main");
  table.OnPageAttached("T", "page", "");

  EXPECT_EQ(table.size(), 2u);
  EXPECT_EQ(table.ContextOf("two"), std::nullopt);
}

}  // namespace
}  // namespace varnic::host
