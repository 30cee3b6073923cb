#include "tests/stream_peer.h"

#include <gtest/gtest.h>

#include <array>
#include <utility>

#include "core/common/rpc/fatal.h"
#include "core/net/address.h"
#include "core/net/message_framing.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/profile/profile.pb.h"

namespace varnic {
namespace {

std::string Framed(const std::string& bytes) {
  const net::MessagePrefix prefix = net::MakeMessagePrefix(static_cast<uint32_t>(bytes.size()));
  return std::string(prefix.data(), prefix.size()) + bytes;
}

}  // namespace

StreamPeer::Stream::Stream(StreamPeer& peer, const std::string& path, StreamFraming framing)
    : peer_(peer) {
  std::vector<net::HeaderField> metadata;
  if (framing == StreamFraming::kEnvelope) metadata = {{kFramingHeader, kEnvelopeFraming}};
  net::GrpcClientCall::Visitor& visitor = *this;
  call_ = peer_.connection_->StartCall(path, absl::InfiniteDuration(), visitor, metadata);
  EXPECT_NE(call_, nullptr);
}

StreamPeer::Stream::~Stream() {
  if (call_ != nullptr) call_->Cancel();
}

void StreamPeer::Stream::Send(const std::string& bytes) {
  if (call_ != nullptr) call_->Send(Framed(bytes), /*half_close=*/false);
}

void StreamPeer::Stream::HalfClose() {
  if (call_ != nullptr) call_->Send("", /*half_close=*/true);
}

void StreamPeer::Stream::Reset() {
  std::exchange(call_, nullptr)->Cancel();
}

std::string StreamPeer::Stream::Receive() {
  peer_.loop_.RunUntil([this] { return !received_.empty() || status_.has_value(); });
  if (received_.empty()) return "";
  std::string first = std::move(received_.front());
  received_.erase(received_.begin());
  return first;
}

absl::Status StreamPeer::Stream::Finish() {
  peer_.loop_.RunUntil([this] { return status_.has_value(); });
  return *status_;
}

void StreamPeer::Stream::OnMessage(std::string_view message) {
  received_.emplace_back(message);
}

void StreamPeer::Stream::OnDone(const absl::Status& status) {
  call_ = nullptr;
  status_ = status;
}

StreamPeer::StreamPeer(const std::string& address, const net::GrpcClientOptions& options) {
  bool done = false;
  connector_ = net::Connector::Connect(
      loop_, *net::Address::Parse(address),
      [&, options](absl::StatusOr<std::unique_ptr<net::ByteStream>> stream) {
        done = true;
        ASSERT_TRUE(stream.ok()) << stream.status();
        net::GrpcClientConnection::Visitor& visitor = *this;
        connection_ = std::make_unique<net::GrpcClientConnection>(loop_, *std::move(stream),
                                                                  "localhost", options, visitor);
      });
  loop_.RunUntil([&done] { return done; });
  VARNIC_CHECK(connection_ != nullptr);  // No test goes on without its peer.
}

StreamPeer::~StreamPeer() = default;

std::unique_ptr<StreamPeer::Stream> StreamPeer::Open(const std::string& method,
                                                     StreamFraming framing) {
  return std::make_unique<Stream>(*this, "/rpc.Profile/" + method, framing);
}

std::unique_ptr<StreamPeer::Stream> StreamPeer::OpenPath(const std::string& path) {
  return std::make_unique<Stream>(*this, path, StreamFraming::kTyped);
}

void StreamPeer::OnGoaway(net::GrpcClientConnection& /*connection*/) {}

void StreamPeer::OnConnectionClosed(net::GrpcClientConnection& /*connection*/,
                                    const absl::Status& /*status*/) {
  connection_ = nullptr;
}

std::string Subscription(const std::string& key, bool subscribe) {
  ::rpc::EventSubscription subscription;
  subscription.mutable_key()->set_value(key);
  subscription.set_action(subscribe ? ::rpc::EventSubscription::SUBSCRIBE
                                    : ::rpc::EventSubscription::UNSUBSCRIBE);
  return subscription.SerializeAsString();
}

std::string FileAnswerer(const std::string& key) {
  ::rpc::CanAccessFile control;
  control.mutable_profile_id()->set_value(key);
  control.set_subscribe(true);
  return control.SerializeAsString();
}

}  // namespace varnic
