// What the kernel says of its network: any datagram is read or refused, and what was read makes a
// state that every client can read.

#include <algorithm>
#include <string>
#include <string_view>
#include <variant>

#include "core/common/rpc/fatal.h"
#include "core/host/netlink_message.h"
#include "core/host/network_snapshot.h"

namespace varnic::host {
namespace {

bool IsPlainText(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

void CheckLink(const LinkRecord& link) {
  VARNIC_CHECK(link.index > 0);
  // It becomes part of a path.
  VARNIC_CHECK(!link.name.empty() && link.name.size() < 16);
  VARNIC_CHECK(link.name.find('/') == std::string::npos && link.name != "..");
}

void CheckAddress(const AddressRecord& address) {
  VARNIC_CHECK(address.interface_index > 0);
  VARNIC_CHECK(!address.text.empty() && IsPlainText(address.text));
}

void AddTo(NetworkSnapshot& snapshot, const NetlinkMessage& message) {
  if (const auto* link = std::get_if<LinkRecord>(&message.record)) {
    CheckLink(*link);
    snapshot.Add(*link);
  } else if (const auto* address = std::get_if<AddressRecord>(&message.record)) {
    CheckAddress(*address);
    snapshot.Add(*address);
  } else if (const auto* route = std::get_if<RouteRecord>(&message.record)) {
    snapshot.Add(*route);
  }
}

void CheckState(const rpc::NetworkChanged& state) {
  VARNIC_CHECK(state.online() == (state.connection_type() != rpc::NetworkChanged::NONE));
  VARNIC_CHECK(static_cast<std::size_t>(state.interfaces_size()) <=
               NetworkSnapshot::kMaxInterfaces);
  for (const auto& interface : state.interfaces()) {
    VARNIC_CHECK(!interface.name().empty() && IsPlainText(interface.name()));
    VARNIC_CHECK(static_cast<std::size_t>(interface.addresses_size()) <=
                 NetworkSnapshot::kMaxAddresses);
  }
}

void Check(std::string_view datagram) {
  const auto messages = ParseNetlinkMessages(datagram);
  if (!messages.ok()) {
    VARNIC_CHECK(messages.status().code() == absl::StatusCode::kInvalidArgument);
    VARNIC_CHECK(!messages.status().message().empty());
    return;
  }
  VARNIC_CHECK(messages->size() <= datagram.size() / 16);
  NetworkSnapshot snapshot;
  for (const NetlinkMessage& message : *messages) AddTo(snapshot, message);
  CheckState(snapshot.Describe([](const std::string& name) { return name.front() == 'w'; }));
}

}  // namespace
}  // namespace varnic::host

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::host::Check({reinterpret_cast<const char*>(data), size});
  return 0;
}
