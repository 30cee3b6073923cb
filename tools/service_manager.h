#ifndef TOOLS_SERVICE_MANAGER_H_
#define TOOLS_SERVICE_MANAGER_H_

#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/net/address.h"
#include "core/net/event_loop.h"

// What systemd, or another service manager that keeps its protocols, gives to a program that it
// starts, and wants to be told. Nothing of this does anything in a program that was started by
// hand.
namespace varnic::tools {

struct InheritedSocket {
  int fd;
  net::Address address;
};

// The sockets that were bound for this process (sd_listen_fds(3)). Whatever this process starts
// does not inherit them. An error names the file descriptor that is no socket to accept connections
// on. Call it once, before there is another thread; whoever calls it owns the descriptors.
absl::StatusOr<std::vector<InheritedSocket>> TakeInheritedSockets();

// Tell that clients are served from now on, or that the process is about to end, with a line that
// `systemctl status` shows.
void NotifyReady(const std::string& status);
void NotifyStopping(const std::string& status);

// Tells from a loop that it is alive, at half of the time after which the service manager takes it
// for hung (WatchdogSec=). RPC thread only; the loop must outlive it.
class WatchdogPings {
 public:
  explicit WatchdogPings(net::EventLoop& loop);

 private:
  void Ping();

  absl::Duration interval_;
  net::Timer timer_;
};

}  // namespace varnic::tools

#endif  // TOOLS_SERVICE_MANAGER_H_
