#include "tools/network_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace varnic::tools {
namespace {

using rpc::NetworkChanged;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(NetworkTextTest, PeopleReadOneLineWithEverything) {
  NetworkChanged event;
  event.mutable_profile_id()->set_value("P");
  event.set_online(true);
  event.set_connection_type(NetworkChanged::CELLULAR_4G);
  event.set_effective_type(NetworkChanged::SLOW_2G);
  event.set_max_downlink_mbps(2.5);
  auto& wlan = *event.add_interfaces();
  wlan.set_name("wlan0");
  wlan.set_connection_type(NetworkChanged::WIFI);
  wlan.set_up(true);
  wlan.add_addresses("192.0.2.7");
  wlan.add_addresses("2001:db8::7");
  event.add_interfaces()->set_name("eth0");

  const Happening happening = DescribeNetworkChange(event);

  EXPECT_EQ(happening.profile, "P");
  EXPECT_EQ(happening.for_people,
            "online   cellular 4g  slow 2g  2.5 Mbit/s   wlan0 wifi 192.0.2.7 2001:db8::7; eth0 "
            "unknown down");
}

TEST(NetworkTextTest, WhatTheHostDoesNotKnowIsSaid) {
  EXPECT_EQ(DescribeNetworkChange(NetworkChanged()).for_people, "offline  unknown      unknown  -");
}

TEST(NetworkTextTest, TypeOfANewerHostIsItsNumber) {
  NetworkChanged event;
  event.set_connection_type(static_cast<NetworkChanged::ConnectionType>(77));
  event.set_effective_type(NetworkChanged::EFFECTIVE_3G);

  EXPECT_EQ(DescribeNetworkChange(event).for_people, "offline  type 77      3g       -");
  EXPECT_EQ(DescribeNetworkChange(event).fields["change"]["connectionType"], 77);
}

TEST(NetworkTextTest, NamesOfInterfacesDoNothingToTheTerminal) {
  NetworkChanged event;
  event.add_interfaces()->set_name("\x1b[2J\nonline");
  event.mutable_interfaces(0)->add_addresses("\x07");

  const std::string text = DescribeNetworkChange(event).for_people;

  EXPECT_THAT(text, HasSubstr("\"\\x1b[2J\\nonline\" unknown \"\\x07\""));
  EXPECT_THAT(text, Not(HasSubstr("\x1b")));
}

TEST(NetworkTextTest, ProgramsGetTheWholeEvent) {
  NetworkChanged event;
  event.mutable_profile_id()->set_value("P");
  event.set_connection_type(NetworkChanged::WIFI);
  event.add_interfaces()->set_name("wlan0");

  const Happening happening = DescribeNetworkChange(event);

  EXPECT_EQ(happening.type, "network");
  const auto& change = happening.fields["change"];
  EXPECT_EQ(change["online"], false);
  EXPECT_EQ(change["connectionType"], "WIFI");
  EXPECT_EQ(change["effectiveType"], "EFFECTIVE_TYPE_UNKNOWN");
  EXPECT_EQ(change["interfaces"][0]["name"], "wlan0");
  EXPECT_FALSE(change.contains("profileId"));
}

}  // namespace
}  // namespace varnic::tools
