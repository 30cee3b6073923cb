// varnic-host: serves profiles, and the browsers in them, until it is told to stop.

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "base/logging.h"
#include "core/host/browser_host_service.h"
#include "core/host/network_watcher.h"
#include "core/host/profile_host.h"
#include "core/host/profiles.h"
#include "core/host/question_asker.h"
#include "core/net/address.h"
#include "core/net/event_loop.h"
#include "core/net/log_field.h"
#include "core/net/tls_context.h"
#include "core/server/metrics/metrics_endpoint.h"
#include "core/server/metrics/server_metrics.h"
#include "core/server/rpc_server.h"
#include "tools/ctl_location.h"
#include "tools/default_paths.h"
#include "tools/host_options.h"
#include "tools/log_output.h"
#include "tools/served_profiles.h"
#include "tools/service_manager.h"
#include "tools/standard_files.h"
#include "tools/version.h"

namespace varnic::tools {
namespace {

// How long calls may go on after the signal to stop.
constexpr absl::Duration kPatience = absl::Seconds(10);

enum ExitCode { kStopped = 0, kCannotServe = 1, kUsage = 2 };

// A wrong command line is a person's doing, and told to that person.
int FailUsage(const std::string& text) {
  std::fprintf(stderr, "varnic-host: %s\n", text.c_str());
  return kUsage;
}

// `line` is the caller's.
void Log(logging::LogSeverity severity, const std::string& text, int line = __builtin_LINE()) {
  if (!logging::ShouldCreateLogMessage(severity)) return;
  logging::LogMessage(__FILE__, line, severity).stream() << text;
}

int Fail(const std::string& text, int line = __builtin_LINE()) {
  Log(logging::LOGGING_ERROR, text, line);
  return kCannotServe;
}

std::string Text(const absl::Status& status) {
  return std::string(status.message());
}

// The folder whose profiles are served.
const std::string& ServedFolder(const HostOptions& options) {
  return options.user_data_dir.empty() ? options.profiles_dir : options.user_data_dir;
}

// Tells a person what is served where, and what to try first. `metrics` is null if there are none.
void Announce(const HostOptions& options, const std::vector<std::string>& addresses,
              const MetricsEndpoint* metrics) {
  std::printf("Serving the profiles in %s\n", ServedFolder(options).c_str());
  for (const std::string& address : addresses) std::printf("Listening on %s\n", address.c_str());
  if (metrics != nullptr) std::printf("Metrics on %s\n", metrics->address().c_str());
  const std::string target =
      options.default_listen ? "" : absl::StrCat("--target ", addresses.front(), " ");
  std::printf("Try: %s %spath\n", CtlProgram(std::getenv).c_str(), target.c_str());
  std::fflush(stdout);
}

// Tells a person of a door that stands open.
void WarnOfStrangers(const HostOptions& options, const net::Address& address) {
  if (address.IsLoopback() || !options.tls->client_ca_file.empty() || !options.policy.empty()) {
    return;
  }
  Log(logging::LOGGING_WARNING,
      absl::StrCat("whoever can reach ", address.ToString(),
                   " may call every method; --tls-client-ca or --policy would keep strangers out"));
}

ListenOptions OptionsFor(const net::Address& address, const HostOptions& options) {
  ListenOptions listen_options;
  listen_options.unix_admission = options.unix_admission;
  if (address.kind == net::Address::Kind::kTcp && options.tls.has_value()) {
    WarnOfStrangers(options, address);
    listen_options.tls = options.tls;
  }
  return listen_options;
}

absl::StatusOr<std::string> Listen(RpcServer& server, const HostOptions& options,
                                   const std::string& text) {
  const absl::StatusOr<net::Address> address = net::Address::Parse(text);
  if (!address.ok()) return address.status();
  return server.Listen(text, OptionsFor(*address, options));
}

absl::Status NameSource(const std::string& source, const absl::Status& status) {
  return absl::Status(status.code(), absl::StrCat(source, ": ", status.message()));
}

// The addresses that clients can use: those of the inherited sockets, or else of the options.
absl::StatusOr<std::vector<std::string>> ListenEverywhere(
    RpcServer& server, const HostOptions& options, const std::vector<InheritedSocket>& inherited) {
  std::vector<std::string> addresses;
  for (const InheritedSocket& socket : inherited) {
    absl::StatusOr<std::string> address =
        server.ListenOn(socket.fd, OptionsFor(socket.address, options));
    if (!address.ok()) {
      return NameSource(absl::StrCat("file descriptor ", socket.fd), address.status());
    }
    addresses.push_back(*std::move(address));
  }
  if (!inherited.empty()) return addresses;
  for (const std::string& listen : options.listen) {
    absl::StatusOr<std::string> address = Listen(server, options, listen);
    if (!address.ok()) return NameSource("--listen", address.status());
    addresses.push_back(*std::move(address));
  }
  return addresses;
}

// Tells whoever operates this what is served where.
void LogAddresses(const HostOptions& options, const std::vector<std::string>& addresses,
                  const MetricsEndpoint* metrics) {
  for (const std::string& address : options.unused_listen) {
    Log(logging::LOGGING_WARNING,
        absl::StrCat("Not listening, because the service manager has passed sockets",
                     net::LogField("address", address)));
  }
  for (const std::string& address : addresses) {
    Log(logging::LOGGING_INFO, absl::StrCat("Listening", net::LogField("address", address)));
  }
  if (metrics != nullptr) {
    Log(logging::LOGGING_INFO,
        absl::StrCat("Serving metrics", net::LogField("address", metrics->address())));
  }
}

// A first signal ends what goes on in good order, the browsers after the calls that may need them;
// a second one ends it at once. `profiles` is null before there are any.
void OnStopSignal(RpcServer& server, host::Profiles* profiles, int signal) {
  Log(logging::LOGGING_INFO, absl::StrCat("Stopping signal=SIG", sigabbrev_np(signal)));
  NotifyStopping(absl::StrCat("Ending ", server.open_connections(), " connections"));
  if (profiles == nullptr) return server.Drain(kPatience);
  server.Drain(kPatience, [&server, profiles] { profiles->Close([&server] { server.Stop(); }); });
}

// What the server does not know. The asker, which outlives the metrics, may be null.
void AddQuestions(ServerMetrics& metrics, const host::QuestionAsker* asker) {
  if (asker == nullptr) return;
  metrics.AddGauge("varnic_host_open_questions", "Questions that nobody has answered yet.",
                   [asker] { return static_cast<double>(asker->open_questions()); });
  metrics.AddCounter("varnic_host_questions_over_limit_total",
                     "Questions that nobody was asked, because too many were open.",
                     [asker] { return static_cast<double>(asker->questions_over_limit()); });
}

// Null without --metrics.
absl::StatusOr<std::unique_ptr<MetricsEndpoint>> ServeMetrics(RpcServer& server,
                                                              const ServerMetrics& metrics,
                                                              const HostOptions& options) {
  if (options.metrics.empty()) return nullptr;
  MetricsEndpointOptions endpoint_options;
  endpoint_options.unix_admission = options.unix_admission;
  return MetricsEndpoint::Listen(
      server.loop(), options.metrics, [&metrics] { return metrics.Text(); }, endpoint_options);
}

// What is wrong with the files that say who may come in, with the options that named them.
absl::Status CheckTls(const HostOptions& options) {
  if (!options.tls.has_value()) return absl::OkStatus();
  const auto context = net::TlsServerContext::Create(*options.tls);
  if (context.ok()) return absl::OkStatus();
  return absl::FailedPreconditionError(
      absl::StrCat(options.tls_flags, ": ", context.status().message()));
}

// A sandbox may forbid it; everything else goes on without.
void WatchNetwork(host::NetworkWatcher& network) {
  const absl::Status status = network.Start();
  if (status.ok()) return;
  Log(logging::LOGGING_WARNING,
      absl::StrCat("Network changes are not published", net::LogField("reason", Text(status))));
}

int Serve(const HostOptions& options, const std::vector<InheritedSocket>& inherited) {
  if (const absl::Status status = CheckTls(options); !status.ok()) return Fail(Text(status));
  if (options.default_listen) {
    const absl::Status status = MakePrivateFolder(DefaultRuntimeFolder(std::getenv));
    if (!status.ok()) return Fail(absl::StrCat("the socket's folder ", Text(status)));
  }

  // The server is destroyed last: it runs the closures of the calls that the host ends.
  ServerOptions server_options;
  server_options.serve_reflection = options.reflection;
  RpcServer server(server_options);
  host::Profiles* profiles = nullptr;
  // From now on a signal waits for the loop, so that whatever is made below is taken down again.
  const net::StopSignals signals(
      server.loop(), [&server, &profiles](int signal) { OnStopSignal(server, profiles, signal); });
  const auto served = ServedProfiles::Open(server, options);
  if (!served.ok()) return Fail(Text(served.status()));
  profiles = &(*served)->profiles();
  host::ProfileHost profile_host(*profiles);
  server.AddService(profile_host);
  host::BrowserHostService browser_host(*profiles, server.scheduler());
  server.AddService(browser_host);
  host::NetworkWatcher network(
      server.loop(), server.scheduler(),
      [&profile_host](const rpc::NetworkChanged& state) { profile_host.OnNetworkState(state); });
  WatchNetwork(network);
  if (!options.policy.empty()) {
    const absl::Status status = server.UsePolicy(options.policy);
    if (!status.ok()) return Fail(absl::StrCat("--policy ", Text(status)));
  }
  const auto addresses = ListenEverywhere(server, options, inherited);
  if (!addresses.ok()) return Fail(Text(addresses.status()));
  ServerMetrics metrics(server);
  AddQuestions(metrics, (*served)->asker());
  const auto metrics_endpoint = ServeMetrics(server, metrics, options);
  if (!metrics_endpoint.ok()) {
    return Fail(absl::StrCat("--metrics: ", Text(metrics_endpoint.status())));
  }
  LogAddresses(options, *addresses, metrics_endpoint->get());
  Announce(options, *addresses, metrics_endpoint->get());
  const WatchdogPings pings(server.loop());
  server.Post([status = "Serving on " + absl::StrJoin(*addresses, ", ")] { NotifyReady(status); });
  server.Run();
  Log(logging::LOGGING_INFO, "Stopped");
  return kStopped;
}

std::vector<std::string> AddressesOf(const std::vector<InheritedSocket>& sockets) {
  std::vector<std::string> addresses;
  for (const InheritedSocket& socket : sockets) addresses.push_back(socket.address.ToString());
  return addresses;
}

int Main(const std::vector<std::string>& arguments) {
  const absl::StatusOr<std::vector<InheritedSocket>> inherited = TakeInheritedSockets();
  if (!inherited.ok()) {
    UseLogOutput(LogFormat::kText, logging::LOGGING_INFO);
    return Fail(Text(inherited.status()));
  }
  const absl::StatusOr<HostOptions> options =
      ParseHostOptions(arguments, std::getenv, AddressesOf(*inherited));
  if (!options.ok()) {
    return FailUsage(absl::StrCat(Text(options.status()), "\nTry 'varnic-host --help'."));
  }
  if (options->help) {
    std::fputs(HostHelp(std::getenv).c_str(), stdout);
    return kStopped;
  }
  if (options->version) {
    std::printf("varnic-host %s\n", kVersion);
    return kStopped;
  }
  UseLogOutput(options->log_format, options->log_level);
  umask(077);
  Log(logging::LOGGING_INFO,
      absl::StrCat("Starting", net::LogField("version", kVersion), " pid=", getpid(),
                   net::LogField(options->user_data_dir.empty() ? "profiles_dir" : "user_data_dir",
                                 ServedFolder(*options))));
  return Serve(*options, *inherited);
}

}  // namespace
}  // namespace varnic::tools

int main(int argc, char** argv) {
  if (!varnic::tools::ReserveStandardFiles()) return 1;
  // Whoever read the output may be gone.
  std::signal(SIGPIPE, SIG_IGN);
  return varnic::tools::Main(std::vector<std::string>(argv + 1, argv + argc));
}
