#ifndef CORE_COMMON_RPC_STREAM_OPEN_CALLS_H_
#define CORE_COMMON_RPC_STREAM_OPEN_CALLS_H_

#include <google/protobuf/arena.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/common/rpc/abstract_stream.h"
#include "core/common/rpc/message_registry.h"
#include "core/common/rpc/readable_payload.h"
#include "core/common/rpc/scheduler.h"
#include "core/common/rpc/stream/callback_stream.h"
#include "core/common/rpc/stream/late_callbacks.h"
#include "core/common/rpc/stream_channel.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

// Names one call of any CallbackCaller. Never 0, and never used again in the life of the process.
using CallId = std::int64_t;

// For whoever else enters calls in the streams' tables. RPC thread only.
inline CallId NextCallId() {
  static CallId last_id = 0;
  return ++last_id;
}

struct CallbackCallerOptions {
  // Counts every call in the stream's table, whoever entered it.
  std::size_t max_open_calls_per_stream = 1024;
};

// What a CallbackCaller<T> does; that header says how it behaves. It is an object of its own
// because callables in the streams' tables, timers and posted tasks may outlive the caller: these
// know it weakly. Only work that was put off keeps it alive.
//
// A call is in `calls_` until it is decided how it ends: whoever takes it out of there sees to it
// that one of its callbacks runs.
template <class T>
class OpenCalls final : public AbstractStream::EndObserver,
                        public std::enable_shared_from_this<OpenCalls<T>> {
 public:
  using Key = std::decay_t<decltype(std::declval<const T&>().profile_id())>;
  using Request = typename T::Request;
  using OnResponse = std::function<void(const typename T::Response&)>;
  using OnError = std::function<void(const absl::Status&)>;
  struct Callbacks {
    OnResponse on_response;
    OnError on_error;
  };

  OpenCalls(Scheduler& scheduler, const CallbackCallerOptions& options)
      : scheduler_(scheduler), options_(options), ends_(scheduler) {
    PruneStreams([](const Stream* stream) { return !AbstractStream::IsLive(stream); });
  }

  CallId Start(const Key& key, const Request& request, Callbacks callbacks, absl::Duration timeout);
  bool Withdraw(CallId id) { return Abandon(id, absl::CancelledError("the call was withdrawn")); }
  void Close();
  std::size_t size() const { return calls_.size(); }

  void OnAnswered(CallId id, const T& message);
  void OnFailed(CallId id, int code);
  void OnDropped(CallId id);
  void OnStreamEnded(const AbstractStream* stream) override;
  void PostPutOffWork();

 private:
  using Stream = CallbackStream<T>;

  // Where a call stands in a stream's table.
  struct Place {
    Stream* stream;
    Key key;
    CallId id;
  };
  struct OpenCall {
    Key key;
    Callbacks callbacks;
    std::string question;  // Until it is sent.
    std::unique_ptr<Scheduler::Timer> timer;
    Stream* stream = nullptr;  // In whose table the call stands.
  };
  class Ticket;
  class Walk;

  // How a call begins. Empty if the client could not read the question.
  static std::string Question(const Key& key, const Request& request, CallId id);
  void Enter(CallId id);
  // False if there is a call of that id already.
  bool EnterInTable(Stream& stream, const Key& key, CallId id);
  bool Send(Stream& stream, const ::rpc::transport::StreamMessage& envelope);

  // How it ends.
  using TakenCall = typename std::map<CallId, OpenCall>::node_type;
  TakenCall Take(CallId id);  // Empty if it has ended.
  void OnDeadline(CallId id);
  void EndLater(CallId id, const absl::Status& status);
  bool Abandon(CallId id, const absl::Status& status);
  void TakeOutOfTable(const OpenCall& call, CallId id);
  void TakeOutOfTableNow(const Place& place);

  void PutOff();
  void DoPutOffWork();

  template <class Predicate>
  static void PruneStreams(const Predicate& is_stale);
  static Stream* FindStream(const Key& key);
  static std::size_t CountCalls(const Stream& stream);
  static bool IsPending(const Stream* stream, const Key& key, CallId id);
  static CallId FreeId(const Key& key);

  Scheduler& scheduler_;
  const CallbackCallerOptions options_;
  bool closed_ = false;
  int sending_ = 0;  // A transport may come back in while it is written to.
  std::map<CallId, OpenCall> calls_;
  LateCallbacks ends_;  // Of calls that are no longer in `calls_`.
  bool waits_for_walk_ = false;
  std::deque<CallId> to_enter_;
  std::deque<Place> to_take_out_;
};

// On the stack while a callback runs inside some stream's walk through its calls.
template <class T>
class OpenCalls<T>::Walk {
 public:
  Walk() { ++depth_; }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;
  ~Walk() {
    if (--depth_ > 0) return;
    const auto waiting = std::exchange(waiting_, {});
    for (const auto& calls : waiting) calls->PostPutOffWork();
  }

  static bool IsOnStack() { return depth_ > 0; }
  // Has `calls` post its work when the outermost callback returns, and keeps it until then.
  static void Await(std::shared_ptr<OpenCalls> calls) { waiting_.push_back(std::move(calls)); }

 private:
  static inline int depth_ = 0;
  static inline std::vector<std::shared_ptr<OpenCalls>> waiting_;
};

// Shared by the two callables of a StreamCall and by all their copies. Its destruction says that
// the table has let the call go.
template <class T>
class OpenCalls<T>::Ticket {
 public:
  Ticket(std::weak_ptr<OpenCalls> calls, CallId id) : calls_(std::move(calls)), id_(id) {}
  Ticket(const Ticket&) = delete;
  Ticket& operator=(const Ticket&) = delete;
  ~Ticket() {
    if (const auto calls = calls_.lock()) calls->OnDropped(id_);
  }

  void Answer(const T& message) const {
    if (const auto calls = calls_.lock()) calls->OnAnswered(id_, message);
  }
  void Fail(int code) const {
    if (const auto calls = calls_.lock()) calls->OnFailed(id_, code);
  }

 private:
  const std::weak_ptr<OpenCalls> calls_;
  const CallId id_;
};

template <class T>
std::string OpenCalls<T>::Question(const Key& key, const Request& request, CallId id) {
  // Most questions are small: their parts need no memory of their own.
  alignas(std::max_align_t) char memory[1024];
  google::protobuf::ArenaOptions options;
  options.initial_block = memory;
  options.initial_block_size = sizeof(memory);
  google::protobuf::Arena arena(options);
  T& question = *google::protobuf::Arena::CreateMessage<T>(&arena);
  *question.mutable_profile_id() = key;
  *question.mutable_request() = request;
  std::string payload = question.SerializeAsString();
  if (!IsReadable(question, payload)) return std::string();
  // Behind the rest, to which it belongs for every parser: with it, no payload would look plain.
  T& number = *google::protobuf::Arena::CreateMessage<T>(&arena);
  number.set_call_id(id);
  number.AppendToString(&payload);
  return payload;
}

template <class T>
CallId OpenCalls<T>::Start(const Key& key, const Request& request, Callbacks callbacks,
                           absl::Duration timeout) {
  const CallId id = FreeId(key);
  if (closed_) {
    scheduler_.Post([on_error = std::move(callbacks.on_error)] {
      on_error(absl::CancelledError("the caller is gone"));
    });
    return id;
  }
  OpenCall& call = calls_[id];
  call.key = key;
  call.callbacks = std::move(callbacks);
  call.question = Question(key, request, id);
  if (call.question.empty()) {  // Others have an id in them.
    EndLater(id, absl::InvalidArgumentError("the question has text that is no UTF-8"));
    return id;
  }
  if (timeout != absl::InfiniteDuration()) {
    call.timer = scheduler_.RunAfter(timeout, [weak = this->weak_from_this(), id] {
      if (const auto calls = weak.lock()) calls->OnDeadline(id);
    });
  }
  if (Walk::IsOnStack()) {
    to_enter_.push_back(id);
    PutOff();
  } else {
    Enter(id);
  }
  return id;
}

// One call at a time: telling one client may end the stream of another.
template <class T>
void OpenCalls<T>::Close() {
  closed_ = true;
  while (!calls_.empty()) {
    Abandon(calls_.begin()->first, absl::CancelledError("the caller is gone"));
  }
  ends_.RunAll();
}

template <class T>
void OpenCalls<T>::OnAnswered(CallId id, const T& message) {
  const Walk walk;
  TakenCall call = Take(id);
  if (!call) return;
  if (sending_ == 0) {
    call.mapped().callbacks.on_response(message.response());
  } else {
    ends_.Add([callbacks = std::move(call.mapped().callbacks), response = message.response()] {
      callbacks.on_response(response);
    });
  }
}

template <class T>
void OpenCalls<T>::OnFailed(CallId id, int code) {
  const absl::Status status =
      code == Stream::kClientError
          ? absl::AbortedError("the client reported an error")
          : absl::CancelledError("the client unsubscribed, or its stream has ended");
  if (sending_ > 0) {
    EndLater(id, status);
    return;
  }
  const Walk walk;
  const TakenCall call = Take(id);
  if (call) call.mapped().callbacks.on_error(status);
}

template <class T>
void OpenCalls<T>::OnDropped(CallId id) {
  if (calls_.count(id) == 0) return;  // As for every call that has ended well.
  EndLater(id, absl::UnavailableError("the client's stream is gone"));
}

template <class T>
void OpenCalls<T>::OnStreamEnded(const AbstractStream* stream) {
  PruneStreams([stream](const Stream* candidate) { return candidate == stream; });
  // A stream ends its calls itself, unless it completes by hand or somebody has copied a callable.
  for (auto next = calls_.begin(); next != calls_.end();) {
    const auto call = next++;
    if (call->second.stream == stream) OnDropped(call->first);
  }
  for (auto place = to_take_out_.begin(); place != to_take_out_.end();) {
    place = place->stream == stream ? to_take_out_.erase(place) : std::next(place);
  }
}

// To the stream that answers for the key now.
template <class T>
void OpenCalls<T>::Enter(CallId id) {
  const auto found = calls_.find(id);
  if (found == calls_.end()) return;  // It ended while this was put off.
  OpenCall& call = found->second;
  Stream* stream = FindStream(call.key);
  if (stream == nullptr) {
    EndLater(id, absl::NotFoundError("nobody answers for {" + call.key.ShortDebugString() + "}"));
  } else if (CountCalls(*stream) >= options_.max_open_calls_per_stream) {
    EndLater(id, absl::ResourceExhaustedError("the client has too many open calls"));
  } else if (!EnterInTable(*stream, call.key, id)) {
    EndLater(id, absl::AlreadyExistsError("somebody else has taken the call's id"));
  } else {
    call.stream = stream;
    ::rpc::transport::StreamMessage question;
    question.set_payload(std::move(call.question));
    question.set_call_id(id);
    if (!Send(*stream, question)) {
      Abandon(id, absl::UnavailableError("the client's stream cannot be written to"));
    }
  }
}

template <class T>
bool OpenCalls<T>::EnterInTable(Stream& stream, const Key& key, CallId id) {
  auto entry = stream.pending_calls_.find(&key);
  if (entry == stream.pending_calls_.end()) {
    entry = stream.pending_calls_.try_emplace(CloneKey(key)).first;
  }
  const auto [place, is_new] = entry->second.try_emplace(id);
  if (!is_new) return false;
  const auto ticket = std::make_shared<const Ticket>(this->weak_from_this(), id);
  auto& stream_call = place->second;
  stream_call.on_response = [ticket](const T& message) { ticket->Answer(message); };
  stream_call.on_error = [ticket](int code) { ticket->Fail(code); };
  return true;
}

template <class T>
bool OpenCalls<T>::Send(Stream& stream, const ::rpc::transport::StreamMessage& envelope) {
  ++sending_;
  const bool sent = stream.channel().Send(envelope);
  --sending_;
  return sent;
}

template <class T>
typename OpenCalls<T>::TakenCall OpenCalls<T>::Take(CallId id) {
  TakenCall call = calls_.extract(id);
  if (call) call.mapped().timer.reset();
  return call;
}

template <class T>
void OpenCalls<T>::OnDeadline(CallId id) {
  const TakenCall call = Take(id);
  if (!call) return;
  TakeOutOfTable(call.mapped(), id);
  call.mapped().callbacks.on_error(
      absl::DeadlineExceededError("the client did not answer in time"));
}

// For a call that stands in no table, or in one that is letting it go.
template <class T>
void OpenCalls<T>::EndLater(CallId id, const absl::Status& status) {
  TakenCall call = Take(id);
  if (!call) return;
  ends_.Add(
      [callbacks = std::move(call.mapped().callbacks), status] { callbacks.on_error(status); });
}

template <class T>
bool OpenCalls<T>::Abandon(CallId id, const absl::Status& status) {
  TakenCall call = Take(id);
  if (!call) return false;
  TakeOutOfTable(call.mapped(), id);
  ends_.Add(
      [callbacks = std::move(call.mapped().callbacks), status] { callbacks.on_error(status); });
  return true;
}

template <class T>
void OpenCalls<T>::TakeOutOfTable(const OpenCall& call, CallId id) {
  if (call.stream == nullptr) return;
  if (Walk::IsOnStack()) {
    to_take_out_.push_back({call.stream, call.key, id});
    PutOff();
  } else {
    TakeOutOfTableNow({call.stream, call.key, id});
  }
}

// And tells the client; unless the stream was quicker, and the client knows.
template <class T>
void OpenCalls<T>::TakeOutOfTableNow(const Place& place) {
  auto& table = place.stream->pending_calls_;
  const auto entry = table.find(&place.key);
  if (entry == table.end() || entry->second.erase(place.id) == 0) return;
  if (entry->second.empty()) EraseEntry(table, entry);

  T notice;
  *notice.mutable_profile_id() = place.key;
  notice.set_call_id(place.id);
  notice.set_error("withdrawn");
  ::rpc::transport::StreamMessage envelope;
  envelope.set_payload(notice.SerializeAsString());
  envelope.set_call_id(place.id);
  envelope.set_kind(::rpc::transport::StreamMessage::ERROR);
  (void)Send(*place.stream, envelope);
}

template <class T>
void OpenCalls<T>::PutOff() {
  if (std::exchange(waits_for_walk_, true)) return;
  Walk::Await(this->shared_from_this());
}

template <class T>
void OpenCalls<T>::PostPutOffWork() {
  scheduler_.Post([calls = this->shared_from_this()] { calls->DoPutOffWork(); });
}

template <class T>
void OpenCalls<T>::DoPutOffWork() {
  waits_for_walk_ = false;
  if (Walk::IsOnStack()) {  // The next callback of the same walk runs posted tasks itself.
    PutOff();
    return;
  }
  while (!to_take_out_.empty()) {
    const Place place = std::move(to_take_out_.front());
    to_take_out_.pop_front();
    TakeOutOfTableNow(place);
  }
  while (!to_enter_.empty()) {
    const CallId id = to_enter_.front();
    to_enter_.pop_front();
    Enter(id);
  }
}

template <class T>
template <class Predicate>
void OpenCalls<T>::PruneStreams(const Predicate& is_stale) {
  auto& registry = Stream::stream_map_;
  for (auto next = registry.begin(); next != registry.end();) {
    const auto entry = next++;
    if (is_stale(entry->second)) EraseEntry(registry, entry);
  }
}

template <class T>
CallbackStream<T>* OpenCalls<T>::FindStream(const Key& key) {
  const auto entry = Stream::stream_map_.find(&key);
  if (entry == Stream::stream_map_.end() || !AbstractStream::IsLive(entry->second)) return nullptr;
  return entry->second;
}

template <class T>
std::size_t OpenCalls<T>::CountCalls(const Stream& stream) {
  std::size_t calls = 0;
  for (const auto& entry : stream.pending_calls_) calls += entry.second.size();
  return calls;
}

template <class T>
bool OpenCalls<T>::IsPending(const Stream* stream, const Key& key, CallId id) {
  if (stream == nullptr) return false;
  const auto entry = stream->pending_calls_.find(&key);
  return entry != stream->pending_calls_.end() && entry->second.count(id) != 0;
}

template <class T>
CallId OpenCalls<T>::FreeId(const Key& key) {
  const Stream* stream = FindStream(key);
  CallId id = NextCallId();
  while (IsPending(stream, key, id)) id = NextCallId();
  return id;
}

}  // namespace varnic

#endif  // CORE_COMMON_RPC_STREAM_OPEN_CALLS_H_
