#include "compiler/client_writer.h"

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
using testing::kQuestion;
using ::testing::Not;
using testing::ProtoTexts;

ServiceModel ModelOf(const std::string& text) {
  ProtoTexts protos;
  auto model = BuildServiceModel(protos.X(text));
  EXPECT_TRUE(model.ok() && model->has_value()) << model.status();
  return **std::move(model);
}

ServiceModel UnaryModel() {
  return ModelOf("package a.b; message M {} message N {} service S { rpc F(M) returns (N); }");
}

ServiceModel EventModel() {
  return ModelOf(
      "message M {} service S { rpc Watch(stream rpc.EventSubscription) returns (stream M); }");
}

TEST(ClientWriterTest, HeaderDeclaresTheClassInThePackagesNamespace) {
  const std::string header = WriteClientHeader(UnaryModel());

  EXPECT_THAT(header, HasSubstr("#ifndef X_CLIENT_H_\n#define X_CLIENT_H_\n"));
  EXPECT_THAT(header, HasSubstr("#include \"x.pb.h\"\n"));
  EXPECT_THAT(header, Not(HasSubstr("rpc.h")));
  EXPECT_THAT(header, HasSubstr("namespace a::b {\n"));
  EXPECT_THAT(header, HasSubstr("class SClient {\n public:\n  explicit SClient(::varnic::Client& "
                                "client) : client_(client) {}\n"));
}

TEST(ClientWriterTest, UnaryMethodHasAFormThatCallsBackAndOneThatWaits) {
  const std::string header = WriteClientHeader(UnaryModel());

  EXPECT_THAT(header, HasSubstr("  ::varnic::Client::CallId F(const ::a::b::M& request, "
                                "::absl::Duration timeout,\n"
                                "                             ::varnic::OnAnswer<::a::b::N> "
                                "done);\n"));
  EXPECT_THAT(header, HasSubstr("  ::absl::StatusOr<::a::b::N> FAndWait(const ::a::b::M& request, "
                                "::absl::Duration timeout);\n"));
}

TEST(ClientWriterTest, EventStreamIsASubscriber) {
  EXPECT_THAT(WriteClientHeader(EventModel()),
              HasSubstr("  ::std::unique_ptr<::varnic::EventSubscriber<::M>> Watch(\n"
                        "      ::varnic::EventSubscriber<::M>::OnEvent on_event, "
                        "::varnic::StreamListeners listeners = {});\n"));
  EXPECT_THAT(WriteClientSource(EventModel()),
              HasSubstr("  return ::std::make_unique<::varnic::EventSubscriber<::M>>(\n"
                        "      client_, MethodAt(0), ::std::move(on_event), "
                        "::std::move(listeners));\n"));
}

TEST(ClientWriterTest, CallbackStreamIsAnAnswerer) {
  const ServiceModel model = ModelOf(
      absl::StrCat(kQuestion, "service S { rpc Ask(stream Question) returns (stream Question); }"));

  EXPECT_THAT(WriteClientHeader(model),
              HasSubstr("  ::std::unique_ptr<::varnic::CallbackAnswerer<::Question>> Ask(\n"
                        "      ::varnic::CallbackAnswerer<::Question>::OnQuestion on_question,\n"
                        "      ::varnic::StreamListeners listeners = {});\n"));
  EXPECT_THAT(WriteClientSource(model), HasSubstr("::std::move(on_question)"));
}

TEST(ClientWriterTest, HeadersAreThoseOfTheKindsThatThereAre) {
  const std::string unary = WriteClientHeader(UnaryModel());
  const std::string events = WriteClientHeader(EventModel());

  EXPECT_THAT(unary, HasSubstr("#include \"core/client/typed_call.h\"\n"));
  EXPECT_THAT(unary, Not(HasSubstr("event_subscriber.h")));
  EXPECT_THAT(unary, Not(HasSubstr("stream_listeners.h")));
  EXPECT_THAT(events, HasSubstr("#include \"core/client/event_subscriber.h\"\n"));
  EXPECT_THAT(events, HasSubstr("#include \"core/client/stream_listeners.h\"\n"));
  EXPECT_THAT(events, Not(HasSubstr("callback_answerer.h")));
  EXPECT_THAT(events, Not(HasSubstr("typed_call.h")));
}

TEST(ClientWriterTest, MethodIsNamedByItsPlaceInTheFile) {
  const std::string source = WriteClientSource(
      ModelOf("message M {} service S { rpc F(M) returns (M); rpc G(M) returns (M); }"));

  EXPECT_THAT(source, HasSubstr("SClient::GAndWait(const ::M& request, ::absl::Duration timeout) "
                                "{\n"
                                "  return ::varnic::CallAndWait<::M>(client_, MethodAt(1), "
                                "request, timeout);\n"));
  EXPECT_THAT(source, HasSubstr("FindFileByName(\"x.proto\");\n    return file->service(0);\n"));
}

TEST(ClientWriterTest, ServiceWithoutMethodsHasAClientOfNothing) {
  const ServiceModel model = ModelOf("service S {}");

  EXPECT_THAT(WriteClientHeader(model),
              HasSubstr("class SClient {\n public:\n  explicit SClient(::varnic::Client& "
                        "/*client*/) {}\n};\n"));
  EXPECT_THAT(WriteClientSource(model), Not(HasSubstr("SClient::")));
}

}  // namespace
}  // namespace varnic::compiler
