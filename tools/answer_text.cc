#include "tools/answer_text.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/text_format.h>

#include "absl/strings/str_cat.h"
#include "tools/message_json.h"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

// One field of an answer, without its name: "Chromium 156" for a brand, true for a flag.
std::string FormatValue(const Message& message, const FieldDescriptor& field, int index) {
  const auto& reflection = *message.GetReflection();
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
    const Message& inner = field.is_repeated()
                               ? reflection.GetRepeatedMessage(message, &field, index)
                               : reflection.GetMessage(message, &field);
    std::string text;
    for (int i = 0; i < inner.GetDescriptor()->field_count(); ++i) {
      absl::StrAppend(&text, i == 0 ? "" : " ",
                      FormatValue(inner, *inner.GetDescriptor()->field(i), -1));
    }
    return text;
  }
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
    return EscapeUnprintable(field.is_repeated()
                                 ? reflection.GetRepeatedString(message, &field, index)
                                 : reflection.GetString(message, &field));
  }
  std::string text;
  google::protobuf::TextFormat::PrintFieldValueToString(message, &field, index, &text);
  return text;
}

std::string FormatField(const Message& message, const FieldDescriptor& field) {
  if (!field.is_repeated()) return FormatValue(message, field, -1);
  std::string text;
  for (int i = 0; i < message.GetReflection()->FieldSize(message, &field); ++i) {
    absl::StrAppend(&text, i == 0 ? "" : ", ", FormatValue(message, field, i));
  }
  return text;
}

}  // namespace

std::string FormatAnswerForPeople(const Message& answer) {
  const google::protobuf::Descriptor& type = *answer.GetDescriptor();
  if (type.field_count() == 0) return "";
  if (type.field_count() == 1) return FormatField(answer, *type.field(0)) + "\n";
  std::string text;
  for (int i = 0; i < type.field_count(); ++i) {
    const FieldDescriptor& field = *type.field(i);
    absl::StrAppend(&text, field.name(), ": ", FormatField(answer, field), "\n");
  }
  return text;
}

std::string FormatAnswerAsJson(const Message& answer) {
  return MessageToJson(answer) + "\n";
}

}  // namespace varnic::tools
