#include "core/server/stream_framing.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format_lite.h>

#include <algorithm>
#include <tuple>

#include "core/net/frame_message.h"
#include "core/net/message_framing.h"

namespace varnic {
namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedOutputStream;

// A gRPC prefix for a message of `size` bytes, and the first of these bytes.
std::string Framed(std::size_t size, std::string_view beginning) {
  const net::MessagePrefix prefix = net::MakeMessagePrefix(static_cast<uint32_t>(size));
  std::string framed;
  framed.reserve(prefix.size() + beginning.size());
  framed.append(prefix.data(), prefix.size());
  framed.append(beginning);
  return framed;
}

// `payload`, and the call id behind it unless that is 0; of a field that is there twice, parsers
// take the last.
class TypedMessage {
 public:
  TypedMessage(std::string_view payload, int call_id_field, std::int64_t call_id)
      : payload_(payload), call_id_field_(call_id == 0 ? 0 : call_id_field), call_id_(call_id) {
    if (call_id_field_ == 0) return;
    id_size_ = WireFormatLite::TagSize(call_id_field_, WireFormatLite::TYPE_INT64) +
               WireFormatLite::Int64Size(call_id_);
  }

  std::size_t framed_size() const {
    return std::tuple_size<net::MessagePrefix>::value + payload_.size() + id_size_;
  }
  // `framed` has room for that.
  void Frame(char* framed) const {
    const auto size = static_cast<uint32_t>(payload_.size() + id_size_);
    char* end = net::WriteMessagePrefix(size, framed);
    end = std::copy(payload_.begin(), payload_.end(), end);
    if (call_id_field_ == 0) return;
    WireFormatLite::WriteInt64ToArray(call_id_field_, call_id_, reinterpret_cast<uint8_t*>(end));
  }
  std::string Framed() const {
    std::string framed(framed_size(), '\0');
    Frame(framed.data());
    return framed;
  }
  std::string_view FramedIn(absl::Span<char> buffer) const {
    if (framed_size() > buffer.size()) return {};
    Frame(buffer.data());
    return {buffer.data(), framed_size()};
  }

 private:
  const std::string_view payload_;
  const int call_id_field_;  // 0 if there is no id to write.
  const std::int64_t call_id_;
  std::size_t id_size_ = 0;
};

// The tag and the length that stand before a payload in a serialised envelope.
std::string EnvelopeHead(std::size_t payload_size) {
  std::string head;
  google::protobuf::io::StringOutputStream stream(&head);
  CodedOutputStream output(&stream);
  output.WriteTag(WireFormatLite::MakeTag(::rpc::transport::StreamMessage::kPayloadFieldNumber,
                                          WireFormatLite::WIRETYPE_LENGTH_DELIMITED));
  output.WriteVarint32(static_cast<uint32_t>(payload_size));
  output.Trim();
  return head;
}

}  // namespace

std::string FrameEnvelope(StreamFraming framing, const ::rpc::transport::StreamMessage& envelope,
                          int call_id_field) {
  if (framing == StreamFraming::kEnvelope) return net::FrameMessage(envelope);
  return TypedMessage(envelope.payload(), call_id_field, envelope.call_id()).Framed();
}

std::string_view FrameEnvelopeIn(absl::Span<char> buffer, StreamFraming framing,
                                 const ::rpc::transport::StreamMessage& envelope,
                                 int call_id_field) {
  if (framing == StreamFraming::kEnvelope) return net::FrameMessageIn(buffer, envelope);
  return TypedMessage(envelope.payload(), call_id_field, envelope.call_id()).FramedIn(buffer);
}

std::string_view FrameEventIn(absl::Span<char> buffer, StreamFraming framing,
                              std::string_view payload) {
  if (framing == StreamFraming::kEnvelope) return {};
  return TypedMessage(payload, /*call_id_field=*/0, /*call_id=*/0).FramedIn(buffer);
}

std::string FrameEventPrefix(StreamFraming framing, std::size_t payload_size) {
  if (framing == StreamFraming::kTyped) {
    const net::MessagePrefix prefix = net::MakeMessagePrefix(static_cast<uint32_t>(payload_size));
    return std::string(prefix.data(), prefix.size());
  }
  const std::string head = EnvelopeHead(payload_size);
  return Framed(head.size() + payload_size, head);
}

}  // namespace varnic
