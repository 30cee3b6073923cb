#include "core/net/edge/connection_cap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "core/net/testing/raw_http2_peer.h"

namespace varnic::net {
namespace {

using ::testing::ElementsAre;
using testing::RawHttp2Peer;

TEST(ConnectionCapTest, IsWhatWasAskedForWhileThereAreDescriptorsEnough) {
  EXPECT_EQ(ConnectionCap(100, 1024), 100u);
  EXPECT_EQ(ConnectionCap(10'000, std::numeric_limits<std::size_t>::max()), 10'000u);
}

TEST(ConnectionCapTest, LeavesDescriptorsForOtherThings) {
  EXPECT_EQ(ConnectionCap(10'000, 1024), 768u);
  EXPECT_EQ(ConnectionCap(10'000, 4096), 3840u);
  EXPECT_EQ(ConnectionCap(10'000, 20), 15u);
}

TEST(ConnectionCapTest, GoesByTheLimitsOfThisProcess) {
  EXPECT_LT(ConnectionCap(std::numeric_limits<std::size_t>::max()),
            std::numeric_limits<std::size_t>::max());
}

TEST(ConnectionCapTest, RefusalTellsAnHttp2ClientTheReason) {
  RawHttp2Peer client(RawHttp2Peer::Role::kClient);

  client.Receive(RefusalOfConnection());

  EXPECT_THAT(client.events(), ElementsAre("GOAWAY 0 11"));
  EXPECT_EQ(client.goaway_text(), "too_many_connections");
}

}  // namespace
}  // namespace varnic::net
