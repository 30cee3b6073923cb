#include "core/host/browser/login_attempts.h"

#include <string>

#include "gtest/gtest.h"

namespace varnic::host {
namespace {

TEST(LoginAttemptsTest, EachRequestIsCountedByItself) {
  LoginAttempts attempts;

  EXPECT_EQ(attempts.Count("a", false), 1);
  EXPECT_EQ(attempts.Count("a", false), 2);
  EXPECT_EQ(attempts.Count("b", false), 1);
  EXPECT_EQ(attempts.Count("a", false), 3);
}

TEST(LoginAttemptsTest, ProxyAndServerAreCountedByThemselves) {
  LoginAttempts attempts;

  EXPECT_EQ(attempts.Count("a", true), 1);
  EXPECT_EQ(attempts.Count("a", false), 1);
  EXPECT_EQ(attempts.Count("a", true), 2);
}

TEST(LoginAttemptsTest, OldestIsForgottenOverTheLimit) {
  LoginAttempts attempts(2);
  for (const char* request : {"a", "b", "c"}) attempts.Count(request, false);

  EXPECT_EQ(attempts.size(), 2u);
  EXPECT_EQ(attempts.Count("c", false), 2);
  EXPECT_EQ(attempts.Count("a", false), 1);
}

TEST(LoginAttemptsTest, LimitOfNoneCountsNothing) {
  LoginAttempts attempts(0);

  EXPECT_EQ(attempts.Count("a", false), 1);
  EXPECT_EQ(attempts.size(), 0u);
}

}  // namespace
}  // namespace varnic::host
