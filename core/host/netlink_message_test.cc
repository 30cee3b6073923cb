#include "core/host/netlink_message.h"

#include <linux/if_addr.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <vector>

#include "absl/strings/escaping.h"
#include "core/host/testing/netlink_bytes.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using testing::AddressHead;
using testing::BytesOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::LinkContent;
using testing::NetlinkAttribute;
using testing::NetlinkMessageBytes;
using testing::NetlinkNumber;
using testing::RouteHead;
using ::testing::SizeIs;

std::vector<NetlinkMessage> Parse(const std::string& bytes) {
  const auto messages = ParseNetlinkMessages(bytes);
  EXPECT_TRUE(messages.ok()) << messages.status();
  return messages.ok() ? *messages : std::vector<NetlinkMessage>();
}

// The record of the one message in `bytes`, or a default one if it is another kind.
template <typename Record>
Record ParseOne(const std::string& bytes) {
  const std::vector<NetlinkMessage> messages = Parse(bytes);
  EXPECT_THAT(messages, SizeIs(1));
  const auto* record = messages.empty() ? nullptr : std::get_if<Record>(&messages[0].record);
  EXPECT_NE(record, nullptr);
  return record == nullptr ? Record() : *record;
}

std::string ErrorOf(const std::string& bytes) {
  const absl::Status status = ParseNetlinkMessages(bytes).status();
  EXPECT_TRUE(absl::IsInvalidArgument(status)) << status;
  return std::string(status.message());
}

std::string Address(const ifaddrmsg& head, const std::string& attributes) {
  return NetlinkMessageBytes(RTM_NEWADDR, BytesOf(head) + attributes);
}

std::string Route(const rtmsg& head, const std::string& attributes) {
  return NetlinkMessageBytes(RTM_NEWROUTE, BytesOf(head) + attributes);
}

std::string Ipv4(unsigned char last) {
  return {10, 0, 0, static_cast<char>(last)};
}

rtnexthop Path(int interface_index) {
  rtnexthop path{};
  path.rtnh_len = sizeof(path);
  path.rtnh_ifindex = interface_index;
  return path;
}

TEST(NetlinkMessageTest, ReadsALink) {
  const std::string bytes =
      NetlinkMessageBytes(RTM_NEWLINK, LinkContent(7, ARPHRD_ETHER, IFF_UP | IFF_RUNNING, "eth0"));

  const auto link = ParseOne<LinkRecord>(bytes);

  EXPECT_EQ(link.index, 7);
  EXPECT_EQ(link.name, "eth0");
  EXPECT_EQ(link.type, ARPHRD_ETHER);
  EXPECT_EQ(link.flags, static_cast<unsigned>(IFF_UP | IFF_RUNNING));
}

// 192.0.2.2/24 on v0, and a default route by 192.0.2.1 with metric 100.
TEST(NetlinkMessageTest, ReadsWhatAKernelHasSent) {
  const auto address = ParseOne<AddressRecord>(absl::HexStringToBytes(
      "4c000000140002000100000000000000021880000300000008000100c000020208000200c0000202"
      "0700030076300000080008008000000014000600ffffffffffffffff918a2800918a2800"));
  const auto route = ParseOne<RouteRecord>(absl::HexStringToBytes(
      "3c00000018000200010000000000000002000000fe0300010000000008000f00fe00000008000600"
      "6400000008000500c00002010800040003000000"));

  EXPECT_EQ(address.interface_index, 3);
  EXPECT_EQ(address.text, "192.0.2.2");
  EXPECT_EQ(address.flags, static_cast<unsigned>(IFA_F_PERMANENT));
  EXPECT_EQ(route.family, AF_INET);
  EXPECT_EQ(route.type, RTN_UNICAST);
  EXPECT_EQ(route.destination_bits, 0);
  EXPECT_EQ(route.table, static_cast<unsigned>(RT_TABLE_MAIN));
  EXPECT_EQ(route.metric, 100u);
  EXPECT_THAT(route.interface_indices, ElementsAre(3));
}

TEST(NetlinkMessageTest, TakesTheLocalAddressOfALinkBetweenTwoPoints) {
  const std::string local = NetlinkAttribute(IFA_LOCAL, Ipv4(1));
  const std::string peer = NetlinkAttribute(IFA_ADDRESS, Ipv4(2));

  for (const std::string& attributes : {local + peer, peer + local}) {
    EXPECT_EQ(ParseOne<AddressRecord>(Address(AddressHead(AF_INET, 3), attributes)).text,
              "10.0.0.1");
  }
}

TEST(NetlinkMessageTest, ReadsAnIpv6AddressWithItsLongFlags) {
  const std::string bytes = Address(
      AddressHead(AF_INET6, 3),
      NetlinkAttribute(IFA_ADDRESS, std::string("\xfe\x80", 2) + std::string(13, '\0') + '\1') +
          NetlinkNumber<std::uint32_t>(IFA_FLAGS, IFA_F_MANAGETEMPADDR));

  const auto address = ParseOne<AddressRecord>(bytes);

  EXPECT_EQ(address.text, "fe80::1");
  EXPECT_EQ(address.flags, static_cast<unsigned>(IFA_F_MANAGETEMPADDR));
}

TEST(NetlinkMessageTest, ReadsARouteOfSeveralPathsAndItsLongTable) {
  const std::string bytes =
      Route(RouteHead(AF_INET6),
            NetlinkNumber<std::uint32_t>(RTA_TABLE, 51820) +
                NetlinkNumber<std::uint32_t>(RTA_PRIORITY, 1024) +
                NetlinkAttribute(RTA_MULTIPATH, BytesOf(Path(3)) + BytesOf(Path(5))));

  const auto route = ParseOne<RouteRecord>(bytes);

  EXPECT_EQ(route.table, 51820u);
  EXPECT_EQ(route.metric, 1024u);
  EXPECT_THAT(route.interface_indices, ElementsAre(3, 5));
}

TEST(NetlinkMessageTest, AddressOfZerosHasNoBytesAndIsNoError) {
  const std::vector<NetlinkMessage> messages =
      Parse(Address(AddressHead(AF_INET, 3), NetlinkAttribute(IFA_LABEL, "eth0")));

  ASSERT_THAT(messages, SizeIs(1));
  EXPECT_NE(std::get_if<OtherRecord>(&messages[0].record), nullptr);
}

TEST(NetlinkMessageTest, RoutesAndAddressesOfOtherFamiliesAreNoErrors) {
  const std::string odd = NetlinkNumber<std::uint8_t>(RTA_OIF, 1);

  const std::vector<NetlinkMessage> messages =
      Parse(Route(RouteHead(AF_MPLS), odd) + Address(AddressHead(AF_PHONET, 3), odd));

  ASSERT_THAT(messages, SizeIs(2));
  EXPECT_NE(std::get_if<RouteRecord>(&messages[0].record), nullptr);
  EXPECT_NE(std::get_if<OtherRecord>(&messages[1].record), nullptr);
}

TEST(NetlinkMessageTest, ListEndsWellOrWithTheKernelsError) {
  const std::string done = NetlinkMessageBytes(NLMSG_DONE, BytesOf(0));
  const std::string refused = NetlinkMessageBytes(NLMSG_ERROR, BytesOf(-EPERM) + "request");

  EXPECT_TRUE(ParseOne<ListEnd>(done).status.ok());
  EXPECT_TRUE(absl::IsPermissionDenied(ParseOne<ListEnd>(refused).status));
  for (const int odd : {EPERM, INT32_MIN}) {
    EXPECT_FALSE(ParseOne<ListEnd>(NetlinkMessageBytes(NLMSG_ERROR, BytesOf(odd))).status.ok());
  }
}

TEST(NetlinkMessageTest, TellsWhichListWasInterrupted) {
  const std::vector<NetlinkMessage> messages =
      Parse(NetlinkMessageBytes(NLMSG_NOOP, "", NLM_F_MULTI | NLM_F_DUMP_INTR, 2) +
            NetlinkMessageBytes(NLMSG_NOOP, "", NLM_F_MULTI, 3));

  ASSERT_THAT(messages, SizeIs(2));
  EXPECT_TRUE(messages[0].is_interrupted);
  EXPECT_EQ(messages[0].sequence, 2u);
  EXPECT_FALSE(messages[1].is_interrupted);
  EXPECT_EQ(messages[1].sequence, 3u);
}

TEST(NetlinkMessageTest, UnknownTypesAndAttributesArePassedOver) {
  const std::string link = LinkContent(7, ARPHRD_ETHER, 0, "eth0");

  EXPECT_NE(std::get_if<OtherRecord>(&Parse(NetlinkMessageBytes(0x7fff, "x"))[0].record), nullptr);
  EXPECT_EQ(ParseOne<LinkRecord>(
                NetlinkMessageBytes(RTM_NEWLINK, link + NetlinkAttribute(0x3ff, "unknown")))
                .name,
            "eth0");
}

TEST(NetlinkMessageTest, EmptyDatagramHasNoMessages) {
  EXPECT_THAT(Parse(""), IsEmpty());
}

TEST(NetlinkMessageTest, MessageThatIsCutAnywhereIsRefused) {
  const std::string bytes = Route(RouteHead(AF_INET), NetlinkNumber<std::uint32_t>(RTA_OIF, 3));

  for (std::size_t size = 1; size < bytes.size(); ++size) {
    EXPECT_THAT(ErrorOf(bytes.substr(0, size)), HasSubstr("a netlink message ")) << size;
  }
}

TEST(NetlinkMessageTest, LengthsThatLieAreRefused) {
  for (const std::uint32_t length : {0u, 15u, 17u, 0xffffffffu}) {
    nlmsghdr header{};
    header.nlmsg_len = length;
    EXPECT_THAT(ErrorOf(BytesOf(header)), HasSubstr("says that it has"));
  }
  for (const unsigned short length : {0, 3, 5, 0xffff}) {
    const std::string attribute = BytesOf(rtattr{length, RTA_OIF});
    EXPECT_THAT(ErrorOf(Route(RouteHead(AF_INET), attribute)), HasSubstr("has an attribute of"));
    rtnexthop path = Path(3);
    path.rtnh_len = length;
    EXPECT_THAT(ErrorOf(Route(RouteHead(AF_INET), NetlinkAttribute(RTA_MULTIPATH, BytesOf(path)))),
                HasSubstr("has a path of"));
  }
}

TEST(NetlinkMessageTest, ContentOfTheWrongSizeIsRefused) {
  EXPECT_THAT(ErrorOf(NetlinkMessageBytes(RTM_NEWLINK, "short")), HasSubstr("about a link has 5"));
  EXPECT_THAT(ErrorOf(NetlinkMessageBytes(RTM_NEWADDR, "short")), HasSubstr("an address has 5"));
  EXPECT_THAT(ErrorOf(NetlinkMessageBytes(RTM_NEWROUTE, "short")), HasSubstr("a route has 5"));
  EXPECT_THAT(ErrorOf(NetlinkMessageBytes(NLMSG_DONE, "?")), HasSubstr("does not say how"));
  EXPECT_THAT(ErrorOf(Route(RouteHead(AF_INET), NetlinkAttribute(RTA_PRIORITY, "12345"))),
              HasSubstr("a number of 5 bytes"));
  for (const std::string& bytes : {std::string("123"), std::string(16, 'x')}) {
    EXPECT_THAT(ErrorOf(Address(AddressHead(AF_INET, 3), NetlinkAttribute(IFA_ADDRESS, bytes))),
                HasSubstr("has an address of"));
  }
}

TEST(NetlinkMessageTest, LinksWithoutAPossibleIndexAndNameAreRefused) {
  const auto error_of = [](int index, const std::string& name) {
    return ErrorOf(NetlinkMessageBytes(RTM_NEWLINK, LinkContent(index, 0, 0, name)));
  };

  EXPECT_THAT(error_of(0, "eth0"), HasSubstr("no index"));
  EXPECT_THAT(error_of(-1, "eth0"), HasSubstr("no index"));
  for (const char* name : {"", ".", "..", "../eth0", "sixteen_letters_"}) {
    EXPECT_THAT(error_of(7, name), HasSubstr("no usable name")) << name;
  }
  EXPECT_THAT(ErrorOf(Address(AddressHead(AF_INET, 0), NetlinkAttribute(IFA_LOCAL, Ipv4(1)))),
              HasSubstr("names no link"));
}

}  // namespace
}  // namespace varnic::host
