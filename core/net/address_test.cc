#include "core/net/address.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"

namespace varnic::net {
namespace {

using ::testing::HasSubstr;

Address UnixAddress(std::string path) {
  Address address;
  address.kind = Address::Kind::kUnix;
  address.path = std::move(path);
  return address;
}

Address TcpAddress(std::string host, uint16_t port) {
  Address address;
  address.host = std::move(host);
  address.port = port;
  return address;
}

void ExpectParses(std::string_view text, const Address& expected) {
  const absl::StatusOr<Address> address = Address::Parse(text);

  ASSERT_TRUE(address.ok()) << address.status();
  EXPECT_EQ(*address, expected) << address->ToString();
}

void ExpectRefused(std::string_view text, const std::string& problem) {
  const absl::Status status = Address::Parse(text).status();

  EXPECT_EQ(status.code(), absl::StatusCode::kInvalidArgument) << '"' << text << '"';
  EXPECT_THAT(std::string(status.message()), HasSubstr(problem));
}

TEST(AddressTest, UnixPathsAreParsed) {
  ExpectParses("unix:host.sock", UnixAddress("host.sock"));
  ExpectParses("unix:../a b/\xC3\xBC.sock", UnixAddress("../a b/\xC3\xBC.sock"));
  ExpectParses("unix:/run/host.sock", UnixAddress("/run/host.sock"));
  ExpectParses("unix:///run/host.sock", UnixAddress("/run/host.sock"));
  ExpectParses("unix:////run/host.sock", UnixAddress("//run/host.sock"));
  ExpectParses("unix:localhost:80", UnixAddress("localhost:80"));
}

TEST(AddressTest, HostsAndPortsAreParsed) {
  ExpectParses("127.0.0.1:50051", TcpAddress("127.0.0.1", 50051));
  ExpectParses("localhost:0", TcpAddress("localhost", 0));
  ExpectParses("my-host_1.example.:65535", TcpAddress("my-host_1.example.", 65535));
  ExpectParses("[::1]:50051", TcpAddress("::1", 50051));
  ExpectParses("[::ffff:10.0.0.1]:1", TcpAddress("::ffff:10.0.0.1", 1));
}

TEST(AddressTest, TheTextOfAnAddressParsesBack) {
  for (const std::string_view text :
       {"unix:a", "unix:./a", "unix:@a", "unix:/a", "unix:///a", "unix:////a", "unix:/a//b",
        "127.0.0.1:80", "localhost:0", "[::1]:50051", "[2001:db8::1]:1"}) {
    const absl::StatusOr<Address> address = Address::Parse(text);
    ASSERT_TRUE(address.ok()) << address.status();

    ExpectParses(address->ToString(), *address);
  }
}

TEST(AddressTest, TheTextIsTheUsualForm) {
  EXPECT_EQ(UnixAddress("/run/host.sock").ToString(), "unix:///run/host.sock");
  EXPECT_EQ(UnixAddress("host.sock").ToString(), "unix:host.sock");
  EXPECT_EQ(TcpAddress("localhost", 80).ToString(), "localhost:80");
  EXPECT_EQ(TcpAddress("::1", 80).ToString(), "[::1]:80");
}

TEST(AddressTest, ThePathMayFillTheKernelsFieldAndNoMore) {
  const std::string longest = "/" + std::string(106, 'x');

  ExpectParses("unix:" + longest, UnixAddress(longest));
  ExpectParses("unix://" + longest, UnixAddress(longest));
  ExpectRefused("unix:" + longest + "x", "the path has 108 bytes");
  ExpectRefused("unix://" + longest + "x", "at most 107");
}

TEST(AddressTest, BadUnixPathsAreRefused) {
  ExpectRefused("unix:", "the path is empty");
  ExpectRefused("unix://", "absolute");
  ExpectRefused("unix://host/path", "absolute");
}

TEST(AddressTest, MissingPartsAreRefusedWithTheExpectedForms) {
  ExpectRefused("", "expected unix:PATH");
  ExpectRefused("localhost", "the port is missing");
  ExpectRefused("[::1]", "the port is missing");
  ExpectRefused("/run/host.sock", "the port is missing");
  ExpectRefused(":80", "the host is missing");
  ExpectRefused(":", "the host is missing");
}

TEST(AddressTest, BadPortsAreRefused) {
  for (const std::string_view text :
       {"localhost:", "localhost:x", "localhost:80x", "localhost: 80", "localhost:-1",
        "localhost:+1", "localhost:65536", "[::1]:", "[::1]:99999999999999999999"}) {
    ExpectRefused(text, "the port is not a number from 0 to 65535");
  }
}

TEST(AddressTest, BadHostsAreRefused) {
  ExpectRefused("::1:80", "brackets");
  ExpectRefused("a:b:80", "more than one colon");
  ExpectRefused("http://localhost:80", "more than one colon");
  ExpectRefused("[]:80", "not an IPv6 address");
  ExpectRefused("[127.0.0.1]:80", "not an IPv6 address");
  ExpectRefused("[::g]:80", "not an IPv6 address");
  ExpectRefused("[::1:80", "brackets");
  ExpectRefused("::1]:80", "brackets");
  ExpectRefused("[:80", "neither a name nor an address");
  ExpectRefused("]:80", "neither a name nor an address");
  ExpectRefused("256.0.0.1:80", "not a valid IPv4 address");
  ExpectRefused("127.1:80", "not a valid IPv4 address");
  ExpectRefused("local host:80", "neither a name nor an address");
  ExpectRefused("host/path:80", "neither a name nor an address");
}

TEST(AddressTest, ANulByteIsRefusedAndShownEscaped) {
  ExpectRefused(std::string_view("unix:/tmp/a\0x", 13), "\"unix:/tmp/a\\x00x\": contains a NUL");
  ExpectRefused(std::string_view("localhost\0:80", 13), "contains a NUL byte");
  ExpectRefused(std::string_view("[::1\0]:80", 9), "contains a NUL byte");
}

TEST(AddressTest, NumericLoopbackAndLocalhostAreLoopback) {
  for (const char* host :
       {"127.0.0.1", "127.255.0.3", "::1", "0:0:0:0:0:0:0:1", "::ffff:127.0.0.1", "LocalHost"}) {
    EXPECT_TRUE(TcpAddress(host, 80).IsLoopback()) << host;
  }
}

TEST(AddressTest, EverythingElseIsNotLoopback) {
  for (const char* host : {"0.0.0.0", "128.0.0.1", "10.0.0.127", "::", "::2", "::ffff:10.0.0.1",
                           "localhost.example", "127.0.0.1.example", "127", ""}) {
    EXPECT_FALSE(TcpAddress(host, 80).IsLoopback()) << host;
  }
  EXPECT_FALSE(UnixAddress("localhost").IsLoopback());
}

}  // namespace
}  // namespace varnic::net
