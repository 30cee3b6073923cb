#ifndef CORE_HOST_TESTING_OWN_NETWORK_H_
#define CORE_HOST_TESTING_OWN_NETWORK_H_

#include <arpa/inet.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <variant>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "core/host/netlink_message.h"
#include "core/host/netlink_socket.h"
#include "core/host/testing/netlink_bytes.h"
#include "gtest/gtest.h"

namespace varnic::host::testing {

// Takes the calling thread into a network of its own, that has nothing in it: an error where that
// is not permitted. For a test whose process has no other thread; there is no way back.
inline absl::Status EnterOwnNetwork() {
  if (::unshare(CLONE_NEWNET) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) {
    return absl::OkStatus();
  }
  return absl::ErrnoToStatus(errno, "no network namespace can be made here");
}

// Makes changes to the network that the thread is in. Each is done when its call returns.
class OwnNetwork {
 public:
  // Two interfaces with a cable between them; both are up.
  [[nodiscard]] static absl::Status AddCable(const std::string& name, const std::string& other) {
    const std::string peer = BytesOf(LinkHead(0, 0)) + Name(other);
    const std::string cable =
        NetlinkAttribute(IFLA_INFO_KIND, "veth") +
        NetlinkAttribute(IFLA_INFO_DATA, NetlinkAttribute(VETH_INFO_PEER, peer));
    absl::Status status =
        Change(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL,
               BytesOf(LinkHead(0, 0)) + Name(name) + NetlinkAttribute(IFLA_LINKINFO, cable));
    if (!status.ok()) return status;
    SetUp(other, true);
    SetUp(name, true);
    return absl::OkStatus();
  }
  static void Remove(const std::string& name) {
    EXPECT_TRUE(Change(RTM_DELLINK, 0, BytesOf(LinkHead(IndexOf(name), 0))).ok());
  }
  static void SetUp(const std::string& name, bool up) {
    EXPECT_TRUE(Change(RTM_NEWLINK, 0, BytesOf(LinkHead(IndexOf(name), up ? IFF_UP : 0))).ok());
  }

  static void AddAddress(const std::string& name, const char* address) {
    EXPECT_TRUE(Change(RTM_NEWADDR, NLM_F_CREATE, AddressContent(name, address)).ok());
  }
  static void RemoveAddress(const std::string& name, const char* address) {
    EXPECT_TRUE(Change(RTM_DELADDR, 0, AddressContent(name, address)).ok());
  }

  static void AddDefaultRoute(const std::string& name) {
    rtmsg head = RouteHead(AF_INET);
    head.rtm_scope = RT_SCOPE_LINK;
    head.rtm_protocol = RTPROT_STATIC;
    EXPECT_TRUE(
        Change(RTM_NEWROUTE, NLM_F_CREATE, BytesOf(head) + NetlinkNumber(RTA_OIF, IndexOf(name)))
            .ok());
  }

 private:
  static int IndexOf(const std::string& name) {
    const auto index = static_cast<int>(::if_nametoindex(name.c_str()));
    EXPECT_NE(index, 0) << name;
    return index;
  }

  static std::string Name(const std::string& name) {
    return NetlinkAttribute(IFLA_IFNAME, name + '\0');
  }

  static ifinfomsg LinkHead(int index, unsigned flags) {
    ifinfomsg head{};
    head.ifi_index = index;
    head.ifi_flags = flags;
    head.ifi_change = IFF_UP;
    return head;
  }

  static std::string AddressContent(const std::string& name, const char* address) {
    ifaddrmsg head = AddressHead(AF_INET, static_cast<std::uint32_t>(IndexOf(name)));
    head.ifa_prefixlen = 32;
    in_addr bytes{};
    EXPECT_EQ(::inet_pton(AF_INET, address, &bytes), 1);
    return BytesOf(head) + NetlinkAttribute(IFA_LOCAL, BytesOf(bytes));
  }

  static absl::Status Change(std::uint16_t type, int flags, const std::string& content) {
    absl::StatusOr<NetlinkSocket> socket = NetlinkSocket::Open(0);
    if (!socket.ok()) return socket.status();
    const auto all_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    absl::Status status = socket->Send(NetlinkMessageBytes(type, content, all_flags));
    if (!status.ok()) return status;
    // The kernel has answered already; who knows.
    pollfd readable{socket->fd(), POLLIN, 0};
    if (::poll(&readable, 1, -1) != 1) return absl::InternalError("nothing to read");
    const auto answer = socket->Receive();
    if (!answer.ok()) return answer.status();
    const auto messages = ParseNetlinkMessages(answer->value_or(""));
    if (!messages.ok()) return messages.status();
    if (messages->empty()) return absl::InternalError("no answer");
    const auto* end = std::get_if<ListEnd>(&messages->front().record);
    return end == nullptr ? absl::InternalError("another answer") : end->status;
  }
};

}  // namespace varnic::host::testing

#endif  // CORE_HOST_TESTING_OWN_NETWORK_H_
