#ifndef CORE_CLIENT_CLIENT_OPTIONS_H_
#define CORE_CLIENT_CLIENT_OPTIONS_H_

#include <cstddef>
#include <optional>

#include "absl/time/time.h"
#include "core/net/backoff.h"
#include "core/net/tls_context.h"

namespace varnic {

struct ClientOptions {
  // The largest message that a server may send; a larger one ends its call with RESOURCE_EXHAUSTED.
  std::size_t max_message_bytes = 4 << 20;
  absl::Duration connect_timeout = absl::Seconds(20);
  // While a call or a stream is open and the server says nothing for so long, it is sent a ping;
  // with no answer in time either, the connection is lost and its calls fail with UNAVAILABLE. Ten
  // seconds at least, which a Varnic server accepts; infinite: never. If this is not set: five
  // minutes on TCP, as servers of other makes want no more pings than that, and never on a
  // Unix-domain socket, whose other end cannot vanish without a word.
  std::optional<absl::Duration> keepalive_time;
  absl::Duration keepalive_timeout = absl::Seconds(20);
  // With it, the target is a TCP address that is served with TLS.
  std::optional<net::TlsClientOptions> tls;
  // Between the attempts of streams to connect, and to open; unary calls connect at once.
  net::BackoffOptions backoff;
  // What may wait on one stream for a server that does not read; more ends the stream with
  // RESOURCE_EXHAUSTED. What waits alone may be longer.
  std::size_t max_queued_stream_bytes = 1 << 20;
  // The questions of one callback stream that may be open; one more fails at once.
  std::size_t max_open_questions = 1024;
};

}  // namespace varnic

#endif  // CORE_CLIENT_CLIENT_OPTIONS_H_
