#include "core/server/plain_scanner.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/wire_format_lite.h>

#include <cstddef>

#include "core/common/rpc/ascii.h"

namespace varnic {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::internal::WireFormatLite;

// Protobuf reads ten bytes, of whose last it ignores a part, and has a limit of 100.
constexpr int kMaxVarintBytes = 9;
constexpr int kMaxDepth = 16;
// Of a length it reads five bytes, and refuses one that has more, whatever its value.
constexpr int kMaxLengthBytes = 4;

bool TakeVarint(std::string_view& bytes, std::uint64_t& value, int max_bytes = kMaxVarintBytes) {
  if (!bytes.empty() && static_cast<unsigned char>(bytes.front()) < 0x80) {  // Most are.
    value = static_cast<unsigned char>(bytes.front());
    bytes.remove_prefix(1);
    return true;
  }
  value = 0;
  for (int i = 0; i < max_bytes && !bytes.empty(); ++i) {
    const auto byte = static_cast<unsigned char>(bytes.front());
    bytes.remove_prefix(1);
    value |= static_cast<std::uint64_t>(byte & 0x7f) << (7 * i);
    if (byte < 0x80) return true;
  }
  return false;
}

bool Skip(std::size_t size, std::string_view& bytes) {
  if (size > bytes.size()) return false;
  bytes.remove_prefix(size);
  return true;
}

}  // namespace

PlainScanner::PlainScanner(const Descriptor& type) : shape_(ShapeOf(type)) {}

bool PlainScanner::Scan(std::string_view bytes, OnField on_field) const {
  return !has_required_ && ScanMessage(shape_, bytes, kMaxDepth, on_field);
}

PlainScanner::Shape& PlainScanner::ShapeOf(const Descriptor& type) {
  std::unique_ptr<Shape>& shape = shapes_[&type];
  if (shape == nullptr) {
    shape = std::make_unique<Shape>();
    Shape& added = *shape;  // The table may grow.
    if (type.options().message_set_wire_format()) return added;
    for (int i = 0; i < type.field_count(); ++i) AddField(*type.field(i), added);
    return added;
  }
  return *shape;
}

void PlainScanner::AddField(const FieldDescriptor& field, Shape& shape) {
  has_required_ = has_required_ || field.is_required();
  const uint32_t tag = WireFormatLite::MakeTag(
      field.number(),
      WireFormatLite::WireTypeForFieldType(static_cast<WireFormatLite::FieldType>(field.type())));
  const Field::Kind kind = KindOf(field);
  const Shape* message = kind == Field::Kind::kMessage ? &ShapeOf(*field.message_type()) : nullptr;
  if (tag < shape.fields.size()) shape.fields[tag] = {kind, message};
}

PlainScanner::Field::Kind PlainScanner::KindOf(const FieldDescriptor& field) {
  switch (field.type()) {
    case FieldDescriptor::TYPE_DOUBLE:
    case FieldDescriptor::TYPE_FIXED64:
    case FieldDescriptor::TYPE_SFIXED64:
      return Field::Kind::kFixed64;
    case FieldDescriptor::TYPE_FLOAT:
    case FieldDescriptor::TYPE_FIXED32:
    case FieldDescriptor::TYPE_SFIXED32:
      return Field::Kind::kFixed32;
    case FieldDescriptor::TYPE_STRING:
      return Field::Kind::kText;
    case FieldDescriptor::TYPE_BYTES:
      return Field::Kind::kBytes;
    case FieldDescriptor::TYPE_MESSAGE:
      return field.is_map() ? Field::Kind::kUnknown : Field::Kind::kMessage;
    case FieldDescriptor::TYPE_GROUP:
      return Field::Kind::kUnknown;
    default:
      return Field::Kind::kVarint;
  }
}

bool PlainScanner::ScanMessage(const Shape& shape, std::string_view bytes, int depth,
                               OnField on_field) {
  if (depth == 0) return false;
  while (!bytes.empty()) {
    const auto tag = static_cast<unsigned char>(bytes.front());
    bytes.remove_prefix(1);
    if (tag >= shape.fields.size()) return false;
    std::uint64_t value = 0;
    if (!TakeField(shape.fields[tag], depth, bytes, value)) return false;
    if (!on_field(WireFormatLite::GetTagFieldNumber(tag), value)) return false;
  }
  return true;
}

bool PlainScanner::TakeField(const Field& field, int depth, std::string_view& bytes,
                             std::uint64_t& value) {
  if (field.kind == Field::Kind::kUnknown) return false;
  if (field.kind == Field::Kind::kVarint) return TakeVarint(bytes, value);
  if (field.kind == Field::Kind::kFixed32) return Skip(sizeof(std::uint32_t), bytes);
  if (field.kind == Field::Kind::kFixed64) return Skip(sizeof(std::uint64_t), bytes);

  std::uint64_t size = 0;
  if (!TakeVarint(bytes, size, kMaxLengthBytes) || size > bytes.size()) return false;
  const std::string_view content = bytes.substr(0, size);
  bytes.remove_prefix(size);
  if (field.kind == Field::Kind::kBytes) return true;
  if (field.kind == Field::Kind::kText) return IsAscii(content);
  const auto pass = [](int /*number*/, std::uint64_t /*value*/) { return true; };
  return ScanMessage(*field.message, content, depth - 1, pass);
}

}  // namespace varnic
