#ifndef CORE_HOST_NETWORK_WATCHER_H_
#define CORE_HOST_NETWORK_WATCHER_H_

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/common/rpc/scheduler.h"
#include "core/host/debounce.h"
#include "core/host/netlink_socket.h"
#include "core/host/network_dump.h"
#include "core/host/network_snapshot.h"
#include "core/net/event_loop.h"
#include "core/net/readable_watch.h"
#include "rpc/profile/profile.pb.h"

namespace varnic::host {

struct NetworkWatcherOptions {
  // How long a burst of changes is waited for; it counts as one.
  DebounceTimes debounce;
  // After the kernel's list of the network has failed.
  absl::Duration retry = absl::Seconds(30);
  // Where the kernel shows which interfaces are wireless, by name.
  std::string interfaces_folder = "/sys/class/net";
};

// Tells what the network of the machine looks like, or of the network namespace in which Start()
// was called: first when the kernel has listed it, and again after each burst of changes.
//
// The kernel's announcements are only taken for a sign that something has changed. What is told is
// always what the kernel lists after that: an announcement that is lost, or comes late or twice,
// does no harm, and one that comes while the kernel makes its list is followed by another list. So
// the same state may be told twice in a row.
//
// Needs no privilege. RPC thread only, and never blocks it.
class NetworkWatcher {
 public:
  // Must not destroy the watcher.
  using OnState = std::function<void(const rpc::NetworkChanged& state)>;

  // The loop and the scheduler must outlive this.
  NetworkWatcher(net::EventLoop& loop, Scheduler& scheduler, OnState on_state,
                 NetworkWatcherOptions options = {});
  NetworkWatcher(const NetworkWatcher&) = delete;
  NetworkWatcher& operator=(const NetworkWatcher&) = delete;

  // Once. An error, as where a sandbox does not let this process ask: nothing is told, ever.
  // What fails later is tried again, and logged at the first failure in a row.
  absl::Status Start();

 private:
  // Also listens for announcements, if nothing does yet.
  absl::Status AskForList();
  void ListAgain();
  absl::Status Listen();
  void StopListening();
  void OnReadable();
  // Whether something was announced that may change the state. Takes what there is, up to a bound.
  absl::StatusOr<bool> TakeAnnouncements();
  void OnListed(const absl::StatusOr<NetworkSnapshot>& snapshot);
  void OnFailure(const absl::Status& status);
  bool IsWireless(const std::string& interface_name) const;

  net::EventLoop& loop_;
  Scheduler& scheduler_;
  const OnState on_state_;
  const NetworkWatcherOptions options_;
  Debounce debounce_;
  std::optional<NetlinkSocket> announcements_;
  std::unique_ptr<net::ReadableWatch> watch_;  // Of the socket above; null as that is.
  std::unique_ptr<NetworkDump> dump_;          // Null while nothing is asked.
  bool has_changed_ = false;                   // Since `dump_` was begun.
  bool has_failed_ = false;                    // The last list, or the try to get it.
  std::unique_ptr<Scheduler::Timer> retry_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_NETWORK_WATCHER_H_
