#include "core/common/rpc/field_writer.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <cstddef>

namespace varnic {
namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedOutputStream;

// Where `size` more bytes stand.
uint8_t* Extend(std::string& bytes, std::size_t size) {
  const std::size_t before = bytes.size();
  bytes.resize(before + size);
  return reinterpret_cast<uint8_t*>(&bytes[before]);
}

}  // namespace

void AppendMessageField(int number, const google::protobuf::MessageLite& value,
                        std::string& bytes) {
  const std::size_t size = value.ByteSizeLong();
  const auto length = static_cast<uint32_t>(size);
  const uint32_t tag = WireFormatLite::MakeTag(number, WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
  const std::size_t head =
      CodedOutputStream::VarintSize32(tag) + CodedOutputStream::VarintSize32(length);
  uint8_t* end = Extend(bytes, head + size);
  end = CodedOutputStream::WriteVarint32ToArray(tag, end);
  end = CodedOutputStream::WriteVarint32ToArray(length, end);
  value.SerializeWithCachedSizesToArray(end);
}

void AppendInt64Field(int number, std::int64_t value, std::string& bytes) {
  const std::size_t size = WireFormatLite::TagSize(number, WireFormatLite::TYPE_INT64) +
                           WireFormatLite::Int64Size(value);
  WireFormatLite::WriteInt64ToArray(number, value, Extend(bytes, size));
}

}  // namespace varnic
