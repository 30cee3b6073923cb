#include "core/host/network_snapshot.h"

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using rpc::NetworkChanged;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t kUp = IFF_UP | IFF_RUNNING;

LinkRecord Link(int index, std::string name, std::uint32_t flags = kUp,
                std::uint16_t type = ARPHRD_ETHER) {
  return {index, std::move(name), type, flags};
}

RouteRecord DefaultRoute(int interface_index, std::uint8_t family = AF_INET) {
  RouteRecord route;
  route.family = family;
  route.type = RTN_UNICAST;
  route.table = RT_TABLE_MAIN;
  route.interface_indices = {interface_index};
  return route;
}

// Where interfaces are wireless whose name begins so.
NetworkChanged Describe(const NetworkSnapshot& snapshot) {
  return snapshot.Describe([](const std::string& name) { return name.rfind("wl", 0) == 0; });
}

// A machine that has all of `links`, and nothing but `route`.
NetworkChanged DescribeWith(const std::vector<LinkRecord>& links, const RouteRecord& route) {
  NetworkSnapshot snapshot;
  for (const LinkRecord& link : links) snapshot.Add(link);
  snapshot.Add(route);
  return Describe(snapshot);
}

std::vector<std::string> NamesOf(const NetworkChanged& state) {
  std::vector<std::string> names;
  for (const auto& interface : state.interfaces()) names.push_back(interface.name());
  return names;
}

TEST(NetworkSnapshotTest, MachineWithoutAnythingIsOffline) {
  const NetworkChanged state = Describe(NetworkSnapshot());

  EXPECT_FALSE(state.online());
  EXPECT_EQ(state.connection_type(), NetworkChanged::NONE);
  EXPECT_THAT(NamesOf(state), IsEmpty());
}

TEST(NetworkSnapshotTest, DefaultRouteOverAnInterfaceThatIsUpIsOnline) {
  for (const std::uint8_t family : {AF_INET, AF_INET6}) {
    const NetworkChanged state = DescribeWith({Link(2, "eth0")}, DefaultRoute(2, family));

    EXPECT_TRUE(state.online());
    EXPECT_EQ(state.connection_type(), NetworkChanged::ETHERNET);
  }
}

TEST(NetworkSnapshotTest, DefaultRouteThatLeadsNowhereIsOffline) {
  const LinkRecord loopback = Link(1, "lo", kUp | IFF_LOOPBACK, ARPHRD_LOOPBACK);
  const LinkRecord unplugged = Link(2, "eth0", IFF_UP);
  const LinkRecord switched_off = Link(3, "eth1", 0);

  for (const int index : {1, 2, 3, 4}) {
    const NetworkChanged state =
        DescribeWith({loopback, unplugged, switched_off}, DefaultRoute(index));
    EXPECT_FALSE(state.online()) << index;
    EXPECT_EQ(state.connection_type(), NetworkChanged::NONE) << index;
  }
}

TEST(NetworkSnapshotTest, OtherRoutesDoNotCount) {
  RouteRecord to_a_network = DefaultRoute(2);
  to_a_network.destination_bits = 1;
  RouteRecord unreachable = DefaultRoute(2);
  unreachable.type = RTN_UNREACHABLE;
  RouteRecord local = DefaultRoute(2);
  local.table = RT_TABLE_LOCAL;
  RouteRecord copy_of_another = DefaultRoute(2);
  copy_of_another.flags = RTM_F_CLONED;
  const RouteRecord of_another_family = DefaultRoute(2, AF_MPLS);

  for (const RouteRecord& route :
       {to_a_network, unreachable, local, copy_of_another, of_another_family}) {
    EXPECT_FALSE(DescribeWith({Link(2, "eth0")}, route).online());
  }
}

TEST(NetworkSnapshotTest, TypeIsThatOfTheBestRoutesInterface) {
  NetworkSnapshot snapshot;
  snapshot.Add(Link(2, "eth0"));
  snapshot.Add(Link(3, "wlan0"));
  snapshot.Add(Link(4, "wg0", kUp, ARPHRD_NONE));

  RouteRecord route = DefaultRoute(4);
  route.table = 51820;  // A better metric in another table.
  snapshot.Add(route);
  EXPECT_EQ(Describe(snapshot).connection_type(), NetworkChanged::CONNECTION_TYPE_UNKNOWN);
  route = DefaultRoute(2, AF_INET6);
  snapshot.Add(route);
  EXPECT_EQ(Describe(snapshot).connection_type(), NetworkChanged::ETHERNET);
  route = DefaultRoute(3);
  route.metric = 600;
  snapshot.Add(route);
  EXPECT_EQ(Describe(snapshot).connection_type(), NetworkChanged::WIFI);
  route = DefaultRoute(2);
  route.metric = 100;
  snapshot.Add(route);
  EXPECT_EQ(Describe(snapshot).connection_type(), NetworkChanged::ETHERNET);
}

TEST(NetworkSnapshotTest, RouteOfSeveralPathsLeadsOverTheFirstThatIsUp) {
  RouteRecord route = DefaultRoute(2);
  route.interface_indices = {2, 3};

  const NetworkChanged state = DescribeWith({Link(2, "eth0", IFF_UP), Link(3, "wlan0")}, route);

  EXPECT_TRUE(state.online());
  EXPECT_EQ(state.connection_type(), NetworkChanged::WIFI);
}

TEST(NetworkSnapshotTest, RouteWhoseInterfaceIsNotNamedIsOnlineOfUnknownType) {
  RouteRecord route = DefaultRoute(2);
  route.interface_indices = {};

  const NetworkChanged state = DescribeWith({Link(2, "eth0")}, route);

  EXPECT_TRUE(state.online());
  EXPECT_EQ(state.connection_type(), NetworkChanged::CONNECTION_TYPE_UNKNOWN);
}

TEST(NetworkSnapshotTest, InterfacesComeInOrderWithTheirAddressesAndTypes) {
  NetworkSnapshot snapshot;
  snapshot.Add(Link(9, "wlan0"));
  snapshot.Add(Link(1, "lo", kUp | IFF_LOOPBACK, ARPHRD_LOOPBACK));
  snapshot.Add(Link(2, "eth0", IFF_UP));
  snapshot.Add(Link(3, "mon0", kUp, ARPHRD_IEEE80211));
  snapshot.Add(Link(4, "tun0", kUp, ARPHRD_NONE));
  snapshot.Add(AddressRecord{2, "fe80::1", IFA_F_PERMANENT});
  snapshot.Add(AddressRecord{2, "10.0.0.1", 0});
  snapshot.Add(AddressRecord{1, "127.0.0.1", 0});
  snapshot.Add(AddressRecord{77, "10.0.0.77", 0});

  const NetworkChanged state = Describe(snapshot);

  EXPECT_THAT(NamesOf(state), ElementsAre("eth0", "mon0", "tun0", "wlan0"));
  EXPECT_THAT(state.interfaces(0).addresses(), ElementsAre("10.0.0.1", "fe80::1"));
  EXPECT_FALSE(state.interfaces(0).up());
  EXPECT_EQ(state.interfaces(0).connection_type(), NetworkChanged::ETHERNET);
  EXPECT_EQ(state.interfaces(1).connection_type(), NetworkChanged::WIFI);
  EXPECT_EQ(state.interfaces(2).connection_type(), NetworkChanged::CONNECTION_TYPE_UNKNOWN);
  EXPECT_TRUE(state.interfaces(3).up());
  EXPECT_EQ(state.interfaces(3).connection_type(), NetworkChanged::WIFI);
  EXPECT_THAT(state.interfaces(3).addresses(), IsEmpty());
}

TEST(NetworkSnapshotTest, OrderOfTheListsDoesNotMatter) {
  NetworkSnapshot one, other;
  one.Add(Link(2, "eth0"));
  one.Add(Link(3, "eth1"));
  one.Add(AddressRecord{2, "10.0.0.1", 0});
  one.Add(AddressRecord{2, "10.0.0.2", 0});
  one.Add(DefaultRoute(2));
  other.Add(DefaultRoute(2));
  other.Add(AddressRecord{2, "10.0.0.2", 0});
  other.Add(AddressRecord{2, "10.0.0.1", 0});
  other.Add(Link(3, "eth1"));
  other.Add(Link(2, "eth0"));

  EXPECT_EQ(Describe(one).SerializeAsString(), Describe(other).SerializeAsString());
}

TEST(NetworkSnapshotTest, AddressesThatAreNotInUseAreLeftOut) {
  NetworkSnapshot snapshot;
  snapshot.Add(Link(2, "eth0"));
  snapshot.Add(AddressRecord{2, "fe80::1", IFA_F_TENTATIVE | IFA_F_PERMANENT});
  snapshot.Add(AddressRecord{2, "fe80::2", IFA_F_DADFAILED});
  snapshot.Add(AddressRecord{2, "fe80::3", IFA_F_DEPRECATED});

  EXPECT_THAT(Describe(snapshot).interfaces(0).addresses(), ElementsAre("fe80::3"));
}

TEST(NetworkSnapshotTest, NamesThatAreNoTextAreEscaped) {
  NetworkSnapshot snapshot;
  snapshot.Add(Link(2, "\xff\xfe\n"));

  EXPECT_THAT(NamesOf(Describe(snapshot)), ElementsAre("\\xff\\xfe\\n"));
}

TEST(NetworkSnapshotTest, MoreThanAClientCanUseIsLeftOut) {
  NetworkSnapshot snapshot;
  for (int index = 2; index < 1000; ++index) {
    snapshot.Add(Link(index, absl::StrCat("veth", index)));
    snapshot.Add(AddressRecord{2, absl::StrCat("10.0.0.", index), 0});
  }
  snapshot.Add(DefaultRoute(999));

  const NetworkChanged state = Describe(snapshot);

  EXPECT_TRUE(state.online());
  EXPECT_EQ(state.interfaces_size(), static_cast<int>(NetworkSnapshot::kMaxInterfaces));
  EXPECT_EQ(state.interfaces(0).addresses_size(), static_cast<int>(NetworkSnapshot::kMaxAddresses));
}

TEST(NetworkSnapshotTest, WhatTheKernelDoesNotKnowStaysUnset) {
  const NetworkChanged state = DescribeWith({Link(2, "eth0")}, DefaultRoute(2));

  EXPECT_FALSE(state.has_profile_id());
  EXPECT_EQ(state.effective_type(), NetworkChanged::EFFECTIVE_TYPE_UNKNOWN);
  EXPECT_EQ(state.max_downlink_mbps(), 0);
}

}  // namespace
}  // namespace varnic::host
