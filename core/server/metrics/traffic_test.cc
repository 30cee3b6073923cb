#include "core/server/metrics/traffic.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "core/net/testing/fake_byte_stream.h"

namespace varnic {
namespace {

using net::testing::FakePeer;

// Writes down what it hears, and closes the stream inside of what it is told to.
class Listener : public net::ByteStream::Visitor {
 public:
  explicit Listener(std::unique_ptr<net::ByteStream> stream) : stream_(std::move(stream)) {
    stream_->Start(*this);
  }

  net::ByteStream& stream() { return *stream_; }
  std::string events;
  std::string close_at;

 private:
  void OnBytes(std::string_view bytes) override { Note(std::string(bytes)); }
  void OnWritable() override { Note("writable"); }
  void OnClosed(const absl::Status& status) override { Note(status.ok() ? "closed" : "broken"); }
  void Note(const std::string& event) {
    events += event + " ";
    if (event == close_at) stream_ = nullptr;
  }

  std::unique_ptr<net::ByteStream> stream_;
};

TEST(TrafficTest, BytesThatGotThroughAreCountedInBothDirections) {
  FakePeer peer;
  Traffic traffic;
  Listener listener(CountTraffic(peer.MakeStream(), traffic));
  peer.LimitRoom(3);

  peer.Send("hello");
  EXPECT_EQ(listener.stream().Write("answer"), 3u);
  peer.MakeRoom();
  EXPECT_EQ(listener.stream().Write("wer"), 3u);

  EXPECT_EQ(traffic.received, 5u);
  EXPECT_EQ(traffic.sent, 6u);
  EXPECT_EQ(peer.Take(), "answer");
  EXPECT_EQ(listener.events, "hello writable ");
}

TEST(TrafficTest, EverythingElsePassesThrough) {
  FakePeer peer;
  net::Peer identity;
  identity.address = "192.0.2.7:1";
  peer.set_identity(identity);
  Traffic traffic;
  Listener listener(CountTraffic(peer.MakeStream(), traffic));

  peer.LetStreamHold(10);
  peer.LimitRoom(0);
  EXPECT_EQ(listener.stream().Write("answer"), 6u);

  EXPECT_EQ(listener.stream().unwritten(), 6u);
  listener.stream().ShutdownWrite();
  peer.Break();

  EXPECT_EQ(listener.stream().peer().address, "192.0.2.7:1");
  EXPECT_TRUE(peer.has_farewell());
  EXPECT_EQ(listener.events, "broken ");
}

TEST(TrafficTest, StreamMayBeDestroyedInsideEveryCall) {
  for (const char* event : {"hello", "writable", "closed"}) {
    FakePeer peer;
    Traffic traffic;
    Listener listener(CountTraffic(peer.MakeStream(), traffic));
    listener.close_at = event;
    peer.LimitRoom(0);
    EXPECT_EQ(listener.stream().Write("answer"), 0u);

    peer.Send("hello");
    peer.MakeRoom();
    peer.Close();

    EXPECT_FALSE(peer.open()) << event;
  }
}

}  // namespace
}  // namespace varnic
