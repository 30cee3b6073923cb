#ifndef CORE_HOST_STATE_PUBLISHER_H_
#define CORE_HOST_STATE_PUBLISHER_H_

#include <google/protobuf/descriptor.h>

#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "core/common/rpc/message_hash.h"
#include "core/common/rpc/service.h"
#include "core/common/rpc/shared_event.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/common/rpc/stream/event_stream.h"
#include "core/common/rpc/stream_channel.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/identifiers.pb.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic::host {

// Tells the subscribers of an event stream what a state is: to each new subscriber at once, if it
// is known by then, and to the subscribers of a key whenever what they see of it has changed. No
// key is checked.
//
// State is a message that is kept here; Event, with a ProfileId profile_id, is what clients get of
// it. While a publisher exists, streams that end leave the registry, also where they share a key
// with others. It must outlive the streams that it opens. RPC thread only.
template <class State, class Event>
class StatePublisher final {
 public:
  // What the subscribers of `key` see of `state`; profile_id is set elsewhere. All text in it has
  // to be UTF-8.
  using View = std::function<Event(const State& state, const ProfileId& key)>;
  // A stream has become subscribed under `key`, and was told the state if it is known.
  using OnSubscribed = std::function<void(const ProfileId& key)>;

  // `on_subscribed` may be null, and must not call Update().
  explicit StatePublisher(View view, OnSubscribed on_subscribed = nullptr)
      : view_(std::move(view)), on_subscribed_(std::move(on_subscribed)) {}

  // Not from inside a stream's transport.
  void Update(State state);

  // A stream for Service::OpenStream(), owned by the caller: an EventStream that sends the state to
  // its client when it becomes subscribed under a key. Subscribing once more sends nothing.
  std::unique_ptr<EventStream<Event>> OpenStream(Service* service,
                                                 const google::protobuf::MethodDescriptor* method,
                                                 StreamChannel channel) {
    return std::make_unique<Stream>(*this, service, method, std::move(channel));
  }

 private:
  // Does what its base does, and then looks whether that has subscribed it to something new.
  class Stream : public EventStream<Event> {
   public:
    Stream(const StatePublisher& publisher, Service* service,
           const google::protobuf::MethodDescriptor* method, StreamChannel channel)
        : EventStream<Event>(service, method, std::move(channel)), publisher_(publisher) {}

    void OnNext(::rpc::transport::StreamMessage* message) override {
      ::rpc::EventSubscription subscription;
      (void)subscription.ParseFromString(message->payload());
      const bool was_subscribed = IsSubscribed(subscription.key());
      EventStream<Event>::OnNext(message);
      if (was_subscribed || !IsSubscribed(subscription.key())) return;
      publisher_.WelcomeSubscriber(subscription.key(), *this);
    }

   private:
    bool IsSubscribed(const ProfileId& key) {
      const auto entry = EventStream<Event>::stream_map_.find(&key);
      return entry != EventStream<Event>::stream_map_.end() && entry->second.count(this) != 0;
    }

    const StatePublisher& publisher_;
  };

  void WelcomeSubscriber(const ProfileId& key, EventStream<Event>& stream) const;

  const View view_;
  const OnSubscribed on_subscribed_;
  EventPublisher<Event> publisher_;
  std::optional<State> state_;  // None until the first Update().
};

template <class State, class Event>
void StatePublisher<State, Event>::Update(State state) {
  const std::optional<State> former = std::exchange(state_, std::move(state));
  // Copies, because an entry may go, with its key, while this sends.
  std::vector<ProfileId> keys;
  for (const auto& entry : EventStream<Event>::stream_map_) {
    keys.emplace_back().CopyFrom(*entry.first);
  }
  for (const ProfileId& key : keys) {
    const Event event = view_(*state_, key);
    if (former.has_value()) {
      const Event former_event = view_(*former, key);
      if (MessageEqual()(&event, &former_event)) continue;
    }
    publisher_.Publish(key, event);
  }
}

template <class State, class Event>
void StatePublisher<State, Event>::WelcomeSubscriber(const ProfileId& key,
                                                     EventStream<Event>& stream) const {
  if (state_.has_value()) {
    Event event = view_(*state_, key);
    *event.mutable_profile_id() = key;
    stream.channel().SendEvent(SharedEvent(event, key));
  }
  if (on_subscribed_ != nullptr) on_subscribed_(key);
}

}  // namespace varnic::host

#endif  // CORE_HOST_STATE_PUBLISHER_H_
