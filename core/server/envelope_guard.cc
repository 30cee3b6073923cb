#include "core/server/envelope_guard.h"

#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "rpc/event_subscription.pb.h"

namespace varnic {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

// The field of that name, if it has the type that a stream's own message has it with.
const FieldDescriptor* Field(const Descriptor& type, const char* name,
                             FieldDescriptor::CppType cpp_type) {
  const FieldDescriptor* field = type.FindFieldByName(name);
  const bool fits = field != nullptr && !field->is_repeated() && field->cpp_type() == cpp_type;
  return fits ? field : nullptr;
}

}  // namespace

EnvelopeGuard::EnvelopeGuard(const google::protobuf::MethodDescriptor& method,
                             const google::protobuf::Message& prototype)
    : kind_(KindOfStream(method)),
      type_(prototype.GetDescriptor()->full_name()),
      message_(prototype.New()),
      call_id_(
          prototype.GetDescriptor()->FindFieldByNumber(CallIdField(*prototype.GetDescriptor()))),
      error_(Field(*prototype.GetDescriptor(), "error", FieldDescriptor::CPPTYPE_STRING)),
      profile_id_(
          Field(*prototype.GetDescriptor(), "profile_id", FieldDescriptor::CPPTYPE_MESSAGE)),
      kind_oneof_(prototype.GetDescriptor()->FindOneofByName("kind")),
      scanner_(*prototype.GetDescriptor()) {
  VARNIC_CHECK(kind_ == StreamKind::kEvents || kind_ == StreamKind::kCallbacks);
}

absl::Status EnvelopeGuard::Inspect(std::string_view payload, bool is_error, Content& content) {
  if (kind_ == StreamKind::kCallbacks && !is_error && IsPlainAnswer(payload, content)) {
    return absl::OkStatus();
  }
  if (!message_->ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
    return absl::InvalidArgumentError(
        absl::StrCat("A message on the stream is not a serialised ", type_));
  }
  if (kind_ == StreamKind::kCallbacks) return InspectCallbacks(is_error, content);
  InspectEvents(content);
  return absl::OkStatus();
}

// What most messages are. False: it may be one nevertheless.
bool EnvelopeGuard::IsPlainAnswer(std::string_view payload, Content& content) const {
  std::int64_t call_id = 0;
  bool answers = false;
  const bool is_plain = scanner_.Scan(payload, [&](int number, std::uint64_t value) {
    if (number == kResponseNumber) return answers = true;
    if (call_id_ != nullptr && number == call_id_->number()) {
      call_id = static_cast<std::int64_t>(value);
      return true;
    }
    return profile_id_ != nullptr && number == profile_id_->number();
  });
  if (is_plain && answers) content.call_id = call_id;
  return is_plain && answers;
}

void EnvelopeGuard::InspectEvents(Content& content) const {
  const auto& subscription = static_cast<const ::rpc::EventSubscription&>(*message_);
  content.is_subscription = true;
  if (subscription.action() == ::rpc::EventSubscription::SUBSCRIBE) {
    content.control = Content::Control::kSubscribe;
  } else if (subscription.action() == ::rpc::EventSubscription::UNSUBSCRIBE) {
    content.control = Content::Control::kUnsubscribe;
  }
  if (content.control != Content::Control::kNone) {
    content.key = subscription.key().SerializeAsString();
  }
}

absl::Status EnvelopeGuard::InspectCallbacks(bool is_error, Content& content) const {
  const auto& reflection = *message_->GetReflection();
  if (call_id_ != nullptr) content.call_id = reflection.GetInt64(*message_, call_id_);
  if (error_ != nullptr) {
    std::string scratch;
    content.has_error = !reflection.GetStringReference(*message_, error_, &scratch).empty();
  }
  if (is_error || content.has_error) return absl::OkStatus();

  const FieldDescriptor* member = reflection.GetOneofFieldDescriptor(*message_, kind_oneof_);
  const int number = member == nullptr ? 0 : member->number();
  if (number == kResponseNumber) return absl::OkStatus();
  if (number != kSubscribeNumber) {
    return absl::InvalidArgumentError(
        absl::StrCat("A client may send `subscribe`, `response` or `error` in a ", type_, ", not ",
                     member == nullptr ? "none of them" : absl::StrCat("`", member->name(), "`")));
  }
  content.is_subscription = true;
  content.control = reflection.GetBool(*message_, member) ? Content::Control::kSubscribe
                                                          : Content::Control::kUnsubscribe;
  if (profile_id_ != nullptr) {
    content.key = reflection.GetMessage(*message_, profile_id_).SerializeAsString();
  }
  return absl::OkStatus();
}

}  // namespace varnic
