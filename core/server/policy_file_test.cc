#include "core/server/policy_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "core/net/testing/test_certificates.h"

namespace varnic {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kMethod[] = "/rpc.Profile/Path";

// A policy that lets everybody call kMethod in `role`.
std::string Everybody(const std::string& role) {
  return R"({"roles": {")" + role + R"(": {"anyone": true}}, "methods": {"/rpc.Profile/Path": [")" +
         role + R"("]}})";
}

class PolicyFileTest : public ::testing::Test {
 protected:
  PolicyFileTest() {
    auto policy =
        PolicyFile::Load(folder_.Write("policy.json", Everybody("first")), absl::ZeroDuration());
    EXPECT_TRUE(policy.ok()) << policy.status();
    policy_ = *std::move(policy);
  }

  std::string RoleNow() { return policy_->Authorize(net::Peer(), kMethod).value_or("denied"); }

  net::testing::TestFolder folder_;
  std::unique_ptr<PolicyFile> policy_;
};

TEST_F(PolicyFileTest, DenialNamesTheMethodAndNotThePolicy) {
  ::testing::internal::CaptureStderr();
  const absl::Status status = policy_->Authorize(net::Peer(), "/rpc.Profile/Name").status();
  const std::string log = ::testing::internal::GetCapturedStderr();

  EXPECT_EQ(status, absl::PermissionDeniedError("This client may not call /rpc.Profile/Name"));
  EXPECT_EQ(policy_->denied(), 1u);
  EXPECT_THAT(log, HasSubstr("Denied a call method=/rpc.Profile/Name peer="));
}

TEST_F(PolicyFileTest, ChangeIsInForceAtTheNextCall) {
  EXPECT_EQ(RoleNow(), "first");

  folder_.Write("policy.json", Everybody("second"));
  EXPECT_EQ(RoleNow(), "second");

  folder_.Write("policy.json", R"({"roles": {}, "methods": {}})");
  EXPECT_EQ(RoleNow(), "denied");
}

TEST_F(PolicyFileTest, FileThatCannotBeUsedLeavesTheFormerPolicyAndIsLoggedOnce) {
  ::testing::internal::CaptureStderr();
  folder_.Write("policy.json", "half a fi");
  EXPECT_EQ(RoleNow(), "first");
  EXPECT_EQ(RoleNow(), "first");
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, AllOf(HasSubstr(folder_.Path("policy.json")), HasSubstr("not valid JSON")));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;

  folder_.Write("policy.json", Everybody("second"));
  EXPECT_EQ(RoleNow(), "second");
}

TEST_F(PolicyFileTest, FileThatIsWrongFromTheStartIsNamed) {
  const std::string path = folder_.Write("wrong.json", "{}");

  EXPECT_THAT(std::string(PolicyFile::Load(path).status().message()), StartsWith(path + ": "));
  EXPECT_THAT(std::string(PolicyFile::Load("/nowhere/at/all").status().message()),
              StartsWith("/nowhere/at/all: "));
}

}  // namespace
}  // namespace varnic
