#ifndef CORE_HOST_TESTING_NETLINK_BYTES_H_
#define CORE_HOST_TESTING_NETLINK_BYTES_H_

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace varnic::host::testing {

// The bytes of a structure or of a number, as the kernel has them.
template <typename T>
std::string BytesOf(const T& value) {
  static_assert(std::is_trivially_copyable_v<T>);
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

inline void PadNetlink(std::string& bytes) {
  while (bytes.size() % NLMSG_ALIGNTO != 0) bytes.push_back('\0');
}

// An attribute, padded.
inline std::string NetlinkAttribute(std::uint16_t type, std::string_view content) {
  rtattr header{};
  header.rta_len = static_cast<std::uint16_t>(sizeof(header) + content.size());
  header.rta_type = type;
  std::string bytes = BytesOf(header).append(content);
  PadNetlink(bytes);
  return bytes;
}

template <typename T>
std::string NetlinkNumber(std::uint16_t type, T number) {
  return NetlinkAttribute(type, BytesOf(number));
}

// One message, padded.
inline std::string NetlinkMessageBytes(std::uint16_t type, std::string_view content,
                                       std::uint16_t flags = 0, std::uint32_t sequence = 0) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(sizeof(header) + content.size());
  header.nlmsg_type = type;
  header.nlmsg_flags = flags;
  header.nlmsg_seq = sequence;
  std::string bytes = BytesOf(header).append(content);
  PadNetlink(bytes);
  return bytes;
}

inline std::string LinkContent(int index, std::uint16_t type, std::uint32_t flags,
                               const std::string& name) {
  ifinfomsg head{};
  head.ifi_index = index;
  head.ifi_type = type;
  head.ifi_flags = flags;
  return BytesOf(head) + NetlinkAttribute(IFLA_IFNAME, name + '\0');
}

inline ifaddrmsg AddressHead(std::uint8_t family, std::uint32_t interface_index) {
  ifaddrmsg head{};
  head.ifa_family = family;
  head.ifa_index = interface_index;
  return head;
}

// A default route in the main table.
inline rtmsg RouteHead(std::uint8_t family) {
  rtmsg head{};
  head.rtm_family = family;
  head.rtm_table = RT_TABLE_MAIN;
  head.rtm_type = RTN_UNICAST;
  return head;
}

}  // namespace varnic::host::testing

#endif  // CORE_HOST_TESTING_NETLINK_BYTES_H_
