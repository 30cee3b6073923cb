#include "core/net/edge/refused_connections.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>

#include "core/net/edge/connection_cap.h"
#include "core/net/testing/fake_byte_stream.h"
#include "core/net/testing/fake_clock.h"

namespace varnic::net {
namespace {

using testing::FakePeer;

class RefusedConnectionsTest : public ::testing::Test {
 protected:
  FakePeer& Connect() {
    peers_.emplace_back();
    refused_.Add(peers_.back().MakeStream());
    return peers_.back();
  }
  void Wait(absl::Duration duration) {
    clock_.Advance(duration);
    loop_.RunPending();
  }

  testing::FakeClock clock_;
  EventLoop loop_;
  std::deque<FakePeer> peers_;
  RefusedConnections refused_{loop_};
};

TEST_F(RefusedConnectionsTest, PeerIsToldAndMayCloseFirst) {
  FakePeer& peer = Connect();

  EXPECT_EQ(peer.Take(), RefusalOfConnection());
  EXPECT_TRUE(peer.has_farewell());
  peer.Send("a greeting, and calls");
  EXPECT_TRUE(peer.open());

  peer.Close();

  EXPECT_FALSE(peer.open());
  EXPECT_EQ(refused_.lingering(), 0u);
}

TEST_F(RefusedConnectionsTest, PeerThatDoesNotCloseHasASecond) {
  FakePeer& peer = Connect();

  Wait(absl::Milliseconds(999));
  EXPECT_TRUE(peer.open());
  Wait(absl::Milliseconds(1));

  EXPECT_FALSE(peer.open());
}

TEST_F(RefusedConnectionsTest, PeerThatFloodsIsNotReadForLong) {
  FakePeer& peer = Connect();

  for (int i = 0; i < 100 && peer.open(); ++i) peer.Send(std::string(64 << 10, 'x'));

  EXPECT_FALSE(peer.open());
}

TEST_F(RefusedConnectionsTest, BrokenConnectionIsForgotten) {
  Connect().Break();

  EXPECT_EQ(refused_.lingering(), 0u);
}

TEST_F(RefusedConnectionsTest, OnlySoManyLinger) {
  for (int i = 0; i < 64; ++i) EXPECT_TRUE(Connect().open());

  FakePeer& one_more = Connect();

  EXPECT_EQ(one_more.Take(), RefusalOfConnection());
  EXPECT_FALSE(one_more.open());
  peers_[10].Close();
  EXPECT_TRUE(Connect().open());
}

TEST_F(RefusedConnectionsTest, ClearClosesWhatLingers) {
  FakePeer& peer = Connect();

  refused_.Clear();

  EXPECT_FALSE(peer.open());
  Wait(absl::Seconds(2));
}

}  // namespace
}  // namespace varnic::net
