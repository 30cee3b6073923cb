#ifndef CORE_COMMON_RPC_STREAM_EVENT_PUBLISHER_H_
#define CORE_COMMON_RPC_STREAM_EVENT_PUBLISHER_H_

#include <google/protobuf/message.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/logging.h"
#include "core/common/rpc/abstract_stream.h"
#include "core/common/rpc/fatal.h"
#include "core/common/rpc/message_registry.h"
#include "core/common/rpc/readable_payload.h"
#include "core/common/rpc/shared_event.h"
#include "core/common/rpc/stream/event_stream.h"
#include "core/common/rpc/stream_channel.h"

namespace varnic {

// The host's side of EventStream<T>: sends events to the streams that are subscribed under a key.
// Owns no stream; the registry is the one of the class EventStream<T>, whoever opened the streams.
//
// While a publisher exists, it also keeps that registry clean: a stream that completes, or is
// destroyed without completing, leaves every set, and a set that this empties leaves the registry
// with its key. So make the publisher before the first stream opens. One that is made later drops
// the pointers at which no stream lives, but cannot tell a stream that ended before from a newer
// one at the same address.
//
// RPC thread only. A transport may end, open and unsubscribe streams, and publish again, while an
// event is handed to it; the publisher must not be destroyed then.
template <class T>
class EventPublisher final : private AbstractStream::EndObserver {
 public:
  EventPublisher() {
    Prune([](const Stream* stream) { return !AbstractStream::IsLive(stream); });
  }
  ~EventPublisher() override { VARNIC_CHECK(publishing_ == 0); }

  // Sends `event` to the streams that are subscribed under `key`, by content, when this is called.
  // If T has a field `profile_id` of the key's type, what is sent carries the key there. The event
  // is serialised once and its bytes are shared. Returns how many streams took it. `key` is lent
  // for the call; it must not be one that the registry owns.
  //
  // An event with text that is no UTF-8 is not sent to anyone, with a warning in the log: clients
  // could not read it.
  std::size_t Publish(const google::protobuf::Message& key, const T& event);

  // Publishes `event` under every key that has subscribers. Returns how many events streams took: a
  // stream gets one for each of its keys.
  std::size_t PublishToEveryKey(const T& event);

 private:
  using Stream = EventStream<T>;
  using Streams = std::set<Stream*>;

  template <class Event, class = void>
  struct HasProfileId : std::false_type {};
  template <class Event>
  struct HasProfileId<Event, std::void_t<decltype(std::declval<Event&>().mutable_profile_id())>>
      : std::is_convertible<decltype(std::declval<Event&>().mutable_profile_id()),
                            google::protobuf::Message*> {};

  void OnStreamEnded(const AbstractStream* stream) override;

  // Takes what `is_stale` holds for out of every set, and the entries that this empties.
  template <class Predicate>
  static void Prune(const Predicate& is_stale);
  // Whether `stream`, which may be gone, is subscribed under `key`.
  static bool IsSubscribed(const google::protobuf::Message& key, Stream* stream);
  static SharedEvent Serialize(const T& event, const google::protobuf::Message& key);
  static void WarnOfUnreadable();

  int publishing_ = 0;             // How many times Publish() is on the stack.
  std::vector<Stream*> snapshot_;  // Empty between two operations; kept for its memory.
};

template <class T>
std::size_t EventPublisher<T>::Publish(const google::protobuf::Message& key, const T& event) {
  const auto entry = Stream::stream_map_.find(&key);
  if (entry == Stream::stream_map_.end()) return 0;

  const SharedEvent shared = Serialize(event, key);
  if (!IsReadable(event, shared.payload())) {
    WarnOfUnreadable();
    return 0;
  }
  // The set may change while this sends, and Publish() may come back in.
  std::vector<Stream*> snapshot = std::move(snapshot_);
  snapshot.assign(entry->second.begin(), entry->second.end());
  const std::uint64_t changes = Stream::changes_;
  std::size_t taken = 0;
  ++publishing_;
  for (Stream* stream : snapshot) {
    if (changes != Stream::changes_ && !IsSubscribed(key, stream)) continue;
    if (AbstractStream::IsLive(stream) && stream->channel().SendEvent(shared)) ++taken;
  }
  --publishing_;
  snapshot.clear();
  snapshot_ = std::move(snapshot);
  return taken;
}

template <class T>
std::size_t EventPublisher<T>::PublishToEveryKey(const T& event) {
  // Copies, because an entry may go, with its key, while this sends.
  std::vector<std::unique_ptr<const google::protobuf::Message>> keys;
  keys.reserve(Stream::stream_map_.size());
  for (const auto& entry : Stream::stream_map_) keys.emplace_back(CloneKey(*entry.first));
  std::size_t taken = 0;
  for (const auto& key : keys) taken += Publish(*key, event);
  return taken;
}

template <class T>
void EventPublisher<T>::OnStreamEnded(const AbstractStream* stream) {
  if (std::exchange(Stream::left_, nullptr) == stream) return;
  Prune([stream](const Stream* candidate) { return candidate == stream; });
}

template <class T>
template <class Predicate>
void EventPublisher<T>::Prune(const Predicate& is_stale) {
  ++Stream::changes_;
  auto& registry = Stream::stream_map_;
  for (auto next = registry.begin(); next != registry.end();) {
    const auto entry = next++;
    Streams& streams = entry->second;
    for (auto stream = streams.begin(); stream != streams.end();) {
      stream = is_stale(*stream) ? streams.erase(stream) : std::next(stream);
    }
    if (streams.empty()) EraseEntry(registry, entry);
  }
}

template <class T>
bool EventPublisher<T>::IsSubscribed(const google::protobuf::Message& key, Stream* stream) {
  const auto entry = Stream::stream_map_.find(&key);
  return entry != Stream::stream_map_.end() && entry->second.count(stream) != 0;
}

template <class T>
SharedEvent EventPublisher<T>::Serialize(const T& event, const google::protobuf::Message& key) {
  if constexpr (HasProfileId<T>::value) {
    if (event.profile_id().GetDescriptor() == key.GetDescriptor()) {
      T keyed(event);
      keyed.mutable_profile_id()->CopyFrom(key);
      return SharedEvent(keyed, key);
    }
  }
  return SharedEvent(event, key);
}

template <class T>
void EventPublisher<T>::WarnOfUnreadable() {
  if (!logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
      << "An event with text that is no UTF-8 is not sent: " << T::descriptor()->full_name();
}

}  // namespace varnic

#endif  // CORE_COMMON_RPC_STREAM_EVENT_PUBLISHER_H_
