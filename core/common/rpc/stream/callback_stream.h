#ifndef CORE_COMMON_RPC_STREAM_CALLBACK_STREAM_H_
#define CORE_COMMON_RPC_STREAM_CALLBACK_STREAM_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "base/logging.h"
#include "base/memory/raw_ptr.h"
#include "core/common/rpc/abstract_stream.h"
#include "core/common/rpc/fatal.h"
#include "core/common/rpc/message_registry.h"
#include "core/common/rpc/service.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

// The server's side of a stream on which a client answers the host's questions. The client
// subscribes for a key (a profile); the host finds the stream by key in `stream_map_`, enters a
// StreamCall in `pending_calls_` and sends its question; the client's answer, its error, or the end
// of the stream then runs one of the call's two callables.
//
// T carries `profile_id` (the key; absent stands for the empty one) and a oneof `kind` with
// `bool subscribe = 2` and `response = 4`.
//
// What its callers must know, all of it deliberate:
//  - A message from the client with neither `subscribe` nor `response` set (an empty payload, say)
//    stops the process at once. Whoever feeds a stream with what a peer sends has to keep such
//    messages away.
//  - Anyone may unsubscribe any key of the same T, and the last subscriber of a key wins; the
//    stream that had it is not told.
//  - A callable must not add or remove calls under the key that is being processed.
//  - A stream that is destroyed without OnCompleted() drops its calls without running them, leaks
//    their keys, and stays in `stream_map_`.
//
// RPC thread only, the registry too; callables run inside the operations. Members are public for
// the host's side, which registers calls, and for tests.
template <class T>
class CallbackStream : public AbstractStream {
 public:
  // A question that waits for its answer. Copyable: a cancellation runs a copy.
  struct StreamCall {
    // The client answered. Gets the client's whole message, lent for the call.
    std::function<void(const T&)> on_response;
    // The call ended without an answer, with kCancelled or kClientError.
    std::function<void(int)> on_error;
  };

  static constexpr int kCancelled = 1;
  static constexpr int kClientError = 2;

  // `service` must outlive the stream. Answers for nobody yet.
  CallbackStream(Service* service, const google::protobuf::MethodDescriptor* method,
                 StreamChannel channel)
      : AbstractStream(StreamChannel(std::move(channel))), service_(service), method_(method) {}
  ~CallbackStream() override = default;

  void OnNext(::rpc::transport::StreamMessage* message) override;
  void OnError(::rpc::transport::StreamMessage* message) override;
  void OnCompleted() override;

  // Makes this stream the one that answers for `key`, with a warning in the log if another was.
  void Subscribe(const google::protobuf::Message& key);

  // Fails every call of this stream under `key` with kCancelled, in ascending order of their ids.
  void CancelPendingRequests(const google::protobuf::Message& key);

  // The one stream that answers for each key. Owns its keys, and no stream.
  static inline MessageRegistry<CallbackStream<T>*> stream_map_;

  raw_ptr<Service> service_;
  raw_ptr<const google::protobuf::MethodDescriptor> method_;
  // By key, and then by call id. The destructor leaks the keys of what is left.
  MessageRegistry<std::map<std::int64_t, StreamCall>> pending_calls_;

 private:
  // What does not parse is acted on as the parser left it.
  std::unique_ptr<T> Parse(const ::rpc::transport::StreamMessage& message) {
    std::unique_ptr<T> parsed(
        static_cast<T*>(service_->GetResponsePrototype(method_).New(nullptr)));
    (void)parsed->ParseFromString(message.payload());
    return parsed;
  }

  void Unsubscribe(const google::protobuf::Message& key);

  // Runs `end` on the call `call_id` under `key`, if there is one, and then takes the call out.
  template <class End>
  void EndCall(const google::protobuf::Message& key, std::int64_t call_id, const End& end);

  template <class Value>
  static void EraseIfPresent(MessageRegistry<Value>& registry,
                             const google::protobuf::Message& key) {
    auto entry = registry.find(&key);
    if (entry != registry.end()) EraseEntry(registry, entry);
  }
};

template <class T>
void CallbackStream<T>::OnNext(::rpc::transport::StreamMessage* message) {
  static_assert(T::kSubscribe == 2 && T::kResponse == 4, "clients depend on these field numbers");
  const std::unique_ptr<T> parsed = Parse(*message);
  switch (parsed->kind_case()) {
    case T::kResponse:
      EndCall(parsed->profile_id(), message->call_id(),
              [&](const StreamCall& call) { call.on_response(*parsed); });
      break;
    case T::kSubscribe:
      if (parsed->subscribe()) {
        Subscribe(parsed->profile_id());
      } else {
        Unsubscribe(parsed->profile_id());
      }
      break;
    default:
      ImmediateTrap();
  }
}

template <class T>
void CallbackStream<T>::OnError(::rpc::transport::StreamMessage* message) {
  const std::unique_ptr<T> parsed = Parse(*message);
  EndCall(parsed->profile_id(), message->call_id(),
          [](const StreamCall& call) { call.on_error(kClientError); });
}

template <class T>
void CallbackStream<T>::OnCompleted() {
  // Each cancellation deletes the key that it is given, so the keys are gathered first.
  std::vector<const google::protobuf::Message*> pending;
  for (const auto& [key, calls] : pending_calls_) pending.push_back(key);
  for (const google::protobuf::Message* key : pending) CancelPendingRequests(*key);

  std::set<const google::protobuf::Message*> own;
  for (const auto& [key, stream] : stream_map_) {
    if (stream == this) own.insert(key);
  }
  for (const google::protobuf::Message* key : own) EraseIfPresent(stream_map_, *key);
  Complete();
}

template <class T>
void CallbackStream<T>::Subscribe(const google::protobuf::Message& key) {
  auto entry = stream_map_.find(&key);
  if (entry == stream_map_.end()) {
    stream_map_.emplace(CloneKey(key), this);
    return;
  }
  if (entry->second == this) return;
  if (logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) {
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
        << "The subscriber is already associated with another stream. " << key.ShortDebugString();
  }
  entry->second = this;
}

// Whichever stream answers for `key`, nobody does afterwards; the calls that fail are this stream's
// own. OnCompleted() takes out only what names its own stream: the difference is intended.
template <class T>
void CallbackStream<T>::Unsubscribe(const google::protobuf::Message& key) {
  EraseIfPresent(stream_map_, key);
  CancelPendingRequests(key);
}

template <class T>
void CallbackStream<T>::CancelPendingRequests(const google::protobuf::Message& key) {
  auto entry = pending_calls_.find(&key);
  if (entry == pending_calls_.end()) return;
  // On copies: the stored calls stay as they are until the walk is over.
  auto& calls = entry->second;
  for (auto call = calls.begin(); call != calls.end(); ++call) {
    const std::pair<const std::int64_t, StreamCall> copy = *call;
    copy.second.on_error(kCancelled);
  }
  // Found again, because a callable may have made the table grow. `key` may be the stored key.
  EraseIfPresent(pending_calls_, key);
}

template <class T>
template <class End>
void CallbackStream<T>::EndCall(const google::protobuf::Message& key, std::int64_t call_id,
                                const End& end) {
  auto entry = pending_calls_.find(&key);
  if (entry == pending_calls_.end()) return;
  auto& calls = entry->second;
  if (auto call = calls.find(call_id); call != calls.end()) {
    end(call->second);
    calls.erase(call);
  }
  // Found again, because a callable may have made the table grow.
  if (calls.empty()) EraseIfPresent(pending_calls_, key);
}

}  // namespace varnic

#endif  // CORE_COMMON_RPC_STREAM_CALLBACK_STREAM_H_
