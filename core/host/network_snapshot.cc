#include "core/host/network_snapshot.h"

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <tuple>

#include "absl/strings/escaping.h"

namespace varnic::host {
namespace {

using rpc::NetworkChanged;

bool IsUp(const LinkRecord& link) {
  return (link.flags & IFF_UP) != 0 && (link.flags & IFF_RUNNING) != 0;
}

bool IsLoopback(const LinkRecord& link) {
  return (link.flags & IFF_LOOPBACK) != 0;
}

// One that the kernel still checks for being somebody else's is not in use, nor is one that was.
bool IsInUse(const AddressRecord& address) {
  return (address.flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0;
}

bool IsDefaultRoute(const RouteRecord& route) {
  return (route.family == AF_INET || route.family == AF_INET6) && route.type == RTN_UNICAST &&
         route.destination_bits == 0 && route.table != RT_TABLE_LOCAL &&
         (route.flags & RTM_F_CLONED) == 0;
}

// Lower is better.
auto RankOf(const RouteRecord& route) {
  return std::make_tuple(route.table != RT_TABLE_MAIN, route.family != AF_INET, route.metric);
}

NetworkChanged::ConnectionType TypeOf(const LinkRecord& link,
                                      absl::FunctionRef<bool(const std::string&)> is_wireless) {
  switch (link.type) {
    case ARPHRD_ETHER:
      return is_wireless(link.name) ? NetworkChanged::WIFI : NetworkChanged::ETHERNET;
    case ARPHRD_IEEE80211:
      return NetworkChanged::WIFI;
    default:
      return NetworkChanged::CONNECTION_TYPE_UNKNOWN;
  }
}

}  // namespace

void NetworkSnapshot::Add(const LinkRecord& link) {
  links_[link.index] = link;
}

void NetworkSnapshot::Add(const AddressRecord& address) {
  if (IsInUse(address)) addresses_[address.interface_index].insert(address.text);
}

void NetworkSnapshot::Add(const RouteRecord& route) {
  if (IsDefaultRoute(route)) default_routes_.push_back(route);
}

bool NetworkSnapshot::FindWay(const RouteRecord& route, Way& way) const {
  way = {&route, nullptr};
  if (route.interface_indices.empty()) return true;
  for (const int index : route.interface_indices) {
    const auto link = links_.find(index);
    if (link == links_.end() || !IsUp(link->second) || IsLoopback(link->second)) continue;
    way.link = &link->second;
    return true;
  }
  return false;
}

NetworkSnapshot::Way NetworkSnapshot::BestWay() const {
  Way best;
  for (const RouteRecord& route : default_routes_) {
    Way way;
    if (!FindWay(route, way)) continue;
    if (best.route == nullptr || RankOf(route) < RankOf(*best.route)) best = way;
  }
  return best;
}

NetworkChanged NetworkSnapshot::Describe(
    absl::FunctionRef<bool(const std::string&)> is_wireless) const {
  NetworkChanged state;
  const Way way = BestWay();
  state.set_online(way.route != nullptr);
  if (way.route == nullptr) state.set_connection_type(NetworkChanged::NONE);
  if (way.link != nullptr) state.set_connection_type(TypeOf(*way.link, is_wireless));
  for (const auto& [index, link] : links_) {
    if (IsLoopback(link)) continue;
    if (static_cast<std::size_t>(state.interfaces_size()) == kMaxInterfaces) break;
    NetworkChanged::Interface& interface = *state.add_interfaces();
    interface.set_name(absl::CHexEscape(link.name));
    interface.set_up(IsUp(link));
    interface.set_connection_type(TypeOf(link, is_wireless));
    AddAddresses(index, interface);
  }
  return state;
}

void NetworkSnapshot::AddAddresses(int index, NetworkChanged::Interface& interface) const {
  const auto addresses = addresses_.find(index);
  if (addresses == addresses_.end()) return;
  for (const std::string& address : addresses->second) {
    if (static_cast<std::size_t>(interface.addresses_size()) == kMaxAddresses) return;
    interface.add_addresses(address);
  }
}

}  // namespace varnic::host
