#include "core/common/rpc/stream_kind.h"

#include <google/protobuf/compiler/parser.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <gtest/gtest.h>

#include <string>

namespace varnic {
namespace {

constexpr char kFramework[] =
    "syntax = \"proto3\"; package rpc;"
    "message EventSubscription {}"
    "message Event {}";

constexpr char kIdentifiers[] = "syntax = \"proto3\"; message ProfileId {} message BrowserId {}";

class Errors : public google::protobuf::io::ErrorCollector {
  void AddError(int /*line*/, int /*column*/, const std::string& message) override {
    ADD_FAILURE() << message;
  }
};

// The first method of a service M, in a pool of descriptors that knows no class.
class StreamKindTest : public ::testing::Test {
 protected:
  StreamKindTest() {
    Build("rpc.proto", kFramework);
    Build("ids.proto", kIdentifiers);
  }

  StreamKind KindOf(const std::string& method) { return KindOfStream(*Method(method)); }

  // Of a message with these fields.
  std::string Fault(const std::string& fields) { return CallbackTypeFault(*Type(fields)); }
  int CallId(const std::string& fields) { return CallIdField(*Type(fields)); }

 private:
  const google::protobuf::Descriptor* Type(const std::string& fields) {
    return Method("rpc F(Q) returns (Q);", "message Q { " + fields + " }")->input_type();
  }

  const google::protobuf::FileDescriptor* Build(const std::string& name, const std::string& text) {
    google::protobuf::io::ArrayInputStream input(text.data(), static_cast<int>(text.size()));
    Errors errors;
    google::protobuf::io::Tokenizer tokenizer(&input, &errors);
    google::protobuf::compiler::Parser parser;
    google::protobuf::FileDescriptorProto file;
    EXPECT_TRUE(parser.Parse(&tokenizer, &file));
    file.set_name(name);
    return pool_.BuildFile(file);
  }

  const google::protobuf::MethodDescriptor* Method(const std::string& method,
                                                   const std::string& messages = "") {
    const std::string name = "test" + std::to_string(++files_);
    const auto* file =
        Build(name + ".proto",
              "syntax = \"proto3\"; package " + name +
                  "; import \"rpc.proto\"; import \"ids.proto\";"
                  "message Question { ProfileId profile_id = 1; oneof kind { bool subscribe = 2;"
                  " BrowserId response = 4; } }" +
                  messages + "service S { " + method + " }");
    return file->service(0)->method(0);
  }

  google::protobuf::DescriptorPool pool_;
  int files_ = 0;
};

TEST_F(StreamKindTest, MethodThatStreamsOnOneSideAtMostIsNoStream) {
  EXPECT_EQ(KindOf("rpc F(Question) returns (Question);"), StreamKind::kNone);
  EXPECT_EQ(KindOf("rpc F(stream Question) returns (Question);"), StreamKind::kNone);
  EXPECT_EQ(KindOf("rpc F(rpc.EventSubscription) returns (stream rpc.Event);"), StreamKind::kNone);
}

TEST_F(StreamKindTest, SubscriptionsAskForEvents) {
  EXPECT_EQ(KindOf("rpc F(stream rpc.EventSubscription) returns (stream rpc.Event);"),
            StreamKind::kEvents);
}

TEST_F(StreamKindTest, OneTypeWithControlAndAnswersMakesACallbackStream) {
  EXPECT_EQ(KindOf("rpc F(stream Question) returns (stream Question);"), StreamKind::kCallbacks);
}

TEST_F(StreamKindTest, AnyOtherStreamOnBothSidesIsPlain) {
  EXPECT_EQ(KindOf("rpc F(stream ProfileId) returns (stream ProfileId);"), StreamKind::kPlain);
  EXPECT_EQ(KindOf("rpc F(stream Question) returns (stream ProfileId);"), StreamKind::kPlain);
  EXPECT_EQ(KindOf("rpc F(stream rpc.Event) returns (stream rpc.EventSubscription);"),
            StreamKind::kPlain);
}

TEST_F(StreamKindTest, CallbackTypeNeedsTheKey) {
  constexpr char kFault[] =
      "a field `ProfileId profile_id` of the type in rpc/identifiers.proto, the key that the "
      "client "
      "answers for";

  EXPECT_EQ(Fault("oneof kind { bool subscribe = 2; BrowserId response = 4; }"), kFault);
  EXPECT_EQ(Fault("string profile_id = 1;"), kFault);
  EXPECT_EQ(Fault("BrowserId profile_id = 1;"), kFault);
  EXPECT_EQ(Fault("repeated ProfileId profile_id = 1;"), kFault);
}

TEST_F(StreamKindTest, CallbackTypeNeedsControl) {
  constexpr char kFault[] = "`bool subscribe = 2` in a oneof `kind`";
  const std::string key = "ProfileId profile_id = 1; ";

  EXPECT_EQ(Fault(key), kFault);
  EXPECT_EQ(Fault(key + "bool subscribe = 2; oneof kind { BrowserId response = 4; }"), kFault);
  EXPECT_EQ(Fault(key + "oneof kind { bool subscribe = 3; BrowserId response = 4; }"), kFault);
  EXPECT_EQ(Fault(key + "oneof kind { int32 subscribe = 2; BrowserId response = 4; }"), kFault);
  EXPECT_EQ(Fault(key + "oneof what { bool subscribe = 2; BrowserId response = 4; }"), kFault);
}

TEST_F(StreamKindTest, CallbackTypeNeedsAnAnswer) {
  constexpr char kFault[] = "a message field `response = 4` in the oneof `kind`";
  const std::string key = "ProfileId profile_id = 1; ";

  EXPECT_EQ(Fault(key + "oneof kind { bool subscribe = 2; }"), kFault);
  EXPECT_EQ(Fault(key + "oneof kind { bool subscribe = 2; BrowserId response = 3; }"), kFault);
  EXPECT_EQ(Fault(key + "oneof kind { bool subscribe = 2; bool response = 4; }"), kFault);
  EXPECT_EQ(Fault(key + "BrowserId response = 4; oneof kind { bool subscribe = 2; }"), kFault);
}

TEST_F(StreamKindTest, CallIdIsAnInt64OutsideOfOneofs) {
  EXPECT_EQ(CallId("int64 call_id = 7;"), 7);
  EXPECT_EQ(CallId("optional int64 call_id = 7;"), 7);
  EXPECT_EQ(CallId("int64 id = 7;"), 0);
  EXPECT_EQ(CallId("int32 call_id = 7;"), 0);
  EXPECT_EQ(CallId("sint64 call_id = 7;"), 0);
  EXPECT_EQ(CallId("repeated int64 call_id = 7;"), 0);
  EXPECT_EQ(CallId("oneof kind { int64 call_id = 7; }"), 0);
}

}  // namespace
}  // namespace varnic
