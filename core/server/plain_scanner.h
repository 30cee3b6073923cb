#ifndef CORE_SERVER_PLAIN_SCANNER_H_
#define CORE_SERVER_PLAIN_SCANNER_H_

#include <google/protobuf/descriptor.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "absl/functional/function_ref.h"

namespace varnic {

// Looks through serialised messages of one type without parsing them, as far as they are plain:
// made of fields that the type has, each as its type is written, with tags of one byte, small
// numbers and ASCII text. So are most that clients send. Says nothing about others: whoever asks
// then lets protobuf parse them.
//
// Any thread; the descriptor outlives this.
class PlainScanner {
 public:
  explicit PlainScanner(const google::protobuf::Descriptor& type);

  // Of a field of the message itself: its number, and the value of a varint, which is 0 for any
  // other field. A field may come several times. False ends the scan, with false.
  using OnField = absl::FunctionRef<bool(int number, std::uint64_t value)>;

  // True if `bytes` are plain, so that protobuf parses them; false if that is not certain.
  bool Scan(std::string_view bytes, OnField on_field) const;

 private:
  struct Shape;

  // What stands behind a tag.
  struct Field {
    enum class Kind : unsigned char {
      kUnknown,
      kVarint,
      kFixed32,
      kFixed64,
      kBytes,
      kText,
      kMessage
    };
    Kind kind = Kind::kUnknown;
    const Shape* message = nullptr;  // Of kMessage.
  };
  // By the tag.
  struct Shape {
    std::array<Field, 128> fields;
  };

  Shape& ShapeOf(const google::protobuf::Descriptor& type);
  void AddField(const google::protobuf::FieldDescriptor& field, Shape& shape);
  static Field::Kind KindOf(const google::protobuf::FieldDescriptor& field);
  static bool ScanMessage(const Shape& shape, std::string_view bytes, int depth, OnField on_field);
  static bool TakeField(const Field& field, int depth, std::string_view& bytes,
                        std::uint64_t& value);

  bool has_required_ = false;  // Protobuf wants more of the message than that it can be read.
  std::unordered_map<const google::protobuf::Descriptor*, std::unique_ptr<Shape>> shapes_;
  const Shape& shape_;
};

}  // namespace varnic

#endif  // CORE_SERVER_PLAIN_SCANNER_H_
