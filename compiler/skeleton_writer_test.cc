#include "compiler/skeleton_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "absl/strings/str_cat.h"
#include "compiler/service_model.h"
#include "compiler/testing/proto_texts.h"

namespace varnic::compiler {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using testing::ProtoTexts;

ServiceModel ModelOf(const std::string& text) {
  ProtoTexts protos;
  auto model = BuildServiceModel(protos.X(text));
  EXPECT_TRUE(model.ok() && model->has_value()) << model.status();
  return **std::move(model);
}

TEST(SkeletonWriterTest, HeaderDeclaresTheClassInThePackagesNamespace) {
  const std::string header =
      WriteSkeletonHeader(ModelOf("package a.b; message M {} service S { rpc F(M) returns (M); }"));

  EXPECT_THAT(header, HasSubstr("#ifndef X_RPC_H_\n#define X_RPC_H_\n"));
  EXPECT_THAT(header, HasSubstr("#include \"x.pb.h\"\n"));
  EXPECT_THAT(header, HasSubstr("namespace a::b {\n"));
  EXPECT_THAT(header, HasSubstr("class SRpc : public ::varnic::Service {\n"));
  EXPECT_THAT(
      header,
      HasSubstr("  virtual void F(::google::protobuf::RpcController* controller, const "
                "::a::b::M* request,\n"
                "                 ::a::b::M* response, ::google::protobuf::Closure* done);"));
  EXPECT_THAT(header, HasSubstr("}  // namespace a::b\n"));
}

TEST(SkeletonWriterTest, ServiceOfNoPackageStandsInNoNamespace) {
  const ServiceModel model = ModelOf("message M {} service S { rpc F(M) returns (M); }");

  EXPECT_THAT(WriteSkeletonHeader(model), Not(HasSubstr("namespace")));
  EXPECT_THAT(WriteSkeletonSource(model), Not(HasSubstr("namespace  {")));
}

TEST(SkeletonWriterTest, UnaryMethodsStandBeforeTheHooksOfStreams) {
  const std::string header =
      WriteSkeletonHeader(ModelOf("message M {} service S {"
                                  "  rpc Watch(stream rpc.EventSubscription) returns (stream M);"
                                  "  rpc F(M) returns (M); }"));

  EXPECT_LT(header.find("virtual void F("), header.find("virtual void Watch();"));
}

TEST(SkeletonWriterTest, EachMethodIsDispatchedByItsPlaceInTheFile) {
  const std::string source =
      WriteSkeletonSource(ModelOf("message M {} service S {"
                                  "  rpc Watch(stream rpc.EventSubscription) returns (stream M);"
                                  "  rpc F(M) returns (M); }"));

  EXPECT_THAT(source, HasSubstr("    case 0:\n"
                                "      VARNIC_FATAL(\"Streaming method can't be called with this "
                                "call.\");\n"
                                "    case 1:\n"
                                "      F(controller, "));
  EXPECT_THAT(
      source,
      HasSubstr("    case 0:\n"
                "      return new ::varnic::EventStream<::M>(this, method, "
                "::std::move(channel));\n"
                "    case 1:\n"
                "      VARNIC_FATAL(\"Cannot open a stream for a non-streaming method.\");"));
  EXPECT_THAT(source, HasSubstr("    case 0:\n"
                                "      return ::rpc::EventSubscription::default_instance();\n"
                                "    case 1:\n"
                                "      return ::M::default_instance();\n"));
}

TEST(SkeletonWriterTest, CallbackStreamIsOneOfItsOwnType) {
  const std::string source = WriteSkeletonSource(ModelOf(absl::StrCat(
      testing::kQuestion, "service S { rpc Ask(stream Question) returns (stream Question); }")));

  EXPECT_THAT(source, HasSubstr("new ::varnic::CallbackStream<::Question>("));
  EXPECT_THAT(source, HasSubstr("#include \"core/common/rpc/stream/callback_stream.h\"\n"));
  EXPECT_THAT(source, Not(HasSubstr("event_stream.h")));
}

TEST(SkeletonWriterTest, MethodThatIsCalledAsAParameterIsIsCalledThroughThis) {
  const std::string source =
      WriteSkeletonSource(ModelOf("message M {} service S { rpc done(M) returns (M); }"));

  EXPECT_THAT(source, HasSubstr("      this->done(controller, static_cast<const ::M*>(request),"));
}

TEST(SkeletonWriterTest, ParametersThatNobodyUsesAreCommentedOut) {
  const std::string source = WriteSkeletonSource(ModelOf("service S {}"));

  EXPECT_THAT(source, HasSubstr("::google::protobuf::RpcController* /*controller*/"));
  EXPECT_THAT(source, HasSubstr("::varnic::StreamChannel /*channel*/"));
}

}  // namespace
}  // namespace varnic::compiler
