#ifndef CORE_HOST_NETWORK_SNAPSHOT_H_
#define CORE_HOST_NETWORK_SNAPSHOT_H_

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "absl/functional/function_ref.h"
#include "core/host/netlink_message.h"
#include "rpc/profile/profile.pb.h"

namespace varnic::host {

// What the kernel lists of the machine's network at one time, and what it means to a client.
class NetworkSnapshot {
 public:
  // More are left out of what is told: interfaces with the highest indices, addresses of one
  // interface that come last in the order of their text.
  static constexpr std::size_t kMaxInterfaces = 256;
  static constexpr std::size_t kMaxAddresses = 64;

  void Add(const LinkRecord& link);
  void Add(const AddressRecord& address);
  void Add(const RouteRecord& route);

  // The state that is published, without its key; two of the same content are equal byte by byte.
  //
  //  - Online: a default route, in any table but the local one, leads to an interface that is up.
  //  - The connection's type is that of the best such route's interface (the main table comes
  //    first, then IPv4, then the lower metric), and NONE without one.
  //  - Interfaces are all but loopback, by index, with the addresses that are in use, as sorted
  //    texts. One is up that is switched on and has a carrier.
  //  - An interface that looks like Ethernet is WIFI if `is_wireless` says so of its name, and else
  //    ETHERNET, also a virtual one. Anything else is CONNECTION_TYPE_UNKNOWN.
  //  - Of a name, what is not printable ASCII is escaped as in C.
  //
  // The kernel knows no effective type and no downlink: both stay unset.
  rpc::NetworkChanged Describe(
      absl::FunctionRef<bool(const std::string& interface_name)> is_wireless) const;

 private:
  // A default route whose interface is up, null if the kernel does not name it.
  struct Way {
    const RouteRecord* route = nullptr;
    const LinkRecord* link = nullptr;
  };

  // False if `route` leads nowhere now.
  bool FindWay(const RouteRecord& route, Way& way) const;
  // The route is null when there is none.
  Way BestWay() const;
  void AddAddresses(int index, rpc::NetworkChanged::Interface& interface) const;

  std::map<int, LinkRecord> links_;                 // By index.
  std::map<int, std::set<std::string>> addresses_;  // By the interface's index.
  std::vector<RouteRecord> default_routes_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_NETWORK_SNAPSHOT_H_
