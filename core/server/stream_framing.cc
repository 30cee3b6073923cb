#include "core/server/stream_framing.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format_lite.h>

#include "core/net/frame_message.h"
#include "core/net/message_framing.h"

namespace varnic {
namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedOutputStream;

// A gRPC prefix for a message of `size` bytes, and the first of these bytes, with room for `more`.
std::string Framed(std::size_t size, std::string_view beginning, std::size_t more = 0) {
  const net::MessagePrefix prefix = net::MakeMessagePrefix(static_cast<uint32_t>(size));
  std::string framed;
  framed.reserve(prefix.size() + beginning.size() + more);
  framed.append(prefix.data(), prefix.size());
  framed.append(beginning);
  return framed;
}

// `payload`, and the call id behind it unless that is 0; of a field that is there twice, parsers
// take the last.
std::string FrameTyped(const std::string& payload, int call_id_field, std::int64_t call_id) {
  const bool has_id = call_id_field != 0 && call_id != 0;
  const std::size_t id_size =
      has_id ? WireFormatLite::TagSize(call_id_field, WireFormatLite::TYPE_INT64) +
                   WireFormatLite::Int64Size(call_id)
             : 0;
  std::string framed = Framed(payload.size() + id_size, payload, id_size);
  if (has_id) {
    framed.resize(framed.size() + id_size);
    WireFormatLite::WriteInt64ToArray(call_id_field, call_id,
                                      reinterpret_cast<uint8_t*>(&framed[framed.size() - id_size]));
  }
  return framed;
}

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
  return FrameTyped(envelope.payload(), call_id_field, envelope.call_id());
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
