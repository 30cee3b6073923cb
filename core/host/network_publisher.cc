#include "core/host/network_publisher.h"

#include <utility>

#include "core/common/rpc/message_hash.h"
#include "core/common/rpc/shared_event.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic::host {

using rpc::NetworkChanged;

// Does what its base does, and then looks whether that has subscribed it to something new.
class NetworkPublisher::Stream : public EventStream<NetworkChanged> {
 public:
  Stream(const NetworkPublisher& publisher, Service* service,
         const google::protobuf::MethodDescriptor* method, StreamChannel channel)
      : EventStream(service, method, std::move(channel)), publisher_(publisher) {}

  void OnNext(rpc::transport::StreamMessage* message) override {
    rpc::EventSubscription subscription;
    (void)subscription.ParseFromString(message->payload());
    const bool was_subscribed = IsSubscribed(subscription.key());
    EventStream::OnNext(message);
    if (was_subscribed || !IsSubscribed(subscription.key())) return;
    publisher_.SendState(subscription.key(), *this);
  }

 private:
  bool IsSubscribed(const ProfileId& key) {
    const auto entry = stream_map_.find(&key);
    return entry != stream_map_.end() && entry->second.count(this) != 0;
  }

  const NetworkPublisher& publisher_;
};

void NetworkPublisher::Update(const NetworkChanged& state) {
  if (state_.has_value() && MessageEqual()(&*state_, &state)) return;
  state_ = state;
  publisher_.PublishToEveryKey(state);
}

std::unique_ptr<EventStream<NetworkChanged>> NetworkPublisher::OpenStream(
    Service* service, const google::protobuf::MethodDescriptor* method, StreamChannel channel) {
  return std::make_unique<Stream>(*this, service, method, std::move(channel));
}

void NetworkPublisher::SendState(const ProfileId& key, EventStream<NetworkChanged>& stream) const {
  if (!state_.has_value()) return;
  NetworkChanged event = *state_;
  *event.mutable_profile_id() = key;
  stream.channel().SendEvent(SharedEvent(event, key));
}

}  // namespace varnic::host
