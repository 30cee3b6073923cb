#ifndef CORE_CLIENT_STREAM_LISTENERS_H_
#define CORE_CLIENT_STREAM_LISTENERS_H_

#include <functional>

#include "absl/status/status.h"
#include "absl/time/time.h"

namespace varnic {

// Who hears how a client's stream fares. Each may be null. They run on the client's loop, never
// inside a call of the stream's owner, and may destroy the stream.
//
// Attempts to open a stream begin at least one backoff apart (ClientOptions::backoff); one that
// had been up begins the backoff anew. So a stream that has lived longer than the first delay comes
// back at once, and a server that flaps sees one attempt a second.
struct StreamListeners {
  // The stream is open, and the server has been told of every key: at first, and again after each
  // loss. What happened meanwhile was not heard, so this is where to ask for the state.
  std::function<void()> on_up;
  // It was lost or could not be opened; it is tried again by itself in `retry_in`. While there is
  // no server to connect to, that may be earlier: as soon as another call has found one.
  std::function<void(const absl::Status& why, absl::Duration retry_in)> on_down;
  // It is over: the server ended it with a status other than UNAVAILABLE (OK as well), or it can
  // never work. The last call. RESOURCE_EXHAUSTED is a loss like UNAVAILABLE, though, on a stream
  // whose keys have changed so that opening it again says less than it has said: a server bounds
  // what it is told over a stream's life.
  std::function<void(const absl::Status& status)> on_end;
};

}  // namespace varnic

#endif  // CORE_CLIENT_STREAM_LISTENERS_H_
