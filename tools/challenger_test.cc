#include "tools/challenger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace varnic::tools {
namespace {

using ::testing::HasSubstr;

rpc::Authenticate::Request Request(const std::string& host, std::uint32_t port) {
  rpc::Authenticate::Request request;
  request.set_challenger_host(host);
  request.set_challenger_port(port);
  request.set_scheme("basic");
  request.set_realm("Staff");
  return request;
}

bool Matches(const std::string& challenger, const std::string& host, std::uint32_t port) {
  const auto parsed = Challenger::Parse(challenger);
  EXPECT_TRUE(parsed.ok()) << parsed.status();
  return parsed.ok() && parsed->Matches(Request(host, port));
}

TEST(ChallengerTest, HostAloneIsThatHostAtAnyPort) {
  EXPECT_TRUE(Matches("Example.com", "example.COM", 443));
  EXPECT_TRUE(Matches("::1", "::1", 80));
  EXPECT_FALSE(Matches("example.com", "www.example.com", 443));
  EXPECT_FALSE(Matches("example.com", "example.com.evil.org", 443));
}

TEST(ChallengerTest, PortHasToBeTheOneThatIsGiven) {
  EXPECT_TRUE(Matches("example.com:8443", "example.com", 8443));
  EXPECT_TRUE(Matches("[::1]:80", "::1", 80));
  EXPECT_TRUE(Matches("[::1]:80", "[::1]", 80));
  EXPECT_FALSE(Matches("example.com:8443", "example.com", 443));
}

TEST(ChallengerTest, WrongOneIsQuoted) {
  for (const char* text : {"", ":80", "host:", "host:port", "host:0", "host:65536"}) {
    const auto parsed = Challenger::Parse(text);
    ASSERT_FALSE(parsed.ok()) << text;
    EXPECT_THAT(parsed.status().message(), HasSubstr("--challenger")) << text;
  }
}

ProfileId Profile(const std::string& id) {
  ProfileId profile;
  profile.set_value(id);
  return profile;
}

TEST(SentPasswordsTest, PasswordThatWasSentAndRefusedIsKnown) {
  SentPasswords sent;
  const auto request = Request("example.com", 443);

  sent.Remember(Profile("P"), request, "old");

  EXPECT_TRUE(sent.WasRefused(Profile("P"), request, "old"));
  EXPECT_FALSE(sent.WasRefused(Profile("P"), request, "new"));
  EXPECT_FALSE(sent.WasRefused(Profile("P"), Request("example.com", 80), "old"));
  EXPECT_FALSE(sent.WasRefused(Profile("Other"), request, "old"));
  auto of_proxy = request;
  of_proxy.set_is_proxy(true);
  EXPECT_FALSE(sent.WasRefused(Profile("P"), of_proxy, "old"));
}

TEST(SentPasswordsTest, FirstAttemptHasNotBeenRefused) {
  SentPasswords sent;
  auto request = Request("example.com", 443);
  sent.Remember(Profile("P"), request, "old");

  request.set_first_attempt(true);

  EXPECT_FALSE(sent.WasRefused(Profile("P"), request, "old"));
}

TEST(SentPasswordsTest, WhatAServerMayChangeDoesNotMakeItAnother) {
  SentPasswords sent;
  auto request = Request("example.com", 443);
  request.set_first_attempt(true);
  sent.Remember(Profile("P"), request, "old");

  request.set_first_attempt(false);
  for (int i = 0; i < 50; ++i) {
    request.set_realm("Realm " + std::to_string(i));
    request.set_scheme(i % 2 == 0 ? "digest" : "basic");
    request.set_url("https://example.com/" + std::to_string(i));
    request.set_challenger_host(i % 2 == 0 ? "EXAMPLE.com" : "example.com");

    EXPECT_TRUE(sent.WasRefused(Profile("P"), request, "old")) << i;
  }
}

TEST(SentPasswordsTest, ManyChallengersDoNotMakeItForgetOne) {
  SentPasswords sent;
  for (std::uint32_t port = 1; port <= 5000; ++port) {
    sent.Remember(Profile("P"), Request("example.com", port), "old");
  }

  for (std::uint32_t port = 1; port <= 5001; ++port) {
    ASSERT_TRUE(sent.WasRefused(Profile("P"), Request("example.com", port), "old")) << port;
  }
  auto first_attempt = Request("example.com", 5002);
  first_attempt.set_first_attempt(true);
  EXPECT_FALSE(sent.WasRefused(Profile("P"), first_attempt, "old"));
  EXPECT_FALSE(sent.WasRefused(Profile("P"), Request("example.com", 1), "new"));
}

TEST(SentPasswordsTest, OtherPasswordStartsAnew) {
  SentPasswords sent;
  const auto request = Request("example.com", 443);
  sent.Remember(Profile("P"), request, "old");

  sent.Remember(Profile("P"), Request("example.com", 80), "new");

  EXPECT_FALSE(sent.WasRefused(Profile("P"), request, "new"));
  EXPECT_TRUE(sent.WasRefused(Profile("P"), Request("example.com", 80), "new"));
}

}  // namespace
}  // namespace varnic::tools
