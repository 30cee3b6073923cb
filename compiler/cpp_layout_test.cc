#include "compiler/cpp_layout.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace varnic::compiler {
namespace {

TEST(LayOutCallTest, StandsOnOneLineIfThatIsWideEnough) {
  EXPECT_EQ(LayOutCall(2, "Call", {"a", "b"}, ";"), "  Call(a, b);\n");
  EXPECT_EQ(LayOutCall(0, "Call", {}, ";"), "Call();\n");
}

TEST(LayOutCallTest, FillsAHundredColumns) {
  const std::string argument(100 - 4, 'a');

  EXPECT_EQ(LayOutCall(0, "f", {argument}, ";"), "f(" + argument + ");\n");
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

TEST(LayOutCallTest, LineOfItsOwnIsThereToSaveOthers) {
  const std::string head(70, 'h');
  const std::string wide(20, 'a');

  EXPECT_EQ(LayOutCall(0, head, {wide, wide}, ";"),
            head + "(" + wide + ",\n" + std::string(71, ' ') + wide + ");\n");
  EXPECT_EQ(LayOutCall(0, head, {wide, wide, wide}, ";"),
            head + "(\n    " + wide + ", " + wide + ", " + wide + ");\n");
}

TEST(LayOutCallTest, CastThatIsTooLongBreaksBeforeItsValue) {
  const std::string cast = "static_cast<" + std::string(83, 't') + ">";

  EXPECT_EQ(LayOutCall(0, "F", {cast + "(a)", "b"}, ";"), "F(" + cast + "(\n      a),\n  b);\n");
}

TEST(LayOutReturnTest, BreaksBeforeTheMemberIfThatIsTooFarOut) {
  const std::string type(80, 't');

  EXPECT_EQ(LayOutReturn(2, type, "short"), "  return " + type + "::short;\n");
  EXPECT_EQ(LayOutReturn(2, type, "longer()"), "  return " + type + "::longer();\n");
  EXPECT_EQ(LayOutReturn(2, type, "longer11()"), "  return " + type + "::\n      longer11();\n");
}

TEST(LayOutTemplateCallTest, BreaksInsideTheTemplateIfThatIsTooLong) {
  const std::string fits(84, 't');
  const std::string long_type(85, 't');
  const std::string longer_type(90, 't');

  EXPECT_EQ(LayOutTemplateCall(2, "return f", "X<" + fits + ">", {"a"}, ";"),
            "  return f<X<" + fits + ">>(\n      a);\n");
  EXPECT_EQ(LayOutTemplateCall(2, "return f", "X<" + long_type + ">", {"a"}, ";"),
            "  return f<\n      X<" + long_type + ">>(a);\n");
  EXPECT_EQ(LayOutTemplateCall(2, "return f", "X<" + longer_type + ">", {"a"}, ";"),
            "  return f<X<\n      " + longer_type + ">>(\n      a);\n");
}

std::vector<Parameter> Wide(int count) {
  return std::vector<Parameter>(count, Parameter{"Aaaaaaaaaaaaaaaaa", "a"});
}

// Broken at every comma, behind the parenthesis at column `margin`.
std::string OneEach(int count, int margin) {
  std::string text = "Aaaaaaaaaaaaaaaaa a";
  while (--count > 0) text += ",\n" + std::string(margin, ' ') + "Aaaaaaaaaaaaaaaaa a";
  return text;
}

TEST(LayOutFunctionTest, StandsOnOneLineIfThatIsWideEnough) {
  EXPECT_EQ(LayOutFunction(2, "void", "F", {{"int", "a"}, {"X<int>", "b"}}, " const;"),
            "  void F(int a, X<int> b) const;\n");
}

TEST(LayOutFunctionTest, StaysBehindTheParenthesisForLongerThanACall) {
  const std::string name(70, 'n');

  EXPECT_EQ(LayOutFunction(0, "int", name, Wide(4), ";"),
            "int " + name + "(" + OneEach(4, 75) + ");\n");
  EXPECT_EQ(LayOutFunction(0, "int", name, Wide(6), ";"),
            "int " + name +
                "(\n    Aaaaaaaaaaaaaaaaa a, Aaaaaaaaaaaaaaaaa a, Aaaaaaaaaaaaaaaaa a, "
                "Aaaaaaaaaaaaaaaaa a,\n    Aaaaaaaaaaaaaaaaa a, Aaaaaaaaaaaaaaaaa a);\n");
}

TEST(LayOutFunctionTest, ResultThatLeavesNoRoomStandsAlone) {
  const std::string result(70, 'r');
  const std::string name(40, 'n');

  EXPECT_EQ(LayOutFunction(2, result, name, {{"int", "a"}}, ";"),
            "  " + result + "\n  " + name + "(int a);\n");
}

TEST(LayOutFunctionTest, ResultThatIsTooLongBreaksInsideItsTemplate) {
  const std::string type(90, 't');

  EXPECT_EQ(LayOutFunction(0, "Pointer<" + type + ">", "F", {}, ";"),
            "Pointer<" + type + ">\nF();\n");
  EXPECT_EQ(LayOutFunction(2, "Pointer<" + type + ">", "F", {}, ";"),
            "  Pointer<\n      " + type + ">\n  F();\n");
}

TEST(LayOutFunctionTest, ParameterThatIsTooLongBreaksBeforeItsName) {
  const std::string type(92, 't');

  EXPECT_EQ(LayOutFunction(0, "int", "Function", {{type, "a_name"}, {"int", "b"}}, ";"),
            "int Function(\n    " + type + "\n        a_name,\n    int b);\n");
}

TEST(IncludeGuardTest, IsThePathInCapitals) {
  EXPECT_EQ(IncludeGuard("rpc/profile/profile.rpc.h"), "RPC_PROFILE_PROFILE_RPC_H_");
}

TEST(IncludeGuardTest, BeginsWithALetter) {
  EXPECT_EQ(IncludeGuard("1/x.rpc.h"), "VARNIC_INCLUDED_1_2fx_2erpc_2eh_");
}

TEST(IncludeGuardTest, NoTwoPathsHaveTheSame) {
  const std::vector<std::string> paths = {
      "shop/news.rpc.h",     "shop_news.rpc.h", "shop.news.rpc.h",
      "shop-news.rpc.h",     "Shop/news.rpc.h", "shop/news.client.h",
      "shop/news/rpc.rpc.h", "\xc3\xa4.rpc.h",  "\xc3\xb6.rpc.h"};
  std::set<std::string> guards;

  for (const std::string& path : paths) guards.insert(IncludeGuard(path));

  EXPECT_EQ(guards.size(), paths.size());
}

TEST(MangledPathTest, WritesWhatIsNoLetterOrDigitAsItsCode) {
  EXPECT_EQ(MangledPath("rpc/event_subscription.proto"), "rpc_2fevent_5fsubscription_2eproto");
  EXPECT_EQ(MangledPath("a-1.proto"), "a_2d1_2eproto");
}

}  // namespace
}  // namespace varnic::compiler
