#include "core/server/builtin_service.h"

#include <google/protobuf/descriptor.pb.h>

#include <string>

#include "absl/strings/match.h"
#include "absl/strings/string_view.h"
#include "core/common/rpc/fatal.h"

namespace varnic {
namespace {

// Takes `prefix` away, if `name` begins with it.
void Strip(absl::string_view prefix, std::string* name) {
  if (absl::StartsWith(*name, prefix)) name->erase(0, prefix.size());
}

// A type's name begins with a dot.
void StripType(std::string* name) {
  Strip(".varnic.builtin", name);
}

void Publish(google::protobuf::DescriptorProto& message) {
  for (auto& field : *message.mutable_field()) {
    if (field.has_type_name()) StripType(field.mutable_type_name());
  }
  for (auto& nested : *message.mutable_nested_type()) Publish(nested);
}

void Publish(google::protobuf::FileDescriptorProto& file) {
  Strip("varnic/builtin/", file.mutable_name());
  Strip("varnic.builtin.", file.mutable_package());
  for (auto& message : *file.mutable_message_type()) Publish(message);
  for (auto& service : *file.mutable_service()) {
    for (auto& method : *service.mutable_method()) {
      StripType(method.mutable_input_type());
      StripType(method.mutable_output_type());
    }
  }
}

}  // namespace

const google::protobuf::ServiceDescriptor& MakePublicService(
    const google::protobuf::ServiceDescriptor& compiled) {
  google::protobuf::FileDescriptorProto file;
  compiled.file()->CopyTo(&file);
  Publish(file);
  static google::protobuf::DescriptorPool& pool = *new google::protobuf::DescriptorPool;
  const google::protobuf::FileDescriptor* built = pool.BuildFile(file);
  VARNIC_CHECK(built != nullptr);
  return *built->FindServiceByName(compiled.name());
}

}  // namespace varnic
