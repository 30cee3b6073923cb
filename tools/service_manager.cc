#include "tools/service_manager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "absl/status/status.h"
#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "core/net/inherited_socket.h"

namespace varnic::tools {
namespace {

// Every line of `state` is an assignment of its own, so `status` has to be one line. That nobody
// listens is no reason to stop.
void Notify(const std::string& state, const std::string& status) {
  sd_notify(/*unset_environment=*/0,
            absl::StrCat(state, "\nSTATUS=", absl::Utf8SafeCHexEscape(status)).c_str());
}

}  // namespace

absl::StatusOr<std::vector<InheritedSocket>> TakeInheritedSockets() {
  const char* variable = std::getenv("LISTEN_FDS");
  const std::string wanted = variable == nullptr ? "" : variable;
  const int count = sd_listen_fds(/*unset_environment=*/1);
  if (count < 0) {
    return absl::FailedPreconditionError(
        absl::StrCat("LISTEN_FDS=", wanted, ", the file descriptors from ", SD_LISTEN_FDS_START,
                     " on: ", std::strerror(-count)));
  }
  std::vector<InheritedSocket> sockets;
  for (int fd = SD_LISTEN_FDS_START; fd < SD_LISTEN_FDS_START + count; ++fd) {
    const absl::StatusOr<net::Address> address = net::InheritedAddress(fd);
    if (!address.ok()) {
      return absl::FailedPreconditionError(
          absl::StrCat("LISTEN_FDS=", wanted, ": ", address.status().message()));
    }
    sockets.push_back({fd, *address});
  }
  return sockets;
}

void NotifyReady(const std::string& status) {
  Notify("READY=1", status);
}

void NotifyStopping(const std::string& status) {
  Notify("STOPPING=1", status);
}

WatchdogPings::WatchdogPings(net::EventLoop& loop) : timer_(loop) {
  std::uint64_t limit_us = 0;
  if (sd_watchdog_enabled(/*unset_environment=*/0, &limit_us) <= 0) return;
  interval_ = absl::Microseconds(limit_us) / 2;
  Ping();
}

void WatchdogPings::Ping() {
  sd_notify(/*unset_environment=*/0, "WATCHDOG=1");
  timer_.Start(interval_, [this] { Ping(); });
}

}  // namespace varnic::tools
