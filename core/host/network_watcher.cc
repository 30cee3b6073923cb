#include "core/host/network_watcher.h"

#include <linux/rtnetlink.h>
#include <unistd.h>

#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "absl/strings/str_cat.h"
#include "base/logging.h"
#include "core/host/netlink_message.h"
#include "core/net/log_field.h"

namespace varnic::host {
namespace {

constexpr std::uint32_t kGroups =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;

// Then others get their turn on the loop.
constexpr int kDatagramsInARow = 64;

// A machine may have many routes that come and go; only default ones matter.
bool Matters(const NetlinkMessage& message) {
  const auto* route = std::get_if<RouteRecord>(&message.record);
  return route == nullptr || route->destination_bits == 0;
}

// What cannot be read may say anything.
bool MayChangeTheState(std::string_view datagram) {
  const absl::StatusOr<std::vector<NetlinkMessage>> messages = ParseNetlinkMessages(datagram);
  if (!messages.ok()) return true;
  for (const NetlinkMessage& message : *messages) {
    if (Matters(message)) return true;
  }
  return false;
}

}  // namespace

NetworkWatcher::NetworkWatcher(net::EventLoop& loop, Scheduler& scheduler, OnState on_state,
                               NetworkWatcherOptions options)
    : loop_(loop),
      scheduler_(scheduler),
      on_state_(std::move(on_state)),
      options_(std::move(options)),
      debounce_(scheduler, options_.debounce, [this] { ListAgain(); }) {}

absl::Status NetworkWatcher::Start() {
  absl::Status status = AskForList();
  if (!status.ok()) StopListening();
  return status;
}

absl::Status NetworkWatcher::AskForList() {
  // Listening comes first, so that no change falls between the two.
  if (watch_ == nullptr) {
    if (absl::Status status = Listen(); !status.ok()) return status;
  }
  has_changed_ = false;
  auto dump = NetworkDump::Start(
      loop_, scheduler_,
      [this](const absl::StatusOr<NetworkSnapshot>& snapshot) { OnListed(snapshot); });
  if (!dump.ok()) return dump.status();
  dump_ = *std::move(dump);
  return absl::OkStatus();
}

void NetworkWatcher::ListAgain() {
  const absl::Status status = AskForList();
  if (!status.ok()) OnFailure(status);
}

absl::Status NetworkWatcher::Listen() {
  absl::StatusOr<NetlinkSocket> socket = NetlinkSocket::Open(kGroups);
  if (!socket.ok()) return socket.status();
  auto watch = net::ReadableWatch::Start(loop_, socket->fd(), [this] { OnReadable(); });
  if (!watch.ok()) return watch.status();
  announcements_ = *std::move(socket);
  watch_ = *std::move(watch);
  return absl::OkStatus();
}

void NetworkWatcher::StopListening() {
  watch_ = nullptr;
  announcements_.reset();
}

void NetworkWatcher::OnReadable() {
  const absl::StatusOr<bool> matters = TakeAnnouncements();
  if (!matters.ok()) {
    StopListening();
    return OnFailure(matters.status());
  }
  if (!*matters) return;
  has_changed_ = true;
  // While a list is made, its end looks after the rest; after a failure, the next try does.
  if (dump_ == nullptr && retry_ == nullptr) debounce_.OnChange();
}

absl::StatusOr<bool> NetworkWatcher::TakeAnnouncements() {
  bool matters = false;
  for (int i = 0; i < kDatagramsInARow; ++i) {
    const absl::StatusOr<std::optional<std::string_view>> datagram = announcements_->Receive();
    if (absl::IsResourceExhausted(datagram.status()) || absl::IsDataLoss(datagram.status())) {
      matters = true;  // What was lost may have said anything.
    } else if (!datagram.ok()) {
      return datagram.status();
    } else if (!datagram->has_value()) {
      break;
    } else {
      matters = matters || MayChangeTheState(**datagram);
    }
  }
  return matters;
}

void NetworkWatcher::OnListed(const absl::StatusOr<NetworkSnapshot>& snapshot) {
  dump_ = nullptr;
  if (absl::IsAborted(snapshot.status())) return debounce_.OnChange();
  if (!snapshot.ok()) return OnFailure(snapshot.status());
  has_failed_ = false;
  retry_ = nullptr;  // Of an announcement that could not be read before this list.
  if (has_changed_) debounce_.OnChange();
  on_state_(snapshot->Describe([this](const std::string& name) { return IsWireless(name); }));
}

void NetworkWatcher::OnFailure(const absl::Status& status) {
  if (!std::exchange(has_failed_, true) &&
      logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) {
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
        << "Network changes are not published for now"
        << net::LogField("reason", std::string(status.message()));
  }
  retry_ = scheduler_.RunAfter(options_.retry, [this] {
    retry_ = nullptr;
    ListAgain();
  });
}

// The kernel's own memory answers, so this does not block.
bool NetworkWatcher::IsWireless(const std::string& interface_name) const {
  const std::string folder = absl::StrCat(options_.interfaces_folder, "/", interface_name);
  return ::access(absl::StrCat(folder, "/phy80211").c_str(), F_OK) == 0 ||
         ::access(absl::StrCat(folder, "/wireless").c_str(), F_OK) == 0;
}

}  // namespace varnic::host
