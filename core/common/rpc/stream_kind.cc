#include "core/common/rpc/stream_kind.h"

namespace varnic {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::MethodDescriptor;
using google::protobuf::OneofDescriptor;

// By name: the generator, which has no such class, sees these types in protoc's pool.
constexpr char kSubscriptionType[] = "rpc.EventSubscription";
constexpr char kKeyType[] = "ProfileId";

bool IsKey(const FieldDescriptor* field) {
  return field != nullptr && field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE &&
         !field->is_repeated() && field->message_type()->full_name() == kKeyType;
}

bool IsMember(const FieldDescriptor* field, const OneofDescriptor& oneof, int number,
              FieldDescriptor::CppType type) {
  return field != nullptr && field->containing_oneof() == &oneof && field->number() == number &&
         field->cpp_type() == type;
}

}  // namespace

StreamKind KindOfStream(const MethodDescriptor& method) {
  if (!method.client_streaming() || !method.server_streaming()) return StreamKind::kNone;
  if (method.input_type()->full_name() == kSubscriptionType) return StreamKind::kEvents;
  const bool one_type = method.input_type() == method.output_type();
  if (one_type && CallbackTypeFault(*method.input_type()).empty()) return StreamKind::kCallbacks;
  return StreamKind::kPlain;
}

std::string CallbackTypeFault(const Descriptor& type) {
  if (!IsKey(type.FindFieldByName("profile_id"))) {
    return "a field `ProfileId profile_id` of the type in rpc/identifiers.proto, the key that the "
           "client answers for";
  }
  const OneofDescriptor* kind = type.FindOneofByName("kind");
  if (kind == nullptr || !IsMember(type.FindFieldByName("subscribe"), *kind, kSubscribeNumber,
                                   FieldDescriptor::CPPTYPE_BOOL)) {
    return "`bool subscribe = 2` in a oneof `kind`";
  }
  if (!IsMember(type.FindFieldByName("response"), *kind, kResponseNumber,
                FieldDescriptor::CPPTYPE_MESSAGE)) {
    return "a message field `response = 4` in the oneof `kind`";
  }
  return "";
}

int CallIdField(const Descriptor& type) {
  const FieldDescriptor* field = type.FindFieldByName("call_id");
  const bool fits = field != nullptr && !field->is_repeated() &&
                    field->type() == FieldDescriptor::TYPE_INT64 &&
                    field->real_containing_oneof() == nullptr;
  return fits ? field->number() : 0;
}

}  // namespace varnic
