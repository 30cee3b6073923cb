#include "core/host/network_dump.h"

#include <linux/rtnetlink.h>

#include <iterator>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace varnic::host {
namespace {

// In this order: a change in between is announced, and followed by another dump.
constexpr std::uint16_t kLists[] = {RTM_GETLINK, RTM_GETADDR, RTM_GETROUTE};

// Then others get their turn on the loop.
constexpr int kDatagramsInARow = 16;

}  // namespace

absl::StatusOr<std::unique_ptr<NetworkDump>> NetworkDump::Start(net::EventLoop& loop,
                                                                Scheduler& scheduler,
                                                                OnDone on_done) {
  absl::StatusOr<NetlinkSocket> socket = NetlinkSocket::Open(/*groups=*/0);
  if (!socket.ok()) return socket.status();
  std::unique_ptr<NetworkDump> dump(new NetworkDump(*std::move(socket), std::move(on_done)));
  NetworkDump* const self = dump.get();
  auto watch = net::ReadableWatch::Start(loop, self->socket_.fd(), [self] { self->OnReadable(); });
  if (!watch.ok()) return watch.status();
  dump->watch_ = *std::move(watch);
  dump->deadline_ = scheduler.RunAfter(kPatience, [self] {
    self->Finish(absl::DeadlineExceededError("the kernel does not list its network"));
  });
  const absl::Status status = dump->AskForList();
  if (!status.ok()) return status;
  return dump;
}

NetworkDump::NetworkDump(NetlinkSocket socket, OnDone on_done)
    : socket_(std::move(socket)), on_done_(std::move(on_done)) {}

bool NetworkDump::IsComplete() const {
  return lists_ == std::size(kLists);
}

absl::Status NetworkDump::AskForList() {
  return socket_.Send(NetlinkListRequest(kLists[lists_], static_cast<std::uint32_t>(lists_ + 1)));
}

void NetworkDump::OnReadable() {
  for (int i = 0; i < kDatagramsInARow; ++i) {
    const absl::StatusOr<std::optional<std::string_view>> datagram = socket_.Receive();
    if (!datagram.ok()) return Finish(datagram.status());
    if (!datagram->has_value()) return;
    const absl::Status status = TakeDatagram(**datagram);
    if (!status.ok() || IsComplete()) return Finish(status);
  }
}

absl::Status NetworkDump::TakeDatagram(std::string_view datagram) {
  const absl::StatusOr<std::vector<NetlinkMessage>> messages = ParseNetlinkMessages(datagram);
  if (!messages.ok()) return messages.status();
  for (const NetlinkMessage& message : *messages) {
    if (message.sequence != lists_ + 1) continue;
    const absl::Status status = TakeMessage(message);
    if (!status.ok() || IsComplete()) return status;
  }
  return absl::OkStatus();
}

absl::Status NetworkDump::TakeMessage(const NetlinkMessage& message) {
  is_interrupted_ = is_interrupted_ || message.is_interrupted;
  if (const auto* end = std::get_if<ListEnd>(&message.record)) return EndList(end->status);
  if (const auto* link = std::get_if<LinkRecord>(&message.record)) snapshot_.Add(*link);
  if (const auto* address = std::get_if<AddressRecord>(&message.record)) snapshot_.Add(*address);
  if (const auto* route = std::get_if<RouteRecord>(&message.record)) snapshot_.Add(*route);
  return absl::OkStatus();
}

absl::Status NetworkDump::EndList(const absl::Status& status) {
  if (!status.ok()) return status;
  ++lists_;
  if (!IsComplete()) return AskForList();
  return is_interrupted_ ? absl::AbortedError("the network has changed meanwhile")
                         : absl::OkStatus();
}

void NetworkDump::Finish(const absl::Status& status) {
  watch_ = nullptr;
  deadline_ = nullptr;
  // It may destroy this.
  const OnDone on_done = std::move(on_done_);
  if (!status.ok()) return on_done(status);
  const absl::StatusOr<NetworkSnapshot> snapshot = std::move(snapshot_);
  on_done(snapshot);
}

}  // namespace varnic::host
