#ifndef CORE_CLIENT_SUBSCRIPTION_STREAM_H_
#define CORE_CLIENT_SUBSCRIPTION_STREAM_H_

#include <google/protobuf/descriptor.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/client/client.h"
#include "core/client/resuming_stream.h"
#include "core/client/stream_listeners.h"
#include "core/net/event_loop.h"
#include "core/net/log_limiter.h"
#include "rpc/identifiers.pb.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

// A ResumingStream with keys, of which the server is told again whenever the stream is opened. What
// EventSubscriber and CallbackAnswerer have in common.
//
// Lives on the client's loop; the client outlives it. May be destroyed in its own callbacks.
class SubscriptionStream : private ResumingStream::Visitor {
 public:
  // The payload that subscribes to a key, or unsubscribes from it.
  using MakePayload = std::string (*)(const ProfileId& key, bool subscribe);
  // An envelope from the server. An error drops it, with a warning in the log; a callback that
  // gives one must not have destroyed the stream.
  using OnEnvelope = std::function<absl::Status(const ::rpc::transport::StreamMessage& envelope)>;

  // `on_lost` runs whenever the stream was lost or ended, before the listeners hear of it.
  SubscriptionStream(Client& client, const google::protobuf::MethodDescriptor& method,
                     MakePayload make_payload, OnEnvelope on_envelope,
                     std::function<void()> on_lost, StreamListeners listeners);

  void Subscribe(const ProfileId& key);
  void Unsubscribe(const ProfileId& key);
  bool IsSubscribed(const ProfileId& key) const { return keys_.count(key.value()) > 0; }

  // Dropped while the stream is not open.
  void Send(const ::rpc::transport::StreamMessage& envelope);

 private:
  struct Callbacks {
    OnEnvelope on_envelope;
    std::function<void()> on_lost;
    StreamListeners listeners;
  };

  std::string OnOpen() override;
  absl::Status OnMessage(std::string_view message) override;
  void OnUp() override;
  bool IsLoss(const absl::Status& status) override;
  void OnDown(const absl::Status& why, absl::Duration retry_in) override;
  void OnEnd(const absl::Status& status) override;

  void Tell(const std::string& key, bool subscribe);
  std::string FrameControl(const std::string& key, bool subscribe) const;
  void WarnOfDropped(const absl::Status& why);

  net::EventLoop& loop_;
  const MakePayload make_payload_;
  // Shared with the callback that runs, which may destroy the stream.
  const std::shared_ptr<const Callbacks> callbacks_;
  std::set<std::string> keys_;  // In order, so that every opening looks the same.
  std::size_t told_ = 0;        // Subscription messages, since the stream was opened.
  net::LogLimiter drops_logged_;
  ResumingStream stream_;
};

// For what the server sent in place of a `type`.
absl::Status NotSerialisedError(const google::protobuf::Descriptor& type);

}  // namespace varnic

#endif  // CORE_CLIENT_SUBSCRIPTION_STREAM_H_
