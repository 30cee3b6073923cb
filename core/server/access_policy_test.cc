#include "core/server/access_policy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"

namespace varnic {
namespace {

using ::testing::HasSubstr;

net::CertificateIdentity WithUri(const std::string& uri) {
  net::CertificateIdentity certificate;
  certificate.uris = {uri};
  return certificate;
}
net::CertificateIdentity WithDns(const std::string& name) {
  net::CertificateIdentity certificate;
  certificate.dns_names = {name};
  return certificate;
}
net::CertificateIdentity WithEmail(const std::string& email) {
  net::CertificateIdentity certificate;
  certificate.emails = {email};
  return certificate;
}

bool Matches(const std::string& pattern, const net::CertificateIdentity& certificate) {
  const auto parsed = SanPattern::Parse(pattern);
  EXPECT_TRUE(parsed.ok()) << parsed.status();
  return parsed.ok() && parsed->Matches(certificate);
}

TEST(SanPatternTest, UriIsThatUri) {
  const std::string pattern = "URI:spiffe://example.org/reader";

  EXPECT_TRUE(Matches(pattern, WithUri("spiffe://example.org/reader")));
  EXPECT_FALSE(Matches(pattern, WithUri("spiffe://example.org/reader/")));
  EXPECT_FALSE(Matches(pattern, WithUri("spiffe://example.org/Reader")));
  EXPECT_FALSE(Matches(pattern, WithUri("spiffe://example.org/readers")));
  EXPECT_FALSE(Matches(pattern, WithDns("spiffe://example.org/reader")));
}

TEST(SanPatternTest, WildcardInAUriIsOneSegment) {
  const std::string pattern = "URI:spiffe://example.org/hosts/*";

  EXPECT_TRUE(Matches(pattern, WithUri("spiffe://example.org/hosts/a-1.b_2~")));
  for (const char* uri : {"spiffe://example.org/hosts/", "spiffe://example.org/hosts",
                          "spiffe://example.org/hosts/a/b", "spiffe://example.org/hosts/..",
                          "spiffe://example.org/hosts/.", "spiffe://example.org/hosts/a?b",
                          "spiffe://example.org/hosts/a%2fb", "spiffe://example.org/hosts/*",
                          "spiffe://example.com/hosts/a", "xspiffe://example.org/hosts/a"}) {
    EXPECT_FALSE(Matches(pattern, WithUri(uri))) << uri;
  }
}

TEST(SanPatternTest, DnsNameIsThatNameInAnyCase) {
  EXPECT_TRUE(Matches("DNS:Reader.example.org", WithDns("READER.Example.org")));
  EXPECT_FALSE(Matches("DNS:reader.example.org", WithDns("a.reader.example.org")));
  EXPECT_FALSE(Matches("DNS:reader.example.org", WithUri("reader.example.org")));
}

TEST(SanPatternTest, WildcardInADnsNameIsOneLabel) {
  const std::string pattern = "DNS:*.Readers.example.org";

  EXPECT_TRUE(Matches(pattern, WithDns("a-1.readers.example.ORG")));
  for (const char* name : {"readers.example.org", ".readers.example.org", "a.b.readers.example.org",
                           "*.readers.example.org", "areaders.example.org"}) {
    EXPECT_FALSE(Matches(pattern, WithDns(name))) << name;
  }
}

TEST(SanPatternTest, WildcardInAnEmailAddressIsItsLocalPart) {
  const std::string pattern = "email:*@example.org";

  EXPECT_TRUE(Matches(pattern, WithEmail("a.reader@example.org")));
  for (const char* email :
       {"@example.org", "a@b@example.org", "a@sub.example.org", "a@example.org.evil"}) {
    EXPECT_FALSE(Matches(pattern, WithEmail(email))) << email;
  }
  EXPECT_TRUE(Matches("email:reader@example.org", WithEmail("reader@example.org")));
  EXPECT_FALSE(Matches("email:reader@example.org", WithEmail("writer@example.org")));
}

TEST(SanPatternTest, AnyOfTheNamesWillDo) {
  net::CertificateIdentity certificate = WithDns("other.example.org");
  certificate.dns_names.emplace_back("reader.example.org");

  EXPECT_TRUE(Matches("DNS:reader.example.org", certificate));
}

TEST(SanPatternTest, WildcardsAnywhereElseAreRefused) {
  for (const char* text : {"DNS:*",
                           "DNS:*.org",
                           "DNS:**.example.org",
                           "DNS:a*.example.org",
                           "DNS:*.*.example.org",
                           "DNS:a.*.example.org",
                           "DNS:example.org.*",
                           "URI:*",
                           "URI:spiffe://*",
                           "URI:spiffe://example.org*",
                           "URI:spiffe://example.org/a*",
                           "URI:spiffe://*/a",
                           "URI:spiffe:///*",
                           "URI:example/*",
                           "URI:spiffe://example.org/*/a",
                           "email:*",
                           "email:a*@example.org",
                           "email:a@*",
                           "email:*@*",
                           "IP:10.0.0.1",
                           "reader",
                           "URI:",
                           "DNS:",
                           "email:",
                           "",
                           ":"}) {
    const absl::Status status = SanPattern::Parse(text).status();

    EXPECT_EQ(status.code(), absl::StatusCode::kInvalidArgument) << text;
    EXPECT_THAT(std::string(status.message()), HasSubstr(absl::StrCat("\"", text, "\"")));
  }
}

net::Peer UnixPeer(uid_t uid, gid_t gid, std::vector<gid_t> supplementary_groups = {}) {
  net::Peer peer;
  peer.kind = net::Peer::Kind::kUnix;
  peer.uid = uid;
  peer.gid = gid;
  peer.supplementary_groups = std::move(supplementary_groups);
  return peer;
}

net::Peer TlsPeer(net::CertificateIdentity certificate) {
  net::Peer peer;
  peer.kind = net::Peer::Kind::kTls;
  peer.certificate = std::move(certificate);
  return peer;
}

// The role in which `peer` may call the method at `path`; empty for none.
std::string Role(const std::string& json, const net::Peer& peer, const std::string& path) {
  const auto policy = AccessPolicy::Parse(json);
  EXPECT_TRUE(policy.ok()) << policy.status();
  if (!policy.ok()) return "";
  const std::string* role = policy->RoleFor(peer, path);
  return role == nullptr ? "" : *role;
}

constexpr char kPolicy[] = R"({
  "roles": {
    "operator": {"uid": [1000], "gid": [27]},
    "reader": {"san": ["URI:spiffe://example.org/reader", "DNS:*.readers.example.org"]},
    "guest": {"anyone": true},
    "nobody": {}
  },
  "methods": {
    "/rpc.Profile/Path": ["nobody", "reader", "operator", "guest"],
    "/rpc.Profile/Name": [],
    "/rpc.Profile/*": ["operator", "reader"],
    "*": ["operator"]
  }
})";

TEST(AccessPolicyTest, FirstRoleOfTheRuleThatFitsIsThePeers) {
  EXPECT_EQ(Role(kPolicy, UnixPeer(1000, 1), "/rpc.Profile/Path"), "operator");
  EXPECT_EQ(Role(kPolicy, UnixPeer(1, 27), "/rpc.Profile/Path"), "operator");
  EXPECT_EQ(Role(kPolicy, UnixPeer(1, 1, {3, 27}), "/rpc.Profile/Path"), "operator");
  EXPECT_EQ(Role(kPolicy, UnixPeer(27, 1000), "/rpc.Profile/Path"), "guest");
  EXPECT_EQ(Role(kPolicy, TlsPeer(WithUri("spiffe://example.org/reader")), "/rpc.Profile/Path"),
            "reader");
  EXPECT_EQ(Role(kPolicy, TlsPeer(WithDns("a.readers.example.org")), "/rpc.Profile/Path"),
            "reader");
  EXPECT_EQ(Role(kPolicy, net::Peer(), "/rpc.Profile/Path"), "guest");
}

TEST(AccessPolicyTest, NearestRuleAloneCounts) {
  const net::Peer root_operator = UnixPeer(1000, 1);
  const net::Peer reader = TlsPeer(WithUri("spiffe://example.org/reader"));

  EXPECT_EQ(Role(kPolicy, root_operator, "/rpc.Profile/Name"), "");
  EXPECT_EQ(Role(kPolicy, reader, "/rpc.Profile/IsDefault"), "reader");
  EXPECT_EQ(Role(kPolicy, net::Peer(), "/rpc.Profile/IsDefault"), "");
  EXPECT_EQ(Role(kPolicy, root_operator, "/rpc.Other/Path"), "operator");
  EXPECT_EQ(Role(kPolicy, reader, "/rpc.Other/Path"), "");
}

TEST(AccessPolicyTest, WhatNoRuleNamesIsDenied) {
  const std::string json =
      R"({"roles": {"guest": {"anyone": true}}, "methods": {"/rpc.Profile/Path": ["guest"]}})";

  EXPECT_EQ(Role(json, net::Peer(), "/rpc.Profile/Path"), "guest");
  for (const char* path : {"/rpc.Profile/path", "/rpc.Profile/Path/", "/rpc.Profile/", "/", "", "*",
                           "rpc.Profile/Path", "/rpc.Profile/Path2", "//rpc.Profile/Path"}) {
    EXPECT_EQ(Role(json, net::Peer(), path), "") << path;
  }
}

TEST(AccessPolicyTest, NumbersOfUsersSayNothingAboutOtherPeers) {
  net::Peer tcp = UnixPeer(1000, 27);
  tcp.kind = net::Peer::Kind::kTcp;

  EXPECT_EQ(Role(kPolicy, tcp, "/rpc.Other/Path"), "");
}

TEST(AccessPolicyTest, PeerWithoutACertificateHasNoRoleOfOne) {
  net::Peer peer;
  peer.kind = net::Peer::Kind::kTls;

  EXPECT_EQ(Role(kPolicy, peer, "/rpc.Profile/IsDefault"), "");
}

TEST(AccessPolicyTest, WhatIsWrongIsNamed) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "not valid JSON"},
      {"{", "not valid JSON"},
      {R"({"roles": {}, "methods": {},})", "not valid JSON"},
      {"[]", "has to be an object"},
      {"{}", "needs an object \"roles\""},
      {R"({"roles": {}})", "needs an object \"methods\""},
      {R"({"roles": [], "methods": {}})", "needs an object \"roles\""},
      {R"({"roles": {}, "methods": {}, "defaults": 1})", "unknown key \"defaults\""},
      {R"({"roles": {"a": 1}, "methods": {}})", "role \"a\": has to be an object"},
      {R"({"roles": {"a": {"uids": [1]}}, "methods": {}})", "role \"a\": unknown key \"uids\""},
      {R"({"roles": {"a": {"uid": 1}}, "methods": {}})", "\"uid\" has to be a list"},
      {R"({"roles": {"a": {"uid": ["root"]}}, "methods": {}})", "\"uid\" has to be a list of num"},
      {R"({"roles": {"a": {"uid": [-1]}}, "methods": {}})", "\"uid\" has to be a list of num"},
      {R"({"roles": {"a": {"gid": [4294967295]}}, "methods": {}})", "\"gid\" has to be a list of"},
      {R"({"roles": {"a": {"gid": [1.5]}}, "methods": {}})", "\"gid\" has to be a list of"},
      {R"({"roles": {"a": {"san": "DNS:a.b"}}, "methods": {}})", "\"san\" has to be a list"},
      {R"({"roles": {"a": {"san": [1]}}, "methods": {}})", "\"san\" has to be a list of texts"},
      {R"({"roles": {"a": {"san": ["DNS:*"]}}, "methods": {}})", "role \"a\": \"DNS:*\""},
      {R"({"roles": {"a": {"anyone": 1}}, "methods": {}})", "\"anyone\" has to be true or false"},
      {R"({"roles": {}, "methods": {"*": "a"}})", "method \"*\": has to be a list of roles"},
      {R"({"roles": {}, "methods": {"*": [1]}})", "method \"*\": has to be a list of roles"},
      {R"({"roles": {}, "methods": {"*": ["a"]}})", "there is no role \"a\""},
      {R"({"roles": {"a": {}, "a": {}}, "methods": {}})", "the key \"a\" stands twice"},
      {R"({"roles": {}, "methods": {}, "roles": {}})", "the key \"roles\" stands twice"},
      {R"({"roles": {"a": {"uid": [[[[1]]]]}}, "methods": {}})", "nested too deeply"},
  };
  for (const auto& [json, problem] : cases) {
    const absl::Status status = AccessPolicy::Parse(json).status();

    EXPECT_EQ(status.code(), absl::StatusCode::kInvalidArgument) << json;
    EXPECT_THAT(std::string(status.message()), HasSubstr(problem)) << json;
  }
}

TEST(AccessPolicyTest, PathsOfAnotherShapeAreRefused) {
  for (const char* path : {"", "/", "/*", "**", "Path", "rpc.Profile/Path", "/rpc.Profile",
                           "/rpc.Profile/", "/rpc.Profile/Pa*", "/rpc.*/Path", "/*/Path",
                           "/rpc.Profile/Path/More", "//Path", "/rpc.Profile/**"}) {
    const std::string json = absl::StrCat(R"({"roles": {}, "methods": {")", path, R"(": []}})");

    const absl::Status status = AccessPolicy::Parse(json).status();

    EXPECT_THAT(std::string(status.message()), HasSubstr(absl::StrCat("method \"", path, "\"")));
  }
}

TEST(AccessPolicyTest, DeepNestingIsRefusedWithoutHarm) {
  EXPECT_FALSE(AccessPolicy::Parse(std::string(1'000'000, '[')).ok());
  EXPECT_FALSE(AccessPolicy::Parse(R"({"roles": )" + std::string(1'000'000, '[')).ok());
}

TEST(AccessPolicyTest, PolicyThatIsCutAnywhereIsRefused) {
  const std::string whole = kPolicy;
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(AccessPolicy::Parse(whole.substr(0, size)).ok()) << size;
  }
}

}  // namespace
}  // namespace varnic
