#ifndef CORE_HOST_NETLINK_MESSAGE_H_
#define CORE_HOST_NETLINK_MESSAGE_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"

namespace varnic::host {

// A network interface, as the kernel lists it.
struct LinkRecord {
  int index = 0;            // Positive.
  std::string name;         // Up to 15 bytes, of any kind but '/' and 0, and neither "." nor "..".
  std::uint16_t type = 0;   // ARPHRD_...
  std::uint32_t flags = 0;  // IFF_...
};

// An address of an interface.
struct AddressRecord {
  int interface_index = 0;
  std::string text;         // As inet_ntop() writes it.
  std::uint32_t flags = 0;  // IFA_F_...
};

// A route, to wherever.
struct RouteRecord {
  std::uint8_t family = 0;            // AF_INET, AF_INET6, or one that means nothing here.
  std::uint8_t type = 0;              // RTN_...
  std::uint8_t destination_bits = 0;  // 0 for a default route.
  std::uint32_t table = 0;            // RT_TABLE_...
  std::uint32_t flags = 0;            // RTM_F_...
  std::uint32_t metric = 0;
  // More than one for a route of several paths, none if the kernel does not name it.
  std::vector<int> interface_indices;
};

// The end of a list that was asked for: OK, or why there is none.
struct ListEnd {
  absl::Status status;
};

// Anything else.
struct OtherRecord {};

struct NetlinkMessage {
  std::uint16_t type = 0;  // RTM_... or NLMSG_...
  std::uint32_t sequence = 0;
  // The list to which this belongs has changed while it was made, and may lack something.
  bool is_interrupted = false;
  std::variant<OtherRecord, LinkRecord, AddressRecord, RouteRecord, ListEnd> record;
};

// The messages of one datagram of the kernel's NETLINK_ROUTE family: one that announces a change
// has the record that is new, or gone. Bytes that are no such messages are INVALID_ARGUMENT, with a
// text that says what is wrong; a type or an attribute that is not known here is passed over.
absl::StatusOr<std::vector<NetlinkMessage>> ParseNetlinkMessages(std::string_view datagram);

// A message that asks for the list of what `type` names: RTM_GETLINK, RTM_GETADDR or RTM_GETROUTE.
std::string NetlinkListRequest(std::uint16_t type, std::uint32_t sequence);

}  // namespace varnic::host

#endif  // CORE_HOST_NETLINK_MESSAGE_H_
