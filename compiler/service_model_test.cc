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

using testing::kQuestion;
using testing::ProtoTexts;

// What is wrong with a file whose text is `text`, from line 2 on.
std::string Fault(const std::string& text, const Parts& parts = {}) {
  ProtoTexts protos;
  const auto model = BuildServiceModel(protos.X(text), parts);
  EXPECT_EQ(model.status().code(), absl::StatusCode::kInvalidArgument);
  return std::string(model.status().message());
}

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
  EXPECT_EQ((*model)->stem, "x");
  EXPECT_EQ((*model)->skeleton_class, "DownloadsRpc");
  EXPECT_EQ((*model)->client_class, "DownloadsClient");
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

  const auto model = BuildServiceModel(protos.X(
      absl::StrCat(kQuestion,
                   "service S {\n"
                   "  rpc Watch(stream rpc.EventSubscription) returns (stream ProfileId);\n"
                   "  rpc Ask(stream Question) returns (stream Question);\n"
                   "  rpc Get(ProfileId) returns (Question);\n"
                   "}")));

  ASSERT_TRUE(model.ok() && model->has_value()) << model.status();
  const auto& methods = (*model)->methods;
  ASSERT_EQ(methods.size(), 3U);
  EXPECT_EQ(methods[0].name, "Watch");
  EXPECT_EQ(methods[0].kind, MethodModel::Kind::kEventStream);
  EXPECT_EQ(methods[1].kind, MethodModel::Kind::kCallbackStream);
  EXPECT_EQ(methods[2].kind, MethodModel::Kind::kUnary);
  EXPECT_EQ(methods[2].request_class, "::ProfileId");
  EXPECT_EQ(methods[2].response_class, "::Question");
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
std::string CallbackFault(const std::string& fields, const Parts& parts = {}) {
  return Fault(absl::StrCat("message Id {} message M { ", fields, " }\n",
                            "service S {\n  rpc F(stream M) returns (stream M);\n}"),
               parts);
}

TEST(ServiceModelTest, TypeThatMakesNoCallbackStreamIsAnError) {
  EXPECT_EQ(
      CallbackFault("Id profile_id = 1;"),
      "x.proto:4: S.F is a callback stream, so its type M needs a field `ProfileId "
      "profile_id` of the type in rpc/identifiers.proto, the key that the client answers for");
  EXPECT_EQ(CallbackFault("ProfileId profile_id = 1;", Parts{/*skeleton=*/true, /*client=*/false}),
            "x.proto:4: S.F is a callback stream, so its type M needs `bool subscribe = 2` in a "
            "oneof `kind`");
  EXPECT_EQ(CallbackFault("ProfileId profile_id = 1; oneof kind { bool subscribe = 2; }"),
            "x.proto:4: S.F is a callback stream, so its type M needs a message field "
            "`response = 4` in the oneof `kind`");
}

TEST(ServiceModelTest, KeyOfAnotherPackageIsAnErrorThatSaysWhoseTypeIsMeant) {
  EXPECT_EQ(
      Fault("package p; message ProfileId {} message M { ProfileId profile_id = 1; }\n"
            "service S {\n  rpc F(stream M) returns (stream M);\n}"),
      "x.proto:4: p.S.F is a callback stream, so its type p.M needs a field `ProfileId "
      "profile_id` of the type in rpc/identifiers.proto, the key that the client answers for");
}

TEST(ServiceModelTest, EntryOfAMapIsNoMessageOfAMethod) {
  constexpr char kEntry[] = ", an entry of a map field; declare a message of its own for it";
  const std::string map = "message M { map<string, string> words = 1; }\nservice S {\n";

  EXPECT_EQ(Fault(map + "  rpc F(M) returns (M.WordsEntry);\n}"),
            absl::StrCat("x.proto:4: S.F takes or returns M.WordsEntry", kEntry));
  EXPECT_EQ(Fault(map + "  rpc F(M.WordsEntry) returns (M.WordsEntry);\n}"),
            absl::StrCat("x.proto:4: S.F takes or returns M.WordsEntry", kEntry));
}

TEST(ServiceModelTest, CallbackTypeOfAClientNeedsItsOwnQuestionAndAnswer) {
  const std::string key = "ProfileId profile_id = 1; string error = 6; ";
  constexpr char kFault[] =
      "x.proto:4: S.F is a callback stream, so its type M needs a field `Request request` in the "
      "oneof `kind`, of a message declared inside";

  EXPECT_EQ(CallbackFault(key + "message Response {} oneof kind { bool subscribe = 2; "
                                "Response response = 4; }"),
            kFault);
  EXPECT_EQ(CallbackFault(key + "message Response {} message Request {} Request request = 3; "
                                "oneof kind { bool subscribe = 2; Response response = 4; }"),
            kFault);
  EXPECT_EQ(CallbackFault(key + "message Request {} oneof kind { bool subscribe = 2; "
                                "Request request = 3; Id response = 4; }"),
            "x.proto:4: S.F is a callback stream, so its type M needs a field `Response response` "
            "in the oneof `kind`, of a message declared inside");
}

TEST(ServiceModelTest, CallbackTypeOfAClientNeedsAnError) {
  const std::string fields =
      "ProfileId profile_id = 1; message Request {} message Response {} oneof kind { "
      "bool subscribe = 2; Request request = 3; Response response = 4; }";
  constexpr char kFault[] =
      "x.proto:4: S.F is a callback stream, so its type M needs a field `string error`, for a "
      "question that the client could not answer";

  EXPECT_EQ(CallbackFault(fields), kFault);
  EXPECT_EQ(CallbackFault(fields + "repeated string error = 6;"), kFault);
  EXPECT_EQ(CallbackFault(fields + "int32 error = 6;"), kFault);
}

TEST(ServiceModelTest, CallbackTypeNeedsACallIdThatIsOne) {
  const std::string fields =
      "ProfileId profile_id = 1; message Request {} message Response {} oneof kind { "
      "bool subscribe = 2; Request request = 3; Response response = 4; } string error = 6; ";
  constexpr char kFault[] =
      "x.proto:4: S.F is a callback stream, so its type M needs a field `int64 call_id` outside of "
      "oneofs, by which an answer finds its question";

  EXPECT_EQ(CallbackFault(fields), kFault);
  for (const Parts parts : {Parts{/*skeleton=*/true, /*client=*/false}, Parts{}}) {
    EXPECT_EQ(CallbackFault(fields + "string call_id = 5;", parts), kFault);
    EXPECT_EQ(CallbackFault(fields + "int32 call_id = 5;", parts), kFault);
    EXPECT_EQ(CallbackFault(fields + "repeated int64 call_id = 5;", parts), kFault);
    EXPECT_EQ(CallbackFault(fields + "oneof id { int64 call_id = 5; }", parts), kFault);
  }
}

TEST(ServiceModelTest, CallbackTypeOfASkeletonAloneNeedsOnlyWhatMakesItOne) {
  ProtoTexts protos;
  const auto& file = protos.X(
      "message M { ProfileId profile_id = 1; oneof kind { bool subscribe = 2; "
      "ProfileId response = 4; } } service S { rpc F(stream M) returns (stream M); }");

  EXPECT_TRUE(BuildServiceModel(file, Parts{/*skeleton=*/true, /*client=*/false}).ok());
  EXPECT_FALSE(BuildServiceModel(file, Parts{/*skeleton=*/false, /*client=*/true}).ok());
}

TEST(ServiceModelTest, FileWithoutDescriptorsIsAnError) {
  EXPECT_EQ(Fault("message M {}\noption optimize_for = LITE_RUNTIME;\nservice S {}"),
            "x.proto:3: optimize_for = LITE_RUNTIME leaves out the descriptors that calls need; "
            "remove it");
}

TEST(ServiceModelTest, EveryErrorOfAFileIsToldAtOnce) {
  EXPECT_EQ(Fault("message M {}\nservice S {\n  rpc F(stream M) returns (M);\n"
                  "  rpc int(M) returns (M);\n}"),
            "x.proto:4: S.F streams on the client's side only; write `stream` on both sides, or on "
            "none\n"
            "x.proto:5: S.int has a name that C++ or a macro may mean otherwise; rename it");
}

}  // namespace
}  // namespace varnic::compiler
