#ifndef CORE_HOST_NETWORK_DUMP_H_
#define CORE_HOST_NETWORK_DUMP_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/common/rpc/scheduler.h"
#include "core/host/netlink_message.h"
#include "core/host/netlink_socket.h"
#include "core/host/network_snapshot.h"
#include "core/net/event_loop.h"
#include "core/net/readable_watch.h"

namespace varnic::host {

// Asks the kernel once for its links, addresses and routes, one list after the other, on a socket
// of its own. Takes the loop in small steps, and 10 seconds at most. RPC thread only.
class NetworkDump {
 public:
  static constexpr absl::Duration kPatience = absl::Seconds(10);

  // ABORTED if something has changed meanwhile, so that a list may lack something.
  using OnDone = std::function<void(const absl::StatusOr<NetworkSnapshot>& snapshot)>;

  // Runs `on_done` once, later, unless the result is destroyed before; `on_done` may destroy it.
  // The loop and the scheduler must outlive it.
  static absl::StatusOr<std::unique_ptr<NetworkDump>> Start(net::EventLoop& loop,
                                                            Scheduler& scheduler, OnDone on_done);
  NetworkDump(const NetworkDump&) = delete;
  NetworkDump& operator=(const NetworkDump&) = delete;

 private:
  NetworkDump(NetlinkSocket socket, OnDone on_done);

  absl::Status AskForList();
  void OnReadable();
  absl::Status TakeDatagram(std::string_view datagram);
  absl::Status TakeMessage(const NetlinkMessage& message);
  absl::Status EndList(const absl::Status& status);
  bool IsComplete() const;
  void Finish(const absl::Status& status);

  NetlinkSocket socket_;
  OnDone on_done_;
  NetworkSnapshot snapshot_;
  std::size_t lists_ = 0;  // That have ended.
  bool is_interrupted_ = false;
  std::unique_ptr<Scheduler::Timer> deadline_;
  std::unique_ptr<net::ReadableWatch> watch_;  // Of the socket, so it goes first.
};

}  // namespace varnic::host

#endif  // CORE_HOST_NETWORK_DUMP_H_
