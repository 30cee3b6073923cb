// varnic-host: serves the profiles of one user-data directory until it is told to stop.

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/host/profile_host.h"
#include "core/host/user_data_dir.h"
#include "core/net/address.h"
#include "core/net/event_loop.h"
#include "core/net/tls_context.h"
#include "core/server/rpc_server.h"
#include "tools/ctl_location.h"
#include "tools/default_paths.h"
#include "tools/host_options.h"
#include "tools/version.h"

namespace varnic::tools {
namespace {

// How long calls may go on after the signal to stop.
constexpr absl::Duration kPatience = absl::Seconds(10);

enum ExitCode { kStopped = 0, kCannotServe = 1, kUsage = 2 };

int Fail(ExitCode code, const std::string& text) {
  std::fprintf(stderr, "varnic-host: %s\n", text.c_str());
  return code;
}

std::string Text(const absl::Status& status) {
  return std::string(status.message());
}

absl::StatusOr<host::UserDataDir> OpenUserData(const HostOptions& options) {
  return options.default_user_data_dir ? host::UserDataDir::Create(options.user_data_dir)
                                       : host::UserDataDir::Open(options.user_data_dir);
}

// Tells a person what is served where, and what to try first.
void Announce(const HostOptions& options, const std::vector<std::string>& addresses) {
  std::printf("Serving the profiles in %s\n", options.user_data_dir.c_str());
  for (const std::string& address : addresses) std::printf("Listening on %s\n", address.c_str());
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
  std::fprintf(stderr,
               "varnic-host: warning: whoever can reach %s may call every method; "
               "--tls-client-ca or --policy would keep strangers out\n",
               address.ToString().c_str());
}

absl::StatusOr<std::string> Listen(RpcServer& server, const HostOptions& options,
                                   const std::string& text) {
  ListenOptions listen_options;
  listen_options.unix_admission = options.unix_admission;
  const absl::StatusOr<net::Address> address = net::Address::Parse(text);
  if (address.ok() && address->kind == net::Address::Kind::kTcp && options.tls.has_value()) {
    WarnOfStrangers(options, *address);
    listen_options.tls = options.tls;
  }
  return server.Listen(text, listen_options);
}

// What is wrong with the files that say who may come in, with the options that named them.
absl::Status CheckTls(const HostOptions& options) {
  if (!options.tls.has_value()) return absl::OkStatus();
  const auto context = net::TlsServerContext::Create(*options.tls);
  if (context.ok()) return absl::OkStatus();
  return absl::FailedPreconditionError(
      absl::StrCat(options.tls_flags, ": ", context.status().message()));
}

int Serve(const HostOptions& options) {
  if (const absl::Status status = CheckTls(options); !status.ok()) {
    return Fail(kCannotServe, Text(status));
  }
  absl::StatusOr<host::UserDataDir> directory = OpenUserData(options);
  if (!directory.ok()) {
    return Fail(kCannotServe, absl::StrCat("--user-data-dir: ", Text(directory.status())));
  }
  if (options.default_listen) {
    const absl::Status status = MakePrivateFolder(DefaultRuntimeFolder(std::getenv));
    if (!status.ok()) return Fail(kCannotServe, absl::StrCat("the socket's folder ", Text(status)));
  }

  // The server is destroyed last: it runs the closures of the calls that the host ends.
  RpcServer server;
  host::ProfileHost profiles(
      *std::move(directory), options.profiles,
      [&server](std::function<void()> task) { server.Post(std::move(task)); });
  server.AddService(profiles);
  if (!options.policy.empty()) {
    const absl::Status status = server.UsePolicy(options.policy);
    if (!status.ok()) return Fail(kCannotServe, absl::StrCat("--policy ", Text(status)));
  }
  std::vector<std::string> addresses;
  for (const std::string& listen : options.listen) {
    absl::StatusOr<std::string> address = Listen(server, options, listen);
    if (!address.ok()) {
      return Fail(kCannotServe, absl::StrCat("--listen: ", Text(address.status())));
    }
    addresses.push_back(*std::move(address));
  }
  const net::StopSignals signals(server.loop(),
                                 [&server](int /*signal*/) { server.Drain(kPatience); });
  Announce(options, addresses);
  server.Run();
  return kStopped;
}

int Main(const std::vector<std::string>& arguments) {
  const absl::StatusOr<HostOptions> options = ParseHostOptions(arguments, std::getenv);
  if (!options.ok()) {
    return Fail(kUsage, absl::StrCat(Text(options.status()), "\nTry 'varnic-host --help'."));
  }
  if (options->help) {
    std::fputs(HostHelp(std::getenv).c_str(), stdout);
    return kStopped;
  }
  if (options->version) {
    std::printf("varnic-host %s\n", kVersion);
    return kStopped;
  }
  umask(077);
  return Serve(*options);
}

}  // namespace
}  // namespace varnic::tools

int main(int argc, char** argv) {
  return varnic::tools::Main(std::vector<std::string>(argv + 1, argv + argc));
}
