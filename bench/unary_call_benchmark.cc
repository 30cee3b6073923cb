// Unary calls from a generated client to a server in another thread, over real sockets.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "bench/echo_host.h"
#include "core/client/client.h"
#include "core/server/rpc_server.h"
#include "rpc/profile/profile.client.h"

namespace varnic {
namespace {

class RunningServer {
 public:
  explicit RunningServer(const std::string& listen) {
    server_.AddService(host_);
    address_ = server_.Listen(listen).value();
    thread_ = std::thread([this] { server_.Run(); });
  }
  ~RunningServer() {
    server_.Post([this] { server_.Stop(); });
    thread_.join();
  }

  const std::string& address() const { return address_; }

 private:
  EchoHost host_;
  RpcServer server_;
  std::string address_;
  std::thread thread_;
};

std::string UnixAddress() {
  return "unix:/tmp/varnic_bench_" + std::to_string(getpid());
}

// Keeps `outstanding` calls open; one step of the benchmark is one answer.
void Calls(benchmark::State& state, const std::string& listen, int outstanding) {
  const RunningServer server(listen);
  ProfileId request;
  request.set_value(std::string(64, 'p'));
  int64_t answered = 0;
  bool failed = false;
  std::function<void()> call;
  net::EventLoop loop;
  Client client(loop, server.address());  // Its end is that of its calls, which use the above.
  rpc::ProfileClient profiles(client);
  call = [&] {
    profiles.Name(request, absl::InfiniteDuration(), [&](const auto& name) {
      ++answered;
      failed = failed || !name.ok();
      if (!failed) call();
    });
  };

  for (int i = 0; i < outstanding; ++i) call();
  for (auto _ : state) {
    const int64_t before = answered;
    loop.RunUntil([&] { return answered != before || failed; });
  }
  // A turn of the loop may bring more than one answer.
  state.SetItemsProcessed(answered);
  if (failed) state.SkipWithError("a call failed");
  failed = true;  // The calls that end with the client start no others.
}

void BM_UnaryCallOverUnixSocket(benchmark::State& state) {
  Calls(state, UnixAddress(), static_cast<int>(state.range(0)));
}
BENCHMARK(BM_UnaryCallOverUnixSocket)->ArgName("outstanding")->Arg(1)->Arg(100)->UseRealTime();

void BM_UnaryCallOverTcp(benchmark::State& state) {
  Calls(state, "127.0.0.1:0", static_cast<int>(state.range(0)));
}
BENCHMARK(BM_UnaryCallOverTcp)->ArgName("outstanding")->Arg(1)->Arg(100)->UseRealTime();

}  // namespace
}  // namespace varnic
