// The server of this framework. With "relaxed" behind its address, no limit is ever reached, and
// those in time are off; with "polling", it looks for work for a while before it sleeps.

#include <cstdio>
#include <limits>
#include <string>

#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "bench/side_by_side/scenario_host.h"
#include "core/server/rpc_server.h"

namespace varnic::bench {
namespace {

ServerOptions Relaxed() {
  constexpr std::size_t kMany = std::numeric_limits<std::int32_t>::max();
  ServerOptions options;
  options.max_connections = kMany;
  options.max_unfinished_bytes = kMany;
  options.connections = net::ConnectionLimits::None();
  options.floods.resets = {kMany, kMany};
  options.floods.control_frames = {kMany, kMany};
  options.floods.empty_frames = {kMany, kMany};
  options.floods.unread_answers = kMany;
  options.streams.subscriptions = {kMany, kMany, kMany};
  options.streams.outbound = {kMany, kMany, kMany};
  return options;
}

ServerOptions Options(const std::string& kind) {
  ServerOptions options = kind == "relaxed" ? Relaxed() : ServerOptions();
  if (kind == "polling") options.busy_poll = absl::Microseconds(50);
  return options;
}

int Serve(const std::string& address, const std::string& kind) {
  RpcServer server(Options(kind));
  ScenarioHost host(server.scheduler());
  server.AddService(host);
  const absl::StatusOr<std::string> got = server.Listen(address);
  if (!got.ok()) {
    std::fprintf(stderr, "%s\n", got.status().ToString().c_str());
    return 1;
  }
  std::printf("%s\n", got->c_str());
  std::fflush(stdout);
  server.Run();
  return 0;
}

}  // namespace
}  // namespace varnic::bench

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  return varnic::bench::Serve(argv[1], argc > 2 ? argv[2] : "");
}
