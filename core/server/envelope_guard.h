#ifndef CORE_SERVER_ENVELOPE_GUARD_H_
#define CORE_SERVER_ENVELOPE_GUARD_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "absl/status/status.h"
#include "core/common/rpc/stream_kind.h"
#include "core/server/plain_scanner.h"

namespace varnic {

// Looks at every message that a client sends on a stream before the stream does, and keeps away
// what the stream would die of or what nobody could have meant: bytes that do not parse, and, on a
// callback stream, a message that is neither control nor an answer. Parses what it gets once more
// than the stream will, but for plain answers, which it only looks through; that is the price of a
// host that no peer can stop.
//
// One for each method of a service, for all its streams. RPC thread only.
class EnvelopeGuard {
 public:
  // What a message that may pass is about.
  struct Content {
    // The message's own call id and error text, of a method that has such fields.
    std::int64_t call_id = 0;
    bool has_error = false;
    // A message by which the stream may make the host keep something: any one on an event stream,
    // and control on a callback stream.
    bool is_subscription = false;
    // What it asks for, and for which key: its serialised content.
    enum class Control { kNone, kSubscribe, kUnsubscribe } control = Control::kNone;
    std::string key;
  };

  // Of a method that is an event or a callback stream. `prototype` is what its stream parses
  // messages as.
  EnvelopeGuard(const google::protobuf::MethodDescriptor& method,
                const google::protobuf::Message& prototype);

  // INVALID_ARGUMENT names the type and what is wrong. `is_error`: the envelope is marked as an
  // error, as which it may carry any content; a message with an error text is one whatever the
  // mark.
  absl::Status Inspect(std::string_view payload, bool is_error, Content& content);

 private:
  bool IsPlainAnswer(std::string_view payload, Content& content) const;
  void InspectEvents(Content& content) const;
  absl::Status InspectCallbacks(bool is_error, Content& content) const;

  const StreamKind kind_;
  const std::string type_;
  const std::unique_ptr<google::protobuf::Message> message_;  // Used again for each message.
  // Null where the type has no such field.
  const google::protobuf::FieldDescriptor* const call_id_;
  const google::protobuf::FieldDescriptor* const error_;
  const google::protobuf::FieldDescriptor* const profile_id_;
  const google::protobuf::OneofDescriptor* const kind_oneof_;
  const PlainScanner scanner_;
};

}  // namespace varnic

#endif  // CORE_SERVER_ENVELOPE_GUARD_H_
