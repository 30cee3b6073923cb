#ifndef CORE_COMMON_RPC_STREAM_CALLBACK_CALLER_H_
#define CORE_COMMON_RPC_STREAM_CALLBACK_CALLER_H_

#include <cstddef>
#include <memory>
#include <utility>

#include "absl/time/time.h"
#include "core/common/rpc/fatal.h"
#include "core/common/rpc/scheduler.h"
#include "core/common/rpc/stream/open_calls.h"

namespace varnic {

// The host's side of CallbackStream<T>: asks the client that answers for a key, and tells the asker
// how the question ended. A call ends in exactly one callback:
//
//   on_response        the client answered
//   INVALID_ARGUMENT   the key or the request has text that is no UTF-8: nothing is sent
//   NOT_FOUND          nobody answers for the key
//   RESOURCE_EXHAUSTED the stream that answers for the key has too many open calls
//   DEADLINE_EXCEEDED  the time was up; a late answer is dropped, and the client is told
//   ABORTED            the client reported an error for the call
//   CANCELLED          the client unsubscribed, the stream completed, the asker withdrew the call
//                      or destroyed the caller; in the last two cases, the client is told
//   UNAVAILABLE        the stream is gone, or could not be written to
//
// What the client is told is a T with `profile_id`, `call_id` and the `error` "withdrawn", in an
// envelope of kind ERROR: nobody waits for this answer any more.
//
// Call() and Withdraw() may be called from anywhere, also from inside a callback of any caller of
// the same T, which may run while a stream walks its calls; what would touch the tables is then put
// off until the walk is over. Neither of the two runs a callback. A callback may destroy the
// caller. The destructor runs the callbacks of what is still open; a Call() made by one of these
// ends with CANCELLED after the caller is gone. Callables that a host enters in a stream's table by
// hand must not use a caller of that T.
//
// While a caller exists, a stream that ends leaves CallbackStream<T>::stream_map_, also when it is
// destroyed without having completed. So make the caller before the first stream opens: one that is
// made later drops the pointers at which no stream lives, but cannot tell a stream that ended
// before from a newer one at the same address.
//
// Owns no stream. Several callers of one T share the streams. RPC thread only.
template <class T>
class CallbackCaller final {
 public:
  using Key = typename OpenCalls<T>::Key;
  using Request = typename T::Request;
  using Options = CallbackCallerOptions;
  using OnResponse = typename OpenCalls<T>::OnResponse;  // Of const T::Response&, lent.
  using OnError = typename OpenCalls<T>::OnError;        // Of const absl::Status&.

  // `scheduler` must outlive the caller, and is what ends calls when nothing else does.
  explicit CallbackCaller(Scheduler& scheduler, Options options = {})
      : calls_(std::make_shared<OpenCalls<T>>(scheduler, options)) {}
  CallbackCaller(const CallbackCaller&) = delete;
  CallbackCaller& operator=(const CallbackCaller&) = delete;
  ~CallbackCaller() { calls_->Close(); }  // May come back in.

  // Sends `request` to the stream that answers for `key`. With absl::InfiniteDuration() the call
  // has no deadline.
  CallId Call(const Key& key, const Request& request, OnResponse on_response, OnError on_error,
              absl::Duration timeout) {
    VARNIC_CHECK(on_response != nullptr && on_error != nullptr);
    const std::shared_ptr<OpenCalls<T>> calls = calls_;  // The caller may go while this sends.
    return calls->Start(key, request, std::move(on_response), std::move(on_error), timeout);
  }

  // Ends a call with CANCELLED, and tells the client. False if the call has ended already.
  bool Withdraw(CallId id) {
    const std::shared_ptr<OpenCalls<T>> calls = calls_;
    return calls->Withdraw(id);
  }

  // The calls that have not ended.
  std::size_t open_calls() const { return calls_->size(); }

 private:
  std::shared_ptr<OpenCalls<T>> calls_;  // Owned elsewhere only for work that was put off.
};

}  // namespace varnic

#endif  // CORE_COMMON_RPC_STREAM_CALLBACK_CALLER_H_
