#include "core/net/edge/connection_guard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace varnic::net {
namespace {

using ::testing::ElementsAre;

constexpr LoopClock::time_point At(int seconds) {
  return LoopClock::time_point(std::chrono::seconds(seconds));
}

// Sees the connection as it is, whenever the guard asks for it.
class ConnectionGuardTest : public ::testing::Test {
 protected:
  ConnectionGuardTest() { activity_.greeted = true; }

  // Nothing happens until `seconds`, and the guard looks whenever it wants to.
  ConnectionGuard::Verdict LookUntil(ConnectionGuard& guard, int seconds) {
    while (true) {
      ConnectionGuard::Verdict verdict = guard.Look(now_, activity_);
      const LoopClock::time_point next =
          now_ + absl::ToChronoNanoseconds(std::min(verdict.next_look, absl::Hours(100)));
      if (verdict.end.has_value() || verdict.ping || next > At(seconds)) return verdict;
      now_ = next;
    }
  }

  ConnectionLimits limits_ = ConnectionLimits::None();
  ConnectionGuard::Activity activity_;
  LoopClock::time_point now_ = At(0);
};

TEST_F(ConnectionGuardTest, WithoutLimitsThereIsNothingToLookFor) {
  activity_.greeted = false;
  activity_.output.unwritten = 1;
  ConnectionGuard guard(limits_, At(0));

  EXPECT_EQ(guard.Look(At(1'000'000), activity_).next_look, absl::InfiniteDuration());
  EXPECT_FALSE(guard.WantsLookAtOutput());
  for (int ping = 0; ping < 100; ++ping) EXPECT_TRUE(guard.AdmitPing(At(0), 0));
}

TEST_F(ConnectionGuardTest, PeerThatDoesNotBeginIsEndedExactlyInTime) {
  limits_.handshake_timeout = absl::Seconds(10);
  activity_.greeted = false;
  ConnectionGuard guard(limits_, At(0));

  EXPECT_EQ(LookUntil(guard, 1000).end, EdgeRule::kHandshake);

  EXPECT_EQ(now_, At(10));
}

TEST_F(ConnectionGuardTest, PeerThatHasBegunIsNotHurried) {
  limits_.handshake_timeout = absl::Seconds(10);
  ConnectionGuard guard(limits_, At(0));

  EXPECT_FALSE(LookUntil(guard, 1000).end.has_value());
}

TEST_F(ConnectionGuardTest, IdleConnectionEndsInTime) {
  limits_.max_idle = absl::Hours(1);
  ConnectionGuard guard(limits_, At(0));

  EXPECT_EQ(LookUntil(guard, 10'000).end, EdgeRule::kIdle);

  EXPECT_EQ(now_, At(3600));
}

TEST_F(ConnectionGuardTest, LooksForOtherRulesPutALimitOffByAQuarterAtMost) {
  limits_.max_idle = absl::Seconds(80);
  ConnectionGuard guard(limits_, At(0));
  activity_.output.open_streams = 1;
  const auto delay = absl::ToChronoNanoseconds(guard.Look(At(0), activity_).next_look);
  activity_.output.open_streams = 0;
  guard.Look(At(0) + delay, activity_);

  now_ = At(-1) + delay + delay;

  EXPECT_EQ(LookUntil(guard, 1000).end, EdgeRule::kIdle);
  EXPECT_LE(now_, At(100));
}

TEST_F(ConnectionGuardTest, OutputIsLookedAtOnlyWhileItWaits) {
  limits_.stall_timeout = absl::Seconds(60);
  ConnectionGuard guard(limits_, At(0));
  EXPECT_EQ(guard.Look(At(0), activity_).next_look, absl::InfiniteDuration());
  EXPECT_TRUE(guard.WantsLookAtOutput());

  activity_.output.unwritten = 100;
  EXPECT_EQ(guard.Look(At(1), activity_).next_look, absl::Milliseconds(7500));
  EXPECT_FALSE(guard.WantsLookAtOutput());

  activity_.output.unwritten = 0;
  EXPECT_EQ(guard.Look(At(16), activity_).next_look, absl::InfiniteDuration());
  EXPECT_TRUE(guard.WantsLookAtOutput());
}

TEST_F(ConnectionGuardTest, PeerThatReadsNothingIsEnded) {
  limits_.stall_timeout = absl::Seconds(60);
  activity_.output.unwritten = 100;
  ConnectionGuard guard(limits_, At(0));

  EXPECT_EQ(LookUntil(guard, 1000).end, EdgeRule::kStalled);

  EXPECT_EQ(now_, At(60));
}

TEST_F(ConnectionGuardTest, StreamThatStallsIsNamed) {
  limits_.stall_timeout = absl::Seconds(60);
  activity_.output.streams = {{9, 0, 100, true}};
  activity_.output.open_streams = 2;
  ConnectionGuard guard(limits_, At(0));

  const ConnectionGuard::Verdict verdict = LookUntil(guard, 60);

  EXPECT_FALSE(verdict.end.has_value());
  EXPECT_THAT(verdict.stalled_streams, ElementsAre(9));
}

TEST_F(ConnectionGuardTest, SilentPeerIsPingedAndThenEnded) {
  limits_.keepalive_time = absl::Seconds(100);
  ConnectionGuard guard(limits_, At(0));

  EXPECT_TRUE(LookUntil(guard, 1000).ping);
  EXPECT_EQ(now_, At(100));
  now_ += std::chrono::seconds(20);

  EXPECT_EQ(LookUntil(guard, 1000).end, EdgeRule::kKeepalive);
  EXPECT_EQ(now_, At(120));
}

TEST_F(ConnectionGuardTest, SilentPeerIsOnlyPingedIfItHasAllTheTimeToAnswer) {
  limits_.keepalive_time = absl::Seconds(100);
  limits_.keepalive_timeout = absl::ZeroDuration();
  ConnectionGuard guard(limits_, At(0));
  EXPECT_TRUE(LookUntil(guard, 1000).ping);

  EXPECT_FALSE(LookUntil(guard, 10'000).end.has_value());
}

TEST_F(ConnectionGuardTest, PeerWithoutStreamsIsPingedOnlyIfSoWanted) {
  limits_.keepalive_time = absl::Seconds(100);
  limits_.keepalive_without_streams = false;
  ConnectionGuard guard(limits_, At(0));
  EXPECT_FALSE(LookUntil(guard, 1000).ping);

  activity_.output.open_streams = 1;

  EXPECT_TRUE(LookUntil(guard, 2000).ping);
}

TEST_F(ConnectionGuardTest, LocalPeerMayPingAndBeSilentAsItLikes) {
  ConnectionGuard guard(ConnectionLimits().ForLocalPeer(), At(0));
  activity_.output.open_streams = 1;

  for (int ping = 0; ping < 100; ++ping) EXPECT_TRUE(guard.AdmitPing(At(0), 0));
  const ConnectionGuard::Verdict verdict = LookUntil(guard, 100'000);

  EXPECT_FALSE(verdict.ping);
  EXPECT_FALSE(verdict.end.has_value());
}

TEST_F(ConnectionGuardTest, PeerFromElsewhereMayNot) {
  ConnectionGuard guard(ConnectionLimits(), At(0));
  int admitted = 0;

  while (guard.AdmitPing(At(0), 0)) ++admitted;

  EXPECT_EQ(admitted, 3);
}

}  // namespace
}  // namespace varnic::net
