// A unary call inside the process: what the skeleton costs, without a wire.

#include <benchmark/benchmark.h>

#include <string>

#include "bench/echo_host.h"

namespace varnic {
namespace {

class Controller : public google::protobuf::RpcController {
 public:
  void Reset() override {}
  bool Failed() const override { return false; }
  std::string ErrorText() const override { return ""; }
  void StartCancel() override {}
  void SetFailed(const std::string& reason) override { benchmark::DoNotOptimize(reason.data()); }
  bool IsCanceled() const override { return false; }
  void NotifyOnCancel(google::protobuf::Closure* /*closure*/) override {}
};

class Count : public google::protobuf::Closure {
 public:
  void Run() override { ++runs; }
  int64_t runs = 0;
};

void Dispatch(benchmark::State& state, const std::string& method_name) {
  EchoHost host;
  Controller controller;
  Count done;
  const auto* method = host.GetDescriptor()->FindMethodByName(method_name);
  ProfileId request;
  request.set_value("Profile 1");
  google::protobuf::StringValue response;
  for (auto _ : state) host.CallMethod(method, &controller, &request, &response, &done);
  if (done.runs != static_cast<int64_t>(state.iterations())) state.SkipWithError("a call was lost");
}

void BM_DispatchToAnOverride(benchmark::State& state) {
  Dispatch(state, "Name");
}
BENCHMARK(BM_DispatchToAnOverride);

void BM_DispatchToTheNotImplementedDefault(benchmark::State& state) {
  Dispatch(state, "Path");
}
BENCHMARK(BM_DispatchToTheNotImplementedDefault);

void BM_Descriptor(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(rpc::ProfileRpc::descriptor());
}
BENCHMARK(BM_Descriptor);

}  // namespace
}  // namespace varnic
