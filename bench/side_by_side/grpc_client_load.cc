// Unary calls by grpc++: one at a time by its synchronous stub, and otherwise by its asynchronous
// one with one completion queue. Prints one line of JSON.

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "bench/side_by_side/load_options.h"
#include "bench/side_by_side/measurement.h"
#include "bench/side_by_side/scenario.h"
#include "rpc/profile/profile.grpc.pb.h"

namespace varnic::bench {
namespace {

using google::protobuf::StringValue;

class Load {
 public:
  explicit Load(const LoadOptions& options)
      : options_(options),
        measurement_(options.server),
        stub_(::rpc::Profile::NewStub(
            grpc::CreateChannel(options.address, grpc::InsecureChannelCredentials()))) {
    request_.set_value(std::string(kTextBytes, 'x'));
  }

  [[noreturn]] void Run() {
    if (options_.outstanding > 1) {
      for (int i = 0; i < options_.outstanding; ++i) Call();
    }
    RunFor(options_.warm_up);
    measurement_.Begin();
    const std::int64_t end = NowNs() + static_cast<std::int64_t>(options_.seconds * 1e9);
    while (!measurement_.MayEnd(end)) MakeProgress();
    measurement_.End();
    measurement_.NoteLatencies();
    measurement_.NoteRate();
    measurement_.Print();
    std::fflush(stdout);
    // Calls are open: their orderly end is nobody's business here.
    std::_Exit(0);
  }

 private:
  struct OpenCall {
    std::int64_t start = NowNs();
    grpc::ClientContext context;
    StringValue response;
    grpc::Status status;
    std::unique_ptr<grpc::ClientAsyncResponseReader<StringValue>> reader;
  };

  void RunFor(double seconds) {
    const std::int64_t end = NowNs() + static_cast<std::int64_t>(seconds * 1e9);
    while (NowNs() < end) MakeProgress();
  }

  void MakeProgress() {
    if (options_.outstanding > 1) {
      TakeOne();
    } else {
      CallAndWait();
    }
  }

  void CallAndWait() {
    const std::int64_t start = NowNs();
    grpc::ClientContext context;
    StringValue response;
    const grpc::Status status = stub_->Name(&context, request_, &response);
    Check(status, response);
    measurement_.Count(NowNs() - start);
  }

  void Call() {
    auto* call = new OpenCall;  // TakeOne() takes it over.
    call->reader = stub_->AsyncName(&call->context, request_, &queue_);
    call->reader->Finish(&call->response, &call->status, call);
  }

  void TakeOne() {
    void* tag = nullptr;
    bool ok = false;
    if (!queue_.Next(&tag, &ok) || !ok) Fail("the queue has ended");
    const std::unique_ptr<OpenCall> call(static_cast<OpenCall*>(tag));
    Check(call->status, call->response);
    measurement_.Count(NowNs() - call->start);
    Call();
  }

  void Check(const grpc::Status& status, const StringValue& response) const {
    if (!status.ok()) Fail(status.error_message());
    if (response.value() != request_.value()) Fail("not the response");
  }

  const LoadOptions options_;
  ProfileId request_;
  Measurement measurement_;
  std::unique_ptr<::rpc::Profile::Stub> stub_;
  grpc::CompletionQueue queue_;
};

}  // namespace
}  // namespace varnic::bench

int main(int argc, char** argv) {
  varnic::bench::Load(varnic::bench::ParseLoadOptions(argc, argv)).Run();
}
