#include "tools/log_throttle.h"

#include <gtest/gtest.h>

#include <chrono>

namespace varnic::tools {
namespace {

constexpr char kFile[] = "host.cc";

class LogThrottleTest : public ::testing::Test {
 protected:
  std::optional<std::uint64_t> Admit(int line = 1) { return throttle_.Admit(kFile, line, now_); }

  // How many of so many records get through.
  int Write(int records) {
    int written = 0;
    for (int i = 0; i < records; ++i) written += Admit().has_value() ? 1 : 0;
    return written;
  }

  LogThrottle throttle_;
  net::LoopClock::time_point now_;
};

TEST_F(LogThrottleTest, FloodIsCutToItsBeginning) {
  EXPECT_EQ(Write(1000), 20);
}

TEST_F(LogThrottleTest, FloodThatGoesOnIsCutToItsRate) {
  Write(1000);

  now_ += std::chrono::seconds(1);

  EXPECT_EQ(Write(1000), 10);
}

TEST_F(LogThrottleTest, NextRecordSaysHowManyWereLeftOut) {
  EXPECT_EQ(Admit(), 0u);
  Write(99);

  now_ += std::chrono::seconds(1);

  EXPECT_EQ(Admit(), 80u);
  EXPECT_EQ(Admit(), 0u);
}

TEST_F(LogThrottleTest, OtherStatementsAreNotHeldUp) {
  Write(1000);

  EXPECT_EQ(Admit(2), 0u);
}

}  // namespace
}  // namespace varnic::tools
