#include "compiler/service_model.h"

#include <google/protobuf/compiler/cpp/names.h>

#include <string_view>
#include <utility>

#include "absl/container/flat_hash_set.h"
#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "absl/strings/str_split.h"

namespace varnic::compiler {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::MethodDescriptor;
using google::protobuf::OneofDescriptor;
using google::protobuf::ServiceDescriptor;
using google::protobuf::SourceLocation;

constexpr char kSubscriptionType[] = "rpc.EventSubscription";

// The keywords of C++ up to C++20, and the names that a skeleton has already.
bool IsTaken(const std::string& name) {
  static const auto* const taken = new absl::flat_hash_set<std::string>{"alignas",
                                                                        "alignof",
                                                                        "and",
                                                                        "and_eq",
                                                                        "asm",
                                                                        "auto",
                                                                        "bitand",
                                                                        "bitor",
                                                                        "bool",
                                                                        "break",
                                                                        "case",
                                                                        "catch",
                                                                        "char",
                                                                        "char16_t",
                                                                        "char32_t",
                                                                        "char8_t",
                                                                        "class",
                                                                        "co_await",
                                                                        "co_return",
                                                                        "co_yield",
                                                                        "compl",
                                                                        "concept",
                                                                        "const",
                                                                        "const_cast",
                                                                        "consteval",
                                                                        "constexpr",
                                                                        "constinit",
                                                                        "continue",
                                                                        "decltype",
                                                                        "default",
                                                                        "delete",
                                                                        "do",
                                                                        "double",
                                                                        "dynamic_cast",
                                                                        "else",
                                                                        "enum",
                                                                        "explicit",
                                                                        "export",
                                                                        "extern",
                                                                        "false",
                                                                        "float",
                                                                        "for",
                                                                        "friend",
                                                                        "goto",
                                                                        "if",
                                                                        "inline",
                                                                        "int",
                                                                        "long",
                                                                        "mutable",
                                                                        "namespace",
                                                                        "new",
                                                                        "noexcept",
                                                                        "not",
                                                                        "not_eq",
                                                                        "nullptr",
                                                                        "operator",
                                                                        "or",
                                                                        "or_eq",
                                                                        "private",
                                                                        "protected",
                                                                        "public",
                                                                        "register",
                                                                        "reinterpret_cast",
                                                                        "requires",
                                                                        "return",
                                                                        "short",
                                                                        "signed",
                                                                        "sizeof",
                                                                        "static",
                                                                        "static_assert",
                                                                        "static_cast",
                                                                        "struct",
                                                                        "switch",
                                                                        "template",
                                                                        "this",
                                                                        "thread_local",
                                                                        "throw",
                                                                        "true",
                                                                        "try",
                                                                        "typedef",
                                                                        "typeid",
                                                                        "typename",
                                                                        "union",
                                                                        "unsigned",
                                                                        "using",
                                                                        "virtual",
                                                                        "void",
                                                                        "volatile",
                                                                        "wchar_t",
                                                                        "while",
                                                                        "xor",
                                                                        "xor_eq",
                                                                        "CallMethod",
                                                                        "GetDescriptor",
                                                                        "GetRequestPrototype",
                                                                        "GetResponsePrototype",
                                                                        "OpenStream",
                                                                        "descriptor"};
  return taken->contains(name);
}

std::string CppClass(const Descriptor& type) {
  return google::protobuf::compiler::cpp::QualifiedClassName(&type);
}

// What is wrong with a callback stream's type, and how it has to be; empty if nothing is.
std::string CallbackTypeFault(const Descriptor& type) {
  const FieldDescriptor* profile = type.FindFieldByName("profile_id");
  if (profile == nullptr || profile->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE ||
      profile->is_repeated()) {
    return "a message field `profile_id`, the key that the client answers for";
  }
  const OneofDescriptor* kind = type.FindOneofByName("kind");
  const FieldDescriptor* subscribe = type.FindFieldByName("subscribe");
  if (kind == nullptr || subscribe == nullptr || subscribe->containing_oneof() != kind ||
      subscribe->number() != 2 || subscribe->cpp_type() != FieldDescriptor::CPPTYPE_BOOL) {
    return "`bool subscribe = 2` in a oneof `kind`";
  }
  const FieldDescriptor* response = type.FindFieldByName("response");
  if (response == nullptr || response->containing_oneof() != kind || response->number() != 4) {
    return "a field `response = 4` in the oneof `kind`";
  }
  return "";
}

// Collects what is wrong with one file.
class Checker {
 public:
  explicit Checker(const FileDescriptor& file) : file_(file) {}

  absl::StatusOr<std::optional<ServiceModel>> Build() {
    if (file_.service_count() == 0) return std::optional<ServiceModel>();
    for (int i = 1; i < file_.service_count(); ++i) {
      const ServiceDescriptor& service = *file_.service(i);
      Complain(service, service.full_name(),
               absl::StrCat("is the file's second service after ", file_.service(0)->full_name(),
                            "; give it a file of its own"));
    }
    ServiceModel model = Model(*file_.service(0));
    if (!faults_.empty()) return absl::InvalidArgumentError(absl::StrJoin(faults_, "\n"));
    return std::optional<ServiceModel>(std::move(model));
  }

 private:
  ServiceModel Model(const ServiceDescriptor& service) {
    ServiceModel model;
    model.proto_file = file_.name();
    if (!file_.package().empty()) model.namespaces = absl::StrSplit(file_.package(), '.');
    model.class_name = absl::StrCat(service.name(), "Rpc");
    model.service_name = service.full_name();
    if (const Descriptor* clash = file_.FindMessageTypeByName(model.class_name)) {
      Complain(service, service.full_name(),
               absl::StrCat("has the class ", model.class_name, ", as the message ",
                            clash->full_name(), " has; rename one of them"));
    }
    for (int i = 0; i < service.method_count(); ++i) {
      model.methods.push_back(Model(*service.method(i), model.class_name));
    }
    return model;
  }

  MethodModel Model(const MethodDescriptor& method, const std::string& class_name) {
    MethodModel model;
    model.name = method.name();
    if (IsTaken(method.name()) || method.name() == class_name) {
      Complain(method, method.full_name(),
               absl::StrCat("cannot be a method of the C++ class ", class_name,
                            ", where its name means something else; rename it"));
    }
    model.kind = KindOf(method);
    model.request_class = CppClass(*method.input_type());
    model.response_class = CppClass(*method.output_type());
    return model;
  }

  MethodModel::Kind KindOf(const MethodDescriptor& method) {
    using Kind = MethodModel::Kind;
    if (!method.client_streaming() && !method.server_streaming()) return Kind::kUnary;
    if (method.client_streaming() != method.server_streaming()) {
      Complain(method, method.full_name(),
               absl::StrCat("streams on the ", method.client_streaming() ? "client's" : "server's",
                            " side only; write `stream` on both sides, or on none"));
      return Kind::kUnary;
    }
    if (method.input_type()->full_name() == kSubscriptionType) return Kind::kEventStream;
    if (method.input_type() != method.output_type()) {
      Complain(method, method.full_name(),
               absl::StrCat("is no stream that there is; an event stream takes ", kSubscriptionType,
                            ", a callback stream takes and returns the same type"));
      return Kind::kUnary;
    }
    const std::string fault = CallbackTypeFault(*method.input_type());
    if (!fault.empty()) {
      Complain(method, method.full_name(),
               absl::StrCat("is a callback stream, so its type ", method.input_type()->full_name(),
                            " needs ", fault));
    }
    return Kind::kCallbackStream;
  }

  template <class DescriptorType>
  void Complain(const DescriptorType& where, const std::string& who, const std::string& what) {
    SourceLocation location;
    const bool known = where.GetSourceLocation(&location);
    faults_.push_back(
        absl::StrCat(file_.name(), ":", known ? location.start_line + 1 : 1, ": ", who, " ", what));
  }

  const FileDescriptor& file_;
  std::vector<std::string> faults_;
};

}  // namespace

bool ServiceModel::HasKind(MethodModel::Kind kind) const {
  for (const MethodModel& method : methods) {
    if (method.kind == kind) return true;
  }
  return false;
}

absl::StatusOr<std::optional<ServiceModel>> BuildServiceModel(const FileDescriptor& file) {
  return Checker(file).Build();
}

}  // namespace varnic::compiler
