#ifndef CORE_COMMON_RPC_STREAM_EVENT_STREAM_H_
#define CORE_COMMON_RPC_STREAM_EVENT_STREAM_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <utility>

#include "base/memory/raw_ptr.h"
#include "core/common/rpc/abstract_stream.h"
#include "core/common/rpc/message_registry.h"
#include "core/common/rpc/service.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

// The server's side of a push stream: the client sends rpc::EventSubscription messages that
// subscribe the stream to a key or unsubscribe it, and the host pushes events of type T to every
// stream that is subscribed under a key. This class only keeps the registry of subscribed streams;
// sending is the host's business. T selects the registry and nothing else.
//
// Three things that its callers must know, all of them deliberate:
//  - A subscription message is never freed (see ParseForGood). Whoever feeds a stream with what a
//    peer sends has to bound how many it passes on.
//  - A stream that has completed, or is gone, may still stand in a set that it shared with others
//    (see OnCompleted). Whoever reads `stream_map_` has to tell such pointers apart.
//  - Nothing is checked or reported: what does not parse, or makes no sense, is ignored.
//
// RPC thread only, the registry too. Members are public for the host's side and for tests; nothing
// else writes them.
template <class T>
class EventStream : public AbstractStream {
 public:
  // `service` must outlive the stream. Subscribes to nothing.
  EventStream(Service* service, const google::protobuf::MethodDescriptor* method,
              StreamChannel channel)
      : AbstractStream(StreamChannel(std::move(channel))), service_(service), method_(method) {}
  ~EventStream() override = default;

  void OnNext(::rpc::transport::StreamMessage* message) override;
  void OnError(::rpc::transport::StreamMessage* /*message*/) override {}
  void OnCompleted() override;

  // Adds this stream to the set of `key`. One Unsubscribe() undoes any number of these.
  void Subscribe(const google::protobuf::Message& key);

  // Takes this stream out of the set of `key`, and the entry out of the registry when that empties
  // it. For a key that has no entry, `key` itself becomes the key of a passing entry and is deleted
  // with it: so `key` has to be an object on the heap that nobody else deletes, or to be known to
  // be subscribed.
  void Unsubscribe(const google::protobuf::Message& key);

  // The streams that are subscribed, by key. Owns its keys, and no stream. No set in it is empty
  // between two operations.
  static inline MessageRegistry<std::set<EventStream<T>*>> stream_map_;
  // How many times the sets in it may have changed: who walks through one while others may change
  // it need not look anything up as long as this stays. For whoever else changes them to count,
  // too.
  static inline std::uint64_t changes_ = 0;
  // The stream that is completing, if it is in none of them: nobody has to look for it there. To be
  // used for one stream's end only.
  static inline const AbstractStream* left_ = nullptr;

  raw_ptr<Service> service_;
  raw_ptr<const google::protobuf::MethodDescriptor> method_;

 private:
  // The message that this returns is never freed, on any path: Unsubscribe() may delete the key
  // that lives inside it. What does not parse is acted on as the parser left it.
  ::rpc::EventSubscription* ParseForGood(const ::rpc::transport::StreamMessage& message) {
    auto* subscription =
        static_cast<::rpc::EventSubscription*>(service_->GetRequestPrototype(method_).New(nullptr));
    (void)subscription->ParseFromString(message.payload());
    return subscription;
  }
};

template <class T>
void EventStream<T>::OnNext(::rpc::transport::StreamMessage* message) {
  ::rpc::EventSubscription* subscription = ParseForGood(*message);
  // mutable_key() makes an absent key inside the message, so that an unsubscribe never deletes a
  // default instance.
  if (subscription->action() == ::rpc::EventSubscription::UNSUBSCRIBE) {
    Unsubscribe(*subscription->mutable_key());
  } else if (subscription->action() == ::rpc::EventSubscription::SUBSCRIBE) {
    Subscribe(*subscription->mutable_key());
  }
}

template <class T>
void EventStream<T>::OnCompleted() {
  // A key that this stream shares with others is passed over, and the stream stays in its set. This
  // is the selection rule that the host's side is written to.
  std::set<const google::protobuf::Message*> keys;
  bool stays = false;
  for (const auto& [key, streams] : stream_map_) {
    const std::size_t own = streams.count(this);
    if (streams.size() == own) {
      keys.insert(key);
    } else if (own != 0) {
      stays = true;
    }
  }
  for (const google::protobuf::Message* key : keys) Unsubscribe(*key);
  left_ = stays ? nullptr : this;
  Complete();  // This may be gone.
  left_ = nullptr;
}

template <class T>
void EventStream<T>::Subscribe(const google::protobuf::Message& key) {
  ++changes_;
  auto entry = stream_map_.find(&key);
  if (entry == stream_map_.end()) {
    entry = stream_map_.emplace(CloneKey(key), std::set<EventStream<T>*>()).first;
  }
  entry->second.insert(this);
}

template <class T>
void EventStream<T>::Unsubscribe(const google::protobuf::Message& key) {
  ++changes_;
  auto entry = stream_map_.try_emplace(&key).first;
  entry->second.erase(this);
  if (entry->second.empty()) EraseEntry(stream_map_, entry);
}

}  // namespace varnic

#endif  // CORE_COMMON_RPC_STREAM_EVENT_STREAM_H_
