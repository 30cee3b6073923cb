#include "compiler/service_model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "absl/strings/str_cat.h"
#include "compiler/testing/proto_texts.h"

namespace varnic::compiler {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using testing::ProtoTexts;

// What is wrong with a file whose text is `text`, from line 2 on.
std::string Fault(const std::string& text) {
  ProtoTexts protos;
  const auto model = BuildServiceModel(protos.X(text));
  EXPECT_EQ(model.status().code(), absl::StatusCode::kInvalidArgument);
  return std::string(model.status().message());
}

constexpr char kQuestion[] =
    "message Id {} message Answer {}\n"
    "message Question { Id profile_id = 1; oneof kind { bool subscribe = 2; Answer response = 4; } "
    "}\n";

TEST(ServiceModelTest, FileWithoutAServiceHasNone) {
  ProtoTexts protos;

  const auto model = BuildServiceModel(protos.X("message A {}"));

  ASSERT_TRUE(model.ok());
  EXPECT_FALSE(model->has_value());
}

TEST(ServiceModelTest, ServiceIsNamedAfterItsProtoFile) {
  ProtoTexts protos;

  const auto model = BuildServiceModel(protos.X("package a.b; message M {} service Downloads {}"));

  ASSERT_TRUE(model.ok() && model->has_value());
  EXPECT_EQ((*model)->proto_file, "x.proto");
  EXPECT_EQ((*model)->class_name, "DownloadsRpc");
  EXPECT_EQ((*model)->service_name, "a.b.Downloads");
  EXPECT_THAT((*model)->namespaces, ElementsAre("a", "b"));
}

TEST(ServiceModelTest, ServiceOfNoPackageIsInNoNamespace) {
  ProtoTexts protos;

  const auto model = BuildServiceModel(protos.X("service Downloads {}"));

  ASSERT_TRUE(model.ok() && model->has_value());
  EXPECT_THAT((*model)->namespaces, IsEmpty());
}

TEST(ServiceModelTest, MethodsKeepTheirOrderAndTellTheirKind) {
  ProtoTexts protos;

  const auto model = BuildServiceModel(
      protos.X(absl::StrCat(kQuestion,
                            "service S {\n"
                            "  rpc Watch(stream rpc.EventSubscription) returns (stream Id);\n"
                            "  rpc Ask(stream Question) returns (stream Question);\n"
                            "  rpc Get(Id) returns (Answer);\n"
                            "}")));

  ASSERT_TRUE(model.ok() && model->has_value()) << model.status();
  const auto& methods = (*model)->methods;
  ASSERT_EQ(methods.size(), 3U);
  EXPECT_EQ(methods[0].name, "Watch");
  EXPECT_EQ(methods[0].kind, MethodModel::Kind::kEventStream);
  EXPECT_EQ(methods[1].kind, MethodModel::Kind::kCallbackStream);
  EXPECT_EQ(methods[2].kind, MethodModel::Kind::kUnary);
  EXPECT_EQ(methods[2].request_class, "::Id");
  EXPECT_EQ(methods[2].response_class, "::Answer");
}

TEST(ServiceModelTest, NestedMessageHasTheClassThatProtobufGivesIt) {
  ProtoTexts protos;

  const auto model = BuildServiceModel(
      protos.X("package p; message A { message B {} } service S { rpc F(A.B) returns (A.B); }"));

  ASSERT_TRUE(model.ok() && model->has_value());
  EXPECT_EQ((*model)->methods[0].request_class, "::p::A_B");
}

TEST(ServiceModelTest, SecondServiceIsAnError) {
  EXPECT_EQ(Fault("service A {}\nservice B {}"),
            "x.proto:3: B is the file's second service after A; give it a file of its own");
}

TEST(ServiceModelTest, StreamOfTheClientAloneIsAnError) {
  EXPECT_EQ(Fault("message M {}\nservice S {\n  rpc F(stream M) returns (M);\n}"),
            "x.proto:4: S.F streams on the client's side only; write `stream` on both sides, or on "
            "none");
}

TEST(ServiceModelTest, StreamOfTheServerAloneIsAnError) {
  EXPECT_EQ(Fault("message M {}\nservice S {\n  rpc F(M) returns (stream M);\n}"),
            "x.proto:4: S.F streams on the server's side only; write `stream` on both sides, or on "
            "none");
}

TEST(ServiceModelTest, StreamOfTwoTypesIsAnError) {
  EXPECT_EQ(Fault("message M {} message N {}\n"
                  "service S {\n  rpc F(stream M) returns (stream N);\n}"),
            "x.proto:4: S.F is no stream that there is; an event stream takes "
            "rpc.EventSubscription, a callback stream takes and returns the same type");
}

// The error for a callback stream whose type has these fields.
std::string CallbackFault(const std::string& fields) {
  return Fault(absl::StrCat("message Id {} message M { ", fields, " }\n",
                            "service S {\n  rpc F(stream M) returns (stream M);\n}"));
}

TEST(ServiceModelTest, CallbackTypeWithoutAKeyIsAnError) {
  constexpr char kFault[] =
      "x.proto:4: S.F is a callback stream, so its type M needs a message field `profile_id`, the "
      "key that the client answers for";

  EXPECT_EQ(CallbackFault("oneof kind { bool subscribe = 2; Id response = 4; }"), kFault);
  EXPECT_EQ(CallbackFault("string profile_id = 1;"), kFault);
  EXPECT_EQ(CallbackFault("repeated Id profile_id = 1;"), kFault);
}

TEST(ServiceModelTest, CallbackTypeWithoutSubscribeIsAnError) {
  constexpr char kFault[] =
      "x.proto:4: S.F is a callback stream, so its type M needs `bool subscribe = 2` in a oneof "
      "`kind`";

  EXPECT_EQ(CallbackFault("Id profile_id = 1;"), kFault);
  EXPECT_EQ(CallbackFault("Id profile_id = 1; bool subscribe = 2; oneof kind { Id response = 4; }"),
            kFault);
  EXPECT_EQ(CallbackFault("Id profile_id = 1; oneof kind { bool subscribe = 3; Id response = 4; }"),
            kFault);
  EXPECT_EQ(
      CallbackFault("Id profile_id = 1; oneof kind { int32 subscribe = 2; Id response = 4; }"),
      kFault);
  EXPECT_EQ(CallbackFault("Id profile_id = 1; oneof what { bool subscribe = 2; Id response = 4; }"),
            kFault);
}

TEST(ServiceModelTest, CallbackTypeWithoutResponseIsAnError) {
  constexpr char kFault[] =
      "x.proto:4: S.F is a callback stream, so its type M needs a field `response = 4` in the "
      "oneof `kind`";

  EXPECT_EQ(CallbackFault("Id profile_id = 1; oneof kind { bool subscribe = 2; }"), kFault);
  EXPECT_EQ(CallbackFault("Id profile_id = 1; oneof kind { bool subscribe = 2; Id response = 3; }"),
            kFault);
  EXPECT_EQ(CallbackFault("Id profile_id = 1; Id response = 4; oneof kind { bool subscribe = 2; }"),
            kFault);
}

TEST(ServiceModelTest, NameThatCppTakesOtherwiseIsAnError) {
  for (const std::string name : {"delete", "GetDescriptor", "descriptor", "OpenStream", "SRpc"}) {
    EXPECT_EQ(Fault(absl::StrCat("message M {}\nservice S {\n  rpc ", name, "(M) returns (M);\n}")),
              absl::StrCat("x.proto:4: S.", name,
                           " cannot be a method of the C++ class SRpc, where its name means "
                           "something else; rename it"));
  }
}

TEST(ServiceModelTest, MessageWithTheNameOfTheClassIsAnError) {
  EXPECT_EQ(Fault("package p; message SRpc {}\nservice S {}"),
            "x.proto:3: p.S has the class SRpc, as the message p.SRpc has; rename one of them");
}

TEST(ServiceModelTest, EveryErrorOfAFileIsToldAtOnce) {
  EXPECT_EQ(Fault("message M {}\nservice S {\n  rpc F(stream M) returns (M);\n"
                  "  rpc int(M) returns (M);\n}"),
            "x.proto:4: S.F streams on the client's side only; write `stream` on both sides, or on "
            "none\n"
            "x.proto:5: S.int cannot be a method of the C++ class SRpc, where its name means "
            "something else; rename it");
}

}  // namespace
}  // namespace varnic::compiler
