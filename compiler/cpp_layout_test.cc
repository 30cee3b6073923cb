#include "compiler/cpp_layout.h"

#include <gtest/gtest.h>

#include <string>

namespace varnic::compiler {
namespace {

TEST(LayOutCallTest, StandsOnOneLineIfThatIsWideEnough) {
  EXPECT_EQ(LayOutCall(2, "void F", {"int a", "int b"}, " const;"),
            "  void F(int a, int b) const;\n");
  EXPECT_EQ(LayOutCall(0, "void F", {}, " {"), "void F() {\n");
}

TEST(LayOutCallTest, FillsAHundredColumns) {
  const std::string argument(100 - 3, 'a');

  EXPECT_EQ(LayOutCall(0, "f", {argument.substr(1)}, ";"), "f(" + argument.substr(1) + ");\n");
}

TEST(LayOutCallTest, ContinuesBehindTheParenthesis) {
  const std::string wide(60, 'a');

  EXPECT_EQ(LayOutCall(1, "f", {wide, wide, "b"}, ";"), " f(" + wide + ",\n   " + wide + ", b);\n");
}

TEST(LayOutCallTest, WhatIsTooWideBehindTheParenthesisStartsOnALineOfItsOwn) {
  const std::string head(60, 'h');
  const std::string wide(60, 'a');

  EXPECT_EQ(LayOutCall(2, head, {wide, "b"}, ";"), "  " + head + "(\n      " + wide + ", b);\n");
}

TEST(IncludeGuardTest, IsThePathInCapitals) {
  EXPECT_EQ(IncludeGuard("rpc/my-profile/x.rpc.h"), "RPC_MY_PROFILE_X_RPC_H_");
}

TEST(MangledPathTest, WritesWhatIsNoLetterOrDigitAsItsCode) {
  EXPECT_EQ(MangledPath("rpc/event_subscription.proto"), "rpc_2fevent_5fsubscription_2eproto");
  EXPECT_EQ(MangledPath("a-1.proto"), "a_2d1_2eproto");
}

}  // namespace
}  // namespace varnic::compiler
