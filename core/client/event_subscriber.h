#ifndef CORE_CLIENT_EVENT_SUBSCRIBER_H_
#define CORE_CLIENT_EVENT_SUBSCRIBER_H_

#include <google/protobuf/descriptor.h>

#include <functional>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "core/client/client.h"
#include "core/client/stream_listeners.h"
#include "core/client/subscription_stream.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/identifiers.pb.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

// Hears the events of one event stream, and comes back by itself after a loss; see StreamListeners.
// Events that are published while the stream is down are lost: on_up is where to ask for the state.
// What does not parse is dropped, with a warning in the log.
//
// Opens at once. Lives on the client's loop, where its callbacks run; the client must outlive it.
// It may be destroyed inside its own callbacks, and destroying it ends the stream without a word.
template <class Event>
class EventSubscriber final {
 public:
  using OnEvent = std::function<void(const Event&)>;  // The event is lent for the call.

  EventSubscriber(Client& client, const google::protobuf::MethodDescriptor& method,
                  OnEvent on_event, StreamListeners listeners = {})
      : stream_(client, method, MakePayload, Deliver(std::move(on_event)), /*on_lost=*/nullptr,
                std::move(listeners)) {}
  EventSubscriber(const EventSubscriber&) = delete;
  EventSubscriber& operator=(const EventSubscriber&) = delete;

  // Remembered over reconnects. Nothing happens if the key is subscribed already.
  void Subscribe(const ProfileId& key) { stream_.Subscribe(key); }
  // Events that are on their way may still come.
  void Unsubscribe(const ProfileId& key) { stream_.Unsubscribe(key); }

 private:
  static std::string MakePayload(const ProfileId& key, bool subscribe) {
    ::rpc::EventSubscription subscription;
    *subscription.mutable_key() = key;
    subscription.set_action(subscribe ? ::rpc::EventSubscription::SUBSCRIBE
                                      : ::rpc::EventSubscription::UNSUBSCRIBE);
    return subscription.SerializeAsString();
  }

  static SubscriptionStream::OnEnvelope Deliver(OnEvent on_event) {
    return [on_event = std::move(on_event)](const ::rpc::transport::StreamMessage& envelope) {
      Event event;
      if (!event.ParseFromString(envelope.payload())) {
        return NotSerialisedError(*Event::descriptor());
      }
      if (on_event != nullptr) on_event(event);
      return absl::OkStatus();
    };
  }

  SubscriptionStream stream_;
};

}  // namespace varnic

#endif  // CORE_CLIENT_EVENT_SUBSCRIBER_H_
