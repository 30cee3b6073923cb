#include "compiler/name_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "compiler/testing/proto_texts.h"

namespace varnic::compiler {
namespace {

using ::testing::IsEmpty;
using testing::ProtoTexts;

constexpr Parts kSkeleton{/*skeleton=*/true, /*client=*/false};
constexpr Parts kClient{/*skeleton=*/false, /*client=*/true};

std::string FaultOf(const google::protobuf::FileDescriptor& file, const Parts& parts) {
  Faults faults(file);
  CheckNames(*file.service(0), parts, faults);
  return std::string(faults.status().message());
}

// Of "x.proto" with `text` from line 2 on.
std::string Fault(const std::string& text, const Parts& parts = {}) {
  ProtoTexts protos;
  return FaultOf(protos.X(text), parts);
}

// Of a method `name` on line 4, in a service S.
std::string MethodFault(const std::string& name, const Parts& parts = {}) {
  return Fault(absl::StrCat("message M {}\nservice S {\n  rpc ", name, "(M) returns (M);\n}"),
               parts);
}

TEST(NameRulesTest, MethodThatCppTakesOtherwiseIsAnError) {
  for (const std::string name : {"delete", "co_await", "errno", "NULL", "linux", "EINTR"}) {
    EXPECT_EQ(MethodFault(name),
              absl::StrCat("x.proto:4: S.", name,
                           " has a name that C++ or a macro may mean otherwise; rename it"));
  }
}

TEST(NameRulesTest, MethodThatLooksLikeAKeywordIsNone) {
  for (const std::string name : {"Delete", "delete_", "override", "final", "Class"}) {
    EXPECT_THAT(MethodFault(name), IsEmpty());
  }
}

TEST(NameRulesTest, MethodThatTheSkeletonHasAlreadyIsAnError) {
  for (const std::string name : {"GetDescriptor", "descriptor", "OpenStream", "SRpc",
                                 "file_level_service_descriptors_x_2eproto"}) {
    EXPECT_EQ(MethodFault(name),
              absl::StrCat("x.proto:4: S.", name,
                           " cannot be a method of the C++ class SRpc, where its name means "
                           "something else; rename it"));
    EXPECT_THAT(MethodFault(name, kClient), IsEmpty());
  }
}

TEST(NameRulesTest, MethodThatTheClientHasAlreadyIsAnError) {
  for (const std::string name : {"client_", "MethodAt", "SClient"}) {
    EXPECT_EQ(MethodFault(name),
              absl::StrCat("x.proto:4: S.", name,
                           " cannot be a method of the C++ class SClient, where its name means "
                           "something else; rename it"));
    EXPECT_THAT(MethodFault(name, kSkeleton), IsEmpty());
  }
}

TEST(NameRulesTest, MethodThatIsTheWaitingFormOfAnotherIsAnError) {
  constexpr char kMethods[] =
      "message M {}\nservice S {\n  rpc GetAndWait(M) returns (M);\n  rpc Get(M) returns (M);\n}";

  EXPECT_EQ(Fault(kMethods),
            "x.proto:4: S.GetAndWait cannot be a method of the C++ class SClient, where that is "
            "the waiting form of Get; rename one of them");
  EXPECT_THAT(Fault(kMethods, kSkeleton), IsEmpty());
}

TEST(NameRulesTest, StreamHasNoWaitingForm) {
  EXPECT_THAT(Fault("message M {}\nservice S {\n  rpc GetAndWait(M) returns (M);\n"
                    "  rpc Get(stream rpc.EventSubscription) returns (stream M);\n}"),
              IsEmpty());
}

TEST(NameRulesTest, MessageWithTheNameOfAClassIsAnError) {
  EXPECT_EQ(Fault("package p; message SRpc {}\nservice S {}"),
            "x.proto:3: p.S has the C++ class SRpc, and so has p.SRpc in x.proto:2; rename one of "
            "them");
  EXPECT_EQ(
      Fault("package p; message SClient {}\nservice S {}"),
      "x.proto:3: p.S has the C++ class SClient, and so has p.SClient in x.proto:2; rename one "
      "of them");
}

TEST(NameRulesTest, ClassIsMissedOnlyByThePartThatHasIt) {
  EXPECT_THAT(Fault("message SRpc {} service S {}", kClient), IsEmpty());
  EXPECT_THAT(Fault("message SClient {} service S {}", kSkeleton), IsEmpty());
}

TEST(NameRulesTest, NestedMessageWithTheNameOfAClassInCppIsAnError) {
  EXPECT_EQ(Fault("message A { message B { enum CRpc { ZERO = 0; } } }\nservice A_B_C {}"),
            "x.proto:3: A_B_C has the C++ class A_B_CRpc, and so has A.B.CRpc in x.proto:2; rename "
            "one of them");
}

// In C++, the values of a nested enum stand in the package, too.
TEST(NameRulesTest, ValueOfANestedEnumWithTheNameOfAClassIsAnError) {
  EXPECT_EQ(Fault("message A { message B { enum E {\n CRpc = 0; } } }\nservice A_B_E_C {}"),
            "x.proto:4: A_B_E_C has the C++ class A_B_E_CRpc, and so has A.B.CRpc in x.proto:3; "
            "rename one of them");
  EXPECT_EQ(Fault("message A { message B { enum E {\n CClient = 0; } } }\nservice A_B_E_C {}"),
            "x.proto:4: A_B_E_C has the C++ class A_B_E_CClient, and so has A.B.CClient in "
            "x.proto:3; rename one of them");
}

TEST(NameRulesTest, ServiceWhoseClassIsNoNameOfCppIsAnError) {
  EXPECT_EQ(Fault("\nservice _S {}", kSkeleton),
            "x.proto:3: _S cannot have the C++ class _SRpc; rename it");
  EXPECT_EQ(Fault("\nservice _S {}", kClient),
            "x.proto:3: _S cannot have the C++ class _SClient; rename it");
}

TEST(NameRulesTest, ServiceOfThePackageWithTheNameOfAClassIsAnError) {
  ProtoTexts protos;
  protos.Add("y.proto", "syntax = \"proto3\"; package p; service ProfileClient {}");

  EXPECT_EQ(FaultOf(protos.X("package p; import \"y.proto\";\nservice Profile {}"), {}),
            "x.proto:3: p.Profile has the C++ class ProfileClient, and so has "
            "p.ProfileClient in y.proto:1; rename one of them");
}

TEST(NameRulesTest, WhateverHasTheNameOfAClassIsToldByItsFullNameAndLine) {
  EXPECT_EQ(Fault("package p;\nenum E { SRpc = 0; }\nservice S {}"),
            "x.proto:4: p.S has the C++ class SRpc, and so has p.SRpc in x.proto:3; rename one of "
            "them");
}

TEST(NameRulesTest, PackageWithTheNameOfAClassIsAnError) {
  ProtoTexts protos;
  protos.Add("y.proto", "syntax = \"proto3\"; package SRpc; message M {}");

  EXPECT_EQ(FaultOf(protos.X("import \"y.proto\";\nservice S {}"), {}),
            "x.proto:3: S has the C++ class SRpc, and so has SRpc in y.proto; rename one of them");
}

TEST(NameRulesTest, MessageThatTheSkeletonsSourceHasAlreadyIsAnError) {
  EXPECT_EQ(
      Fault("message AssignDescriptors {}\nservice S {}"),
      "x.proto:3: S has a skeleton with its own AssignDescriptors; rename AssignDescriptors in "
      "x.proto:2");
  EXPECT_THAT(Fault("message AssignDescriptors {}\nservice S {}", kClient), IsEmpty());
}

TEST(NameRulesTest, PackageThatIsNoNamespaceIsAnError) {
  EXPECT_EQ(Fault("\npackage a.delete.b;\nservice S {}"),
            "x.proto:3: the package a.delete.b cannot be a C++ namespace, as C++ or a macro may "
            "mean `delete` otherwise; rename it");
}

TEST(NameRulesTest, PackageOfALibraryIsAnError) {
  EXPECT_EQ(Fault("package varnic.net;\nservice S {}"),
            "x.proto:2: the package varnic.net is in the namespace varnic of a library; rename it");
  EXPECT_EQ(Fault("package absl;\nservice S {}"),
            "x.proto:2: the package absl is in the namespace absl of a library; rename it");
  EXPECT_THAT(Fault("package shop.varnic;\nservice S {}"), IsEmpty());
}

TEST(NameRulesTest, FileThatCannotBeIncludedIsAnError) {
  ProtoTexts protos;
  protos.Add("a\"b.proto", "syntax = \"proto3\"; service S {}");

  EXPECT_EQ(FaultOf(protos.File("a\"b.proto"), {}),
            "a\\\"b.proto:1: no #include can hold this file's name; rename it");
}

}  // namespace
}  // namespace varnic::compiler
