#include "core/server/stream_framing.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format_lite.h>

#include "core/net/frame_message.h"
#include "core/net/message_framing.h"

namespace varnic {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedOutputStream;

// Appends a field to a serialised message; of a field that is there twice, parsers take the last.
void AppendInt64(int field, std::int64_t value, std::string& message) {
  google::protobuf::io::StringOutputStream stream(&message);
  CodedOutputStream output(&stream);
  WireFormatLite::WriteInt64(field, value, &output);
}

// A gRPC prefix for a message of `size` bytes, and the first of these bytes.
std::string Framed(std::size_t size, std::string_view beginning) {
  const net::MessagePrefix prefix = net::MakeMessagePrefix(static_cast<uint32_t>(size));
  std::string framed;
  framed.reserve(prefix.size() + beginning.size());
  framed.append(prefix.data(), prefix.size());
  framed.append(beginning);
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

int CallIdField(const google::protobuf::Descriptor& type) {
  const FieldDescriptor* field = type.FindFieldByName("call_id");
  const bool fits =
      field != nullptr && !field->is_repeated() && field->type() == FieldDescriptor::TYPE_INT64;
  return fits ? field->number() : 0;
}

std::string FrameEnvelope(StreamFraming framing, const ::rpc::transport::StreamMessage& envelope,
                          int call_id_field) {
  if (framing == StreamFraming::kEnvelope) return net::FrameMessage(envelope);
  std::string message = envelope.payload();
  if (call_id_field != 0 && envelope.call_id() != 0) {
    AppendInt64(call_id_field, envelope.call_id(), message);
  }
  return Framed(message.size(), message);
}

std::string FrameEventPrefix(StreamFraming framing, std::size_t payload_size) {
  if (framing == StreamFraming::kTyped) return Framed(payload_size, "");
  const std::string head = EnvelopeHead(payload_size);
  return Framed(head.size() + payload_size, head);
}

}  // namespace varnic
