#include "compiler/service_model.h"

#include <google/protobuf/compiler/cpp/names.h>
#include <google/protobuf/descriptor.pb.h>

#include <utility>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "compiler/faults.h"
#include "compiler/name_rules.h"
#include "core/common/rpc/stream_kind.h"

namespace varnic::compiler {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileOptions;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using google::protobuf::compiler::cpp::QualifiedClassName;

void CheckFile(const FileDescriptor& file, Faults& faults) {
  if (file.options().optimize_for() == FileOptions::LITE_RUNTIME) {
    faults.AddToFile(
        {FileDescriptorProto::kOptionsFieldNumber, FileOptions::kOptimizeForFieldNumber},
        "optimize_for = LITE_RUNTIME leaves out the descriptors that calls need; remove it");
  }
  for (int i = 1; i < file.service_count(); ++i) {
    faults.Add(*file.service(i),
               absl::StrCat("is the file's second service after ", file.service(0)->full_name(),
                            "; give it a file of its own"));
  }
}

void AddTypeFault(const MethodDescriptor& method, const std::string& fault, Faults& faults) {
  faults.Add(method, absl::StrCat("is a callback stream, so its type ",
                                  method.input_type()->full_name(), " needs ", fault));
}

// A call id that is something else would be taken for one, and lost.
std::string CallIdFault(const Descriptor& type, bool is_required) {
  const bool is_absent = type.FindFieldByName("call_id") == nullptr;
  if (CallIdField(type) != 0 || (is_absent && !is_required)) return "";
  return "a field `int64 call_id` outside of oneofs, by which an answer finds its question";
}

// What a callback stream's type lacks for the templates that ask and answer; empty if nothing.
std::string QuestionTypeFault(const Descriptor& type) {
  for (const std::string name : {"Request", "Response"}) {
    const FieldDescriptor* field = type.FindFieldByName(absl::AsciiStrToLower(name));
    const Descriptor* own = type.FindNestedTypeByName(name);
    if (own == nullptr || field == nullptr || field->message_type() != own ||
        field->containing_oneof() != type.FindOneofByName("kind")) {
      return absl::StrCat("a field `", name, " ", absl::AsciiStrToLower(name),
                          "` in the oneof `kind`, of a message declared inside");
    }
  }
  const FieldDescriptor* error = type.FindFieldByName("error");
  if (error == nullptr || error->is_repeated() || error->type() != FieldDescriptor::TYPE_STRING) {
    return "a field `string error`, for a question that the client could not answer";
  }
  return "";
}

// Of a method that streams, but is no stream that there is code for.
void AddStreamFault(const MethodDescriptor& method, Faults& faults) {
  if (method.client_streaming() != method.server_streaming()) {
    return faults.Add(
        method, absl::StrCat("streams on the ", method.client_streaming() ? "client's" : "server's",
                             " side only; write `stream` on both sides, or on none"));
  }
  if (method.input_type() != method.output_type()) {
    return faults.Add(
        method,
        "is no stream that there is; an event stream takes rpc.EventSubscription, a callback "
        "stream takes and returns the same type");
  }
  AddTypeFault(method, CallbackTypeFault(*method.input_type()), faults);
}

MethodModel::Kind KindOf(const MethodDescriptor& method, const Parts& parts, Faults& faults) {
  switch (KindOfStream(method)) {
    case StreamKind::kEvents:
      return MethodModel::Kind::kEventStream;
    case StreamKind::kCallbacks: {
      const Descriptor& type = *method.input_type();
      std::string fault = parts.client ? QuestionTypeFault(type) : "";
      if (fault.empty()) fault = CallIdFault(type, /*is_required=*/parts.client);
      if (!fault.empty()) AddTypeFault(method, fault, faults);
      return MethodModel::Kind::kCallbackStream;
    }
    case StreamKind::kNone:
    case StreamKind::kPlain:
      break;
  }
  if (method.client_streaming() || method.server_streaming()) AddStreamFault(method, faults);
  return MethodModel::Kind::kUnary;
}

// protobuf makes a message of each map field, and a class for it that is none of a message.
void CheckType(const MethodDescriptor& method, const Descriptor& type, Faults& faults) {
  if (!type.options().map_entry()) return;
  faults.Add(method,
             absl::StrCat("takes or returns ", type.full_name(),
                          ", an entry of a map field; declare a message of its own for it"));
}

MethodModel ModelOf(const MethodDescriptor& method, const Parts& parts, Faults& faults) {
  CheckType(method, *method.input_type(), faults);
  if (method.output_type() != method.input_type()) CheckType(method, *method.output_type(), faults);
  MethodModel model;
  model.name = method.name();
  model.kind = KindOf(method, parts, faults);
  model.request_class = QualifiedClassName(method.input_type());
  model.response_class = QualifiedClassName(method.output_type());
  return model;
}

ServiceModel ModelOf(const ServiceDescriptor& service, const Parts& parts, Faults& faults) {
  const FileDescriptor& file = *service.file();
  ServiceModel model;
  model.proto_file = file.name();
  model.stem = google::protobuf::compiler::cpp::StripProto(file.name());
  if (!file.package().empty()) model.namespaces = absl::StrSplit(file.package(), '.');
  model.skeleton_class = SkeletonClass(service);
  model.client_class = ClientClass(service);
  model.service_name = service.full_name();
  for (int i = 0; i < service.method_count(); ++i) {
    model.methods.push_back(ModelOf(*service.method(i), parts, faults));
  }
  return model;
}

}  // namespace

bool ServiceModel::HasKind(MethodModel::Kind kind) const {
  for (const MethodModel& method : methods) {
    if (method.kind == kind) return true;
  }
  return false;
}

absl::StatusOr<std::optional<ServiceModel>> BuildServiceModel(const FileDescriptor& file,
                                                              const Parts& parts) {
  if (file.service_count() == 0) return std::optional<ServiceModel>();
  Faults faults(file);
  CheckFile(file, faults);
  CheckNames(*file.service(0), parts, faults);
  ServiceModel model = ModelOf(*file.service(0), parts, faults);
  if (absl::Status status = faults.status(); !status.ok()) return status;
  return std::optional<ServiceModel>(std::move(model));
}

}  // namespace varnic::compiler
