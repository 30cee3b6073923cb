#ifndef CORE_COMMON_RPC_STREAM_OPEN_CALLS_H_
#define CORE_COMMON_RPC_STREAM_OPEN_CALLS_H_

#include <google/protobuf/descriptor.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "absl/container/flat_hash_map.h"
#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/common/rpc/abstract_stream.h"
#include "core/common/rpc/field_writer.h"
#include "core/common/rpc/message_registry.h"
#include "core/common/rpc/readable_payload.h"
#include "core/common/rpc/scheduler.h"
#include "core/common/rpc/stream/callback_stream.h"
#include "core/common/rpc/stream/late_callbacks.h"
#include "core/common/rpc/stream_channel.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

// Names one call of any CallbackCaller. Never 0, and never used again in the life of the process.
// On the wire the call has the same id, unless somebody has entered another one under it by hand.
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
    All().push_back(this);
  }
  ~OpenCalls() override { All().erase(std::find(All().begin(), All().end(), this)); }

  CallId Start(const Key& key, const Request& request, OnResponse&& on_response, OnError&& on_error,
               absl::Duration timeout);
  bool Withdraw(CallId id) { return Abandon(id, absl::CancelledError("the call was withdrawn")); }
  void Close();
  std::size_t size() const { return calls_.size(); }

  // They touch nothing of this once they have run a callback, which may destroy it.
  void OnAnswered(CallId id, const T& message);
  void OnFailed(CallId id, int code);
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
    CallId id_there = 0;
    int tickets = 0;  // Of the table's, and of copies of what stands there.
  };
  class Ticket;
  class Walk;

  // Never destroyed: a stream, with the tickets in its table, may outlive the statics.
  static std::vector<OpenCalls*>& All() {
    static auto& all = *new std::vector<OpenCalls*>;
    return all;
  }
  // Whether there is something at `calls`. When it is about to go, it has no calls any more.
  static bool IsThere(const OpenCalls* calls);
  // Counts the tickets of a call that has not ended.
  void AddTicket(CallId id);
  void DropTicket(CallId id);

  // How a call begins.
  OpenCall& Add(CallId id);
  // Without its id.
  void WriteQuestion(const Key& key, const Request& request, std::string& question);
  static void WriteId(CallId id, std::string& question);
  void Enter(CallId id);
  // Returns the id that the call has there.
  CallId EnterInTable(Stream& stream, const Key& key, CallId id);
  bool SendQuestion(Stream& stream, CallId id, std::string& question);
  bool Send(Stream& stream, const ::rpc::transport::StreamMessage& envelope);

  // In ascending order.
  template <class Predicate>
  std::vector<CallId> FindCalls(const Predicate& matches) const;

  // How it ends.
  std::unique_ptr<OpenCall> Take(CallId id);  // Null if it has ended.
  // Keeps the call's memory for another one.
  Callbacks Release(std::unique_ptr<OpenCall> call);
  void OnDropped(CallId id);
  void OnDeadline(CallId id);
  void EndLater(CallId id, const absl::Status& status);
  bool Abandon(CallId id, const absl::Status& status);
  void TakeOutOfTable(const OpenCall& call);
  void TakeOutOfTableNow(const Place& place);

  void PutOff();
  void DoPutOffWork();

  template <class Predicate>
  static void PruneStreams(const Predicate& is_stale);
  static Stream* FindStream(const Key& key);
  static std::size_t CountCalls(const Stream& stream);

  Scheduler& scheduler_;
  const CallbackCallerOptions options_;
  bool closed_ = false;
  int sending_ = 0;  // A transport may come back in while it is written to.
  absl::flat_hash_map<CallId, std::unique_ptr<OpenCall>> calls_;
  // Of calls that have ended, for others; the texts in them are short.
  std::vector<std::unique_ptr<OpenCall>> spare_;
  static constexpr std::size_t kMaxSpare = 64;
  static constexpr std::size_t kMaxSpareText = 1 << 10;
  ::rpc::transport::StreamMessage envelope_;  // Of the question that is being sent.
  // What the last question was for, and the field that says so; empty before the first.
  Key last_key_;
  std::string last_key_field_;
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

// What a StreamCall and its copies have of an open call. When the last of them goes, the table has
// let the call go.
template <class T>
class OpenCalls<T>::Ticket {
 public:
  Ticket(OpenCalls& calls, CallId id) : calls_(&calls), id_(id) { calls.AddTicket(id); }
  Ticket(const Ticket& other) : calls_(other.calls_), id_(other.id_) {
    if (IsThere(calls_)) calls_->AddTicket(id_);
  }
  Ticket(Ticket&& other) noexcept : calls_(std::exchange(other.calls_, nullptr)), id_(other.id_) {}
  Ticket& operator=(const Ticket&) = delete;
  ~Ticket() {
    if (IsThere(calls_)) calls_->DropTicket(id_);
  }

  void Fail(int code) const {
    if (IsThere(calls_)) calls_->OnFailed(id_, code);
  }

 private:
  OpenCalls* calls_;
  const CallId id_;
};

template <class T>
bool OpenCalls<T>::IsThere(const OpenCalls* calls) {
  return std::find(All().begin(), All().end(), calls) != All().end();
}

template <class T>
void OpenCalls<T>::AddTicket(CallId id) {
  const auto call = calls_.find(id);
  if (call != calls_.end()) ++call->second->tickets;
}

template <class T>
void OpenCalls<T>::DropTicket(CallId id) {
  const auto call = calls_.find(id);
  if (call != calls_.end() && --call->second->tickets == 0) OnDropped(id);
}

template <class T>
typename OpenCalls<T>::OpenCall& OpenCalls<T>::Add(CallId id) {
  std::unique_ptr<OpenCall>& call = calls_[id];
  if (spare_.empty()) {
    call = std::make_unique<OpenCall>();
  } else {
    call = std::move(spare_.back());
    spare_.pop_back();
  }
  return *call;
}

template <class T>
void OpenCalls<T>::WriteQuestion(const Key& key, const Request& request, std::string& question) {
  question.clear();
  // Most questions are for the key of the one before.
  if (last_key_field_.empty() || !MessageEqual()(&key, &last_key_)) {
    last_key_ = key;
    last_key_field_.clear();
    AppendMessageField(T::kProfileIdFieldNumber, key, last_key_field_);
  }
  question.append(last_key_field_);
  AppendMessageField(T::kRequestFieldNumber, request, question);
}

template <class T>
void OpenCalls<T>::WriteId(CallId id, std::string& question) {
  static const auto id_type = T::descriptor()->FindFieldByNumber(T::kCallIdFieldNumber)->type();
  if (id_type == google::protobuf::FieldDescriptor::TYPE_INT64) {
    AppendInt64Field(T::kCallIdFieldNumber, id, question);
  } else {
    T number;
    number.set_call_id(id);
    number.AppendToString(&question);
  }
}

template <class T>
CallId OpenCalls<T>::Start(const Key& key, const Request& request, OnResponse&& on_response,
                           OnError&& on_error, absl::Duration timeout) {
  const CallId id = NextCallId();
  if (closed_) {
    scheduler_.Post(
        [on_error = std::move(on_error)] { on_error(absl::CancelledError("the caller is gone")); });
    return id;
  }
  OpenCall& call = Add(id);
  WriteQuestion(key, request, call.question);
  call.key = key;
  call.callbacks.on_response = std::move(on_response);
  call.callbacks.on_error = std::move(on_error);
  // Before the id comes behind it: with that, no question would look plain.
  if (!IsReadable(T::default_instance(), call.question)) {
    EndLater(id, absl::InvalidArgumentError("the question has text that is no UTF-8"));
    return id;
  }
  WriteId(id, call.question);
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
    for (const CallId id : FindCalls([](const OpenCall& /*call*/) { return true; })) {
      Abandon(id, absl::CancelledError("the caller is gone"));
    }
  }
  ends_.RunAll();
}

template <class T>
void OpenCalls<T>::OnAnswered(CallId id, const T& message) {
  const Walk walk;
  std::unique_ptr<OpenCall> call = Take(id);
  if (call == nullptr) return;
  Callbacks callbacks = Release(std::move(call));
  if (sending_ == 0) {
    callbacks.on_response(message.response());
  } else {
    ends_.Add([callbacks = std::move(callbacks), response = message.response()] {
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
  std::unique_ptr<OpenCall> call = Take(id);
  if (call != nullptr) Release(std::move(call)).on_error(status);
}

template <class T>
void OpenCalls<T>::OnDropped(CallId id) {
  EndLater(id, absl::UnavailableError("the client's stream is gone"));
}

template <class T>
void OpenCalls<T>::OnStreamEnded(const AbstractStream* stream) {
  PruneStreams([stream](const Stream* candidate) { return candidate == stream; });
  // A stream ends its calls itself, unless it completes by hand or somebody has copied a callable.
  for (const CallId id : FindCalls([=](const OpenCall& call) { return call.stream == stream; })) {
    OnDropped(id);
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
  OpenCall& call = *found->second;
  Stream* stream = FindStream(call.key);
  if (stream == nullptr) {
    EndLater(id, absl::NotFoundError("nobody answers for {" + call.key.ShortDebugString() + "}"));
  } else if (CountCalls(*stream) >= options_.max_open_calls_per_stream) {
    EndLater(id, absl::ResourceExhaustedError("the client has too many open calls"));
  } else {
    call.id_there = EnterInTable(*stream, call.key, id);
    call.stream = stream;
    if (call.id_there != id) WriteId(call.id_there, call.question);  // The last one counts.
    if (!SendQuestion(*stream, call.id_there, call.question)) {
      Abandon(id, absl::UnavailableError("the client's stream cannot be written to"));
    }
  }
}

template <class T>
CallId OpenCalls<T>::EnterInTable(Stream& stream, const Key& key, CallId id) {
  typename Stream::StreamCall call = {
      // Small and plain enough to need no memory of its own, as a ticket would.
      [calls = this, id](const T& message) {
        if (IsThere(calls)) calls->OnAnswered(id, message);
      },
      [ticket = Ticket(*this, id)](int code) { ticket.Fail(code); },
  };
  auto entry = stream.pending_calls_.find(&key);
  if (entry == stream.pending_calls_.end()) {
    entry = stream.pending_calls_.try_emplace(CloneKey(key)).first;
  }
  // Where there is a call of that id already, nothing is moved from.
  CallId id_there = id;
  while (!entry->second.try_emplace(id_there, std::move(call)).second) id_there = NextCallId();
  return id_there;
}

// Takes the question's text, and leaves memory for another one.
template <class T>
bool OpenCalls<T>::SendQuestion(Stream& stream, CallId id, std::string& question) {
  // For large ones, and for what a transport asks while it is written to.
  ::rpc::transport::StreamMessage own;
  const bool shares = sending_ == 0 && question.capacity() <= kMaxSpareText;
  ::rpc::transport::StreamMessage& envelope = shares ? envelope_ : own;
  envelope.mutable_payload()->swap(question);
  envelope.set_call_id(id);
  return Send(stream, envelope);
}

template <class T>
bool OpenCalls<T>::Send(Stream& stream, const ::rpc::transport::StreamMessage& envelope) {
  ++sending_;
  const bool sent = stream.channel().Send(envelope);
  --sending_;
  return sent;
}

template <class T>
template <class Predicate>
std::vector<CallId> OpenCalls<T>::FindCalls(const Predicate& matches) const {
  std::vector<CallId> ids;
  for (const auto& [id, call] : calls_) {
    if (matches(*call)) ids.push_back(id);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

template <class T>
std::unique_ptr<typename OpenCalls<T>::OpenCall> OpenCalls<T>::Take(CallId id) {
  const auto found = calls_.find(id);
  if (found == calls_.end()) return nullptr;
  std::unique_ptr<OpenCall> call = std::move(found->second);
  calls_.erase(found);
  call->timer.reset();
  return call;
}

template <class T>
typename OpenCalls<T>::Callbacks OpenCalls<T>::Release(std::unique_ptr<OpenCall> call) {
  Callbacks callbacks = std::move(call->callbacks);
  const bool is_small =
      call->key.ByteSizeLong() <= kMaxSpareText && call->question.capacity() <= kMaxSpareText;
  if (!is_small || spare_.size() >= kMaxSpare) return callbacks;
  call->callbacks = Callbacks();
  call->stream = nullptr;
  call->tickets = 0;
  spare_.push_back(std::move(call));
  return callbacks;
}

template <class T>
void OpenCalls<T>::OnDeadline(CallId id) {
  std::unique_ptr<OpenCall> call = Take(id);
  if (call == nullptr) return;
  TakeOutOfTable(*call);
  Release(std::move(call))
      .on_error(absl::DeadlineExceededError("the client did not answer in time"));
}

// For a call that stands in no table, or in one that is letting it go.
template <class T>
void OpenCalls<T>::EndLater(CallId id, const absl::Status& status) {
  std::unique_ptr<OpenCall> call = Take(id);
  if (call == nullptr) return;
  ends_.Add([callbacks = Release(std::move(call)), status] { callbacks.on_error(status); });
}

template <class T>
bool OpenCalls<T>::Abandon(CallId id, const absl::Status& status) {
  std::unique_ptr<OpenCall> call = Take(id);
  if (call == nullptr) return false;
  TakeOutOfTable(*call);
  ends_.Add([callbacks = Release(std::move(call)), status] { callbacks.on_error(status); });
  return true;
}

template <class T>
void OpenCalls<T>::TakeOutOfTable(const OpenCall& call) {
  if (call.stream == nullptr) return;
  if (Walk::IsOnStack()) {
    to_take_out_.push_back({call.stream, call.key, call.id_there});
    PutOff();
  } else {
    TakeOutOfTableNow({call.stream, call.key, call.id_there});
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

}  // namespace varnic

#endif  // CORE_COMMON_RPC_STREAM_OPEN_CALLS_H_
