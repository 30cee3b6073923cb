// The server of gRPC's interoperability tests, on our own: those of their unary calls and
// full-duplex streams. See serve_program.h for its arguments.

#include <cstdint>
#include <string>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/abstract_stream.h"
#include "core/common/rpc/service.h"
#include "core/server/rpc_server.h"
#include "core/server/server_controller.h"
#include "interop/empty.pb.h"
#include "interop/messages.pb.h"
#include "rpc/transport/stream_message.pb.h"
#include "tests/programs/serve_program.h"

namespace varnic {
namespace {

using google::protobuf::Closure;
using google::protobuf::Message;
using google::protobuf::MessageFactory;
using google::protobuf::MethodDescriptor;
using google::protobuf::RpcController;

constexpr char kEchoInitial[] = "x-grpc-test-echo-initial";
constexpr char kEchoTrailing[] = "x-grpc-test-echo-trailing-bin";
constexpr int32_t kMaxPayload = 16 << 20;

bool FillPayload(int32_t size, grpc::testing::Payload& payload) {
  if (size < 0 || size > kMaxPayload) return false;
  payload.mutable_body()->assign(static_cast<std::size_t>(size), '\0');
  return true;
}

// Sends what each request asks for, without waiting between the responses. Ends by itself when it
// does not understand one.
class FullDuplexStream : public AbstractStream {
 public:
  using AbstractStream::AbstractStream;

  void OnNext(::rpc::transport::StreamMessage* message) override {
    grpc::testing::StreamingOutputCallRequest request;
    if (!request.ParseFromString(message->payload())) return Complete();
    for (const grpc::testing::ResponseParameters& parameters : request.response_parameters()) {
      grpc::testing::StreamingOutputCallResponse response;
      if (!FillPayload(parameters.size(), *response.mutable_payload())) return Complete();
      ::rpc::transport::StreamMessage envelope;
      response.SerializeToString(envelope.mutable_payload());
      channel().Send(envelope);
    }
  }
  void OnError(::rpc::transport::StreamMessage* /*message*/) override {}
  void OnCompleted() override { Complete(); }
};

class TestService : public Service {
 public:
  const google::protobuf::ServiceDescriptor* GetDescriptor() override {
    return google::protobuf::DescriptorPool::generated_pool()->FindServiceByName(
        "grpc.testing.TestService");
  }

  const Message& GetRequestPrototype(const MethodDescriptor* method) const override {
    return *MessageFactory::generated_factory()->GetPrototype(method->input_type());
  }
  const Message& GetResponsePrototype(const MethodDescriptor* method) const override {
    return *MessageFactory::generated_factory()->GetPrototype(method->output_type());
  }

  void CallMethod(const MethodDescriptor* method, RpcController* controller, const Message* request,
                  Message* response, Closure* done) override {
    if (method->name() == "UnaryCall") {
      UnaryCall(ServerController::From(controller),
                *static_cast<const grpc::testing::SimpleRequest*>(request),
                *static_cast<grpc::testing::SimpleResponse*>(response));
    } else if (method->name() != "EmptyCall") {
      controller->SetFailed(absl::StrCat("Method ", method->name(), "() not implemented."));
    }
    done->Run();
  }

  AbstractStream* OpenStream(const MethodDescriptor* method, StreamChannel channel) override {
    if (method->name() != "FullDuplexCall") return nullptr;
    return new FullDuplexStream(std::move(channel));
  }

 private:
  static void UnaryCall(ServerController& controller, const grpc::testing::SimpleRequest& request,
                        grpc::testing::SimpleResponse& response) {
    absl::Status status = EchoMetadata(controller);
    if (!FillPayload(request.response_size(), *response.mutable_payload())) {
      status = absl::InvalidArgumentError(absl::StrCat("response_size ", request.response_size()));
    }
    if (request.has_response_status()) {
      status = absl::Status(static_cast<absl::StatusCode>(request.response_status().code()),
                            request.response_status().message());
    }
    controller.SetStatus(status);
  }

  static absl::Status EchoMetadata(ServerController& controller) {
    absl::Status status;
    if (const auto value = controller.metadata().Find(kEchoInitial)) {
      status.Update(controller.AddInitialMetadata(kEchoInitial, *value));
    }
    if (const auto value = controller.metadata().Find(kEchoTrailing)) {
      status.Update(controller.AddTrailingMetadata(kEchoTrailing, *value));
    }
    return status;
  }
};

}  // namespace
}  // namespace varnic

int main(int argc, char** argv) {
  varnic::RpcServer server;
  varnic::TestService service;
  varnic::ServiceOptions options;
  options.plain_streams = true;
  server.AddService(service, options);
  return varnic::ServeProgram(server, argc, argv);
}
