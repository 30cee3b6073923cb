#ifndef CORE_SERVER_STREAM_FRAMING_H_
#define CORE_SERVER_STREAM_FRAMING_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "absl/types/span.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

// How the messages of a stream stand on the wire. A client chooses with a request header; the
// stream object sees envelopes either way.
enum class StreamFraming {
  // The method's own type, as a stub of any language sends it. What an envelope adds stands in
  // fields
  // of the type: `call_id`, and `error` for an error.
  kTyped,
  // rpc.transport.StreamMessage.
  kEnvelope,
};

// The request header by which a client chooses, and its value for the second one; without it, or
// with any other value, the stream is typed.
inline constexpr std::string_view kFramingHeader = "varnic-framing";
inline constexpr std::string_view kEnvelopeFraming = "envelope";

// One gRPC message with its prefix, as an envelope of the host goes out. `call_id_field`: of
// its payload's type, or 0 (stream_kind.h).
std::string FrameEnvelope(StreamFraming framing, const ::rpc::transport::StreamMessage& envelope,
                          int call_id_field);

// The same in `buffer`. Empty if that is too small.
std::string_view FrameEnvelopeIn(absl::Span<char> buffer, StreamFraming framing,
                                 const ::rpc::transport::StreamMessage& envelope,
                                 int call_id_field);

// The whole of an event, with its prefix, in `buffer`. Empty if that is too small, and for
// envelopes.
std::string_view FrameEventIn(absl::Span<char> buffer, StreamFraming framing,
                              std::string_view payload);

// What goes out before the payload of an event, so that the payload itself can be shared by all of
// its subscribers.
std::string FrameEventPrefix(StreamFraming framing, std::size_t payload_size);

}  // namespace varnic

#endif  // CORE_SERVER_STREAM_FRAMING_H_
