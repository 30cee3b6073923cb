#include "core/host/netlink_message.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <type_traits>
#include <utility>

#include "absl/functional/function_ref.h"
#include "absl/strings/str_cat.h"

namespace varnic::host {
namespace {

absl::Status Malformed(const std::string& what) {
  return absl::InvalidArgumentError("a netlink message " + what);
}

// Takes bytes apart from front to end, and never reads past it.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : rest_(bytes) {}

  bool empty() const { return rest_.empty(); }

  // False, with `value` as it was, if there are too few bytes.
  template <typename T>
  [[nodiscard]] bool Peek(T& value) const {
    static_assert(std::is_trivially_copyable_v<T>);
    if (rest_.size() < sizeof(value)) return false;
    std::memcpy(&value, rest_.data(), sizeof(value));
    return true;
  }

  // What has the kernel's alignment of four bytes behind it, which the last one may lack.
  std::string_view TakeAligned(std::size_t size) {
    constexpr std::size_t kAlignment = 4;
    const std::string_view bytes = rest_.substr(0, size);
    const std::size_t aligned = (size + kAlignment - 1) / kAlignment * kAlignment;
    rest_.remove_prefix(aligned < rest_.size() ? aligned : rest_.size());
    return bytes;
  }

  std::size_t size() const { return rest_.size(); }

 private:
  std::string_view rest_;
};

// A number in the kernel's own byte order.
template <typename T>
std::optional<T> NumberIn(std::string_view bytes) {
  T number{};
  if (bytes.size() != sizeof(number)) return std::nullopt;
  std::memcpy(&number, bytes.data(), sizeof(number));
  return number;
}

// Runs `visit` for each attribute, until it fails.
absl::Status VisitAttributes(
    std::string_view bytes,
    absl::FunctionRef<absl::Status(std::uint16_t type, std::string_view content)> visit) {
  Reader reader(bytes);
  while (!reader.empty()) {
    rtattr header{};
    if (!reader.Peek(header)) return Malformed("ends within an attribute's header");
    if (header.rta_len < sizeof(header) || header.rta_len > reader.size()) {
      return Malformed(absl::StrCat("has an attribute of ", header.rta_len, " bytes where ",
                                    reader.size(), " are left"));
    }
    const std::string_view content = reader.TakeAligned(header.rta_len).substr(sizeof(header));
    const absl::Status status = visit(header.rta_type & NLA_TYPE_MASK, content);
    if (!status.ok()) return status;
  }
  return absl::OkStatus();
}

// Splits what a message contains into its fixed head and its attributes.
template <typename Head>
absl::StatusOr<std::string_view> SplitHead(std::string_view content, Head& head, const char* kind) {
  Reader reader(content);
  if (!reader.Peek(head)) {
    return Malformed(
        absl::StrCat("about ", kind, " has ", content.size(), " bytes, and not ", sizeof(head)));
  }
  reader.TakeAligned(sizeof(head));
  return content.substr(content.size() - reader.size());
}

bool IsInterfaceName(std::string_view name) {
  return !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos;
}

absl::StatusOr<LinkRecord> ParseLink(std::string_view content) {
  ifinfomsg head{};
  const auto attributes = SplitHead(content, head, "a link");
  if (!attributes.ok()) return attributes.status();
  LinkRecord link;
  link.index = head.ifi_index;
  link.type = head.ifi_type;
  link.flags = head.ifi_flags;
  const absl::Status status =
      VisitAttributes(*attributes, [&link](std::uint16_t type, std::string_view value) {
        if (type == IFLA_IFNAME) link.name = value.substr(0, value.find('\0'));
        return absl::OkStatus();
      });
  if (!status.ok()) return status;
  if (link.index <= 0) return Malformed("about a link has no index");
  if (!IsInterfaceName(link.name)) return Malformed("about a link has no usable name");
  return link;
}

// Nothing for bytes that are no address of the family.
std::optional<std::string> AddressText(int family, std::string_view bytes) {
  const std::size_t size = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  if (bytes.size() != size) return std::nullopt;
  char text[INET6_ADDRSTRLEN] = {};
  if (inet_ntop(family, bytes.data(), text, sizeof(text)) == nullptr) return std::nullopt;
  return text;
}

// Nothing for an address of a family that means nothing here, or for 0.0.0.0, which has no bytes.
absl::StatusOr<std::optional<AddressRecord>> ParseAddress(std::string_view content) {
  ifaddrmsg head{};
  const auto attributes = SplitHead(content, head, "an address");
  if (!attributes.ok()) return attributes.status();
  if (head.ifa_family != AF_INET && head.ifa_family != AF_INET6) return std::nullopt;
  AddressRecord address;
  address.interface_index = static_cast<int>(head.ifa_index);
  address.flags = head.ifa_flags;
  // On a link between two points, the address is the other end's, and the local one our own.
  std::string_view bytes;
  bool is_local = false;
  const absl::Status status =
      VisitAttributes(*attributes, [&](std::uint16_t type, std::string_view value) {
        if (type == IFA_LOCAL || (type == IFA_ADDRESS && !is_local)) bytes = value;
        if (type == IFA_LOCAL) is_local = true;
        if (type == IFA_FLAGS) {
          address.flags = NumberIn<std::uint32_t>(value).value_or(address.flags);
        }
        return absl::OkStatus();
      });
  if (!status.ok()) return status;
  if (address.interface_index <= 0) return Malformed("about an address names no link");
  if (bytes.empty()) return std::nullopt;
  const std::optional<std::string> text = AddressText(head.ifa_family, bytes);
  if (!text) return Malformed(absl::StrCat("has an address of ", bytes.size(), " bytes"));
  address.text = *text;
  return address;
}

absl::Status ParsePaths(std::string_view bytes, std::vector<int>& interface_indices) {
  Reader reader(bytes);
  while (!reader.empty()) {
    rtnexthop path{};
    if (!reader.Peek(path)) return Malformed("ends within a path's header");
    if (path.rtnh_len < sizeof(path) || path.rtnh_len > reader.size()) {
      return Malformed(absl::StrCat("has a path of ", path.rtnh_len, " bytes where ", reader.size(),
                                    " are left"));
    }
    interface_indices.push_back(path.rtnh_ifindex);
    reader.TakeAligned(path.rtnh_len);
  }
  return absl::OkStatus();
}

absl::Status TakeRouteAttribute(RouteRecord& route, std::uint16_t type, std::string_view value) {
  if (type == RTA_MULTIPATH) return ParsePaths(value, route.interface_indices);
  if (type != RTA_OIF && type != RTA_TABLE && type != RTA_PRIORITY) return absl::OkStatus();
  const std::optional<std::uint32_t> number = NumberIn<std::uint32_t>(value);
  if (!number) {
    return Malformed(absl::StrCat("about a route has a number of ", value.size(), " bytes"));
  }
  if (type == RTA_OIF) route.interface_indices.push_back(static_cast<int>(*number));
  if (type == RTA_TABLE) route.table = *number;
  if (type == RTA_PRIORITY) route.metric = *number;
  return absl::OkStatus();
}

absl::StatusOr<RouteRecord> ParseRoute(std::string_view content) {
  rtmsg head{};
  const auto attributes = SplitHead(content, head, "a route");
  if (!attributes.ok()) return attributes.status();
  RouteRecord route;
  route.family = head.rtm_family;
  route.type = head.rtm_type;
  route.destination_bits = head.rtm_dst_len;
  route.table = head.rtm_table;
  route.flags = head.rtm_flags;
  // The attributes of another family are its own.
  if (route.family != AF_INET && route.family != AF_INET6) return route;
  const absl::Status status =
      VisitAttributes(*attributes, [&route](std::uint16_t type, std::string_view value) {
        return TakeRouteAttribute(route, type, value);
      });
  if (!status.ok()) return status;
  return route;
}

// Of NLMSG_ERROR and NLMSG_DONE: a negative errno, or 0, comes first.
absl::StatusOr<ListEnd> ParseEnd(std::string_view content) {
  std::int32_t error = 0;
  if (!Reader(content).Peek(error)) return Malformed("that ends a list does not say how");
  if (error == 0) return ListEnd{absl::OkStatus()};
  return ListEnd{absl::ErrnoToStatus(error < 0 && error > INT32_MIN ? -error : EPROTO,
                                     "the kernel does not list it")};
}

template <typename Record>
absl::Status Store(const absl::StatusOr<Record>& record, NetlinkMessage& message) {
  if (!record.ok()) return record.status();
  message.record = *record;
  return absl::OkStatus();
}

absl::Status ParseRecord(std::string_view content, NetlinkMessage& message) {
  switch (message.type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return Store(ParseLink(content), message);
    case RTM_NEWADDR:
    case RTM_DELADDR: {
      const auto address = ParseAddress(content);
      if (address.ok() && *address) message.record = **address;
      return address.status();
    }
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      return Store(ParseRoute(content), message);
    case NLMSG_ERROR:
    case NLMSG_DONE:
      return Store(ParseEnd(content), message);
    default:
      return absl::OkStatus();
  }
}

}  // namespace

absl::StatusOr<std::vector<NetlinkMessage>> ParseNetlinkMessages(std::string_view datagram) {
  std::vector<NetlinkMessage> messages;
  Reader reader(datagram);
  while (!reader.empty()) {
    nlmsghdr header{};
    if (!reader.Peek(header)) return Malformed("ends within its header");
    if (header.nlmsg_len < sizeof(header) || header.nlmsg_len > reader.size()) {
      return Malformed(absl::StrCat("says that it has ", header.nlmsg_len, " bytes where ",
                                    reader.size(), " are left"));
    }
    NetlinkMessage message;
    message.type = header.nlmsg_type;
    message.sequence = header.nlmsg_seq;
    message.is_interrupted = (header.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    const std::string_view content = reader.TakeAligned(header.nlmsg_len).substr(sizeof(header));
    const absl::Status status = ParseRecord(content, message);
    if (!status.ok()) return status;
    messages.push_back(std::move(message));
  }
  return messages;
}

std::string NetlinkListRequest(std::uint16_t type, std::uint32_t sequence) {
  // The kernel takes this head, of no family, for every kind of list.
  struct {
    nlmsghdr header;
    rtgenmsg content;
  } request{};
  request.header.nlmsg_len = sizeof(nlmsghdr) + sizeof(rtgenmsg);
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = sequence;
  request.content.rtgen_family = AF_UNSPEC;
  return {reinterpret_cast<const char*>(&request), sizeof(request)};
}

}  // namespace varnic::host
