#include "compiler/skeleton_writer.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "absl/strings/strip.h"
#include "compiler/cpp_layout.h"

namespace varnic::compiler {
namespace {

using Kind = MethodModel::Kind;

constexpr char kMethodDescriptor[] = "const ::google::protobuf::MethodDescriptor*";
constexpr char kServiceDescriptor[] = "const ::google::protobuf::ServiceDescriptor*";
constexpr char kBadIndex[] =
    "    default:\n"
    "      VARNIC_FATAL(\"Bad method index; this should never happen.\");\n"
    "  }\n"
    "}\n\n";

std::string Stem(const ServiceModel& model) {
  return std::string(absl::StripSuffix(model.proto_file, ".proto"));
}

std::string Banner(const ServiceModel& model) {
  return LayOutComment(absl::StrCat("Written by protoc-gen-varnic from ", model.proto_file,
                                    ". Changes here are lost."));
}

std::string OpenNamespaces(const ServiceModel& model) {
  if (model.namespaces.empty()) return "";
  return absl::StrCat("namespace ", absl::StrJoin(model.namespaces, "::"), " {\n");
}

std::string CloseNamespaces(const ServiceModel& model) {
  if (model.namespaces.empty()) return "";
  return absl::StrCat("\n}  // namespace ", absl::StrJoin(model.namespaces, "::"), "\n");
}

// A parameter that the body does not use has its name in a comment.
std::string Parameter(const std::string& type, const std::string& name, bool used = true) {
  return used ? absl::StrCat(type, " ", name) : absl::StrCat(type, " /*", name, "*/");
}

std::vector<std::string> UnaryParameters(const MethodModel& method, bool messages_used) {
  return {Parameter("::google::protobuf::RpcController*", "controller"),
          Parameter(absl::StrCat("const ", method.request_class, "*"), "request", messages_used),
          Parameter(absl::StrCat(method.response_class, "*"), "response", messages_used),
          Parameter("::google::protobuf::Closure*", "done")};
}

std::vector<std::string> CallMethodParameters(bool used) {
  return {Parameter(kMethodDescriptor, "method"),
          Parameter("::google::protobuf::RpcController*", "controller", used),
          Parameter("const ::google::protobuf::Message*", "request", used),
          Parameter("::google::protobuf::Message*", "response", used),
          Parameter("::google::protobuf::Closure*", "done", used)};
}

std::vector<std::string> OpenStreamParameters(bool used) {
  return {Parameter(kMethodDescriptor, "method"),
          Parameter("::varnic::StreamChannel", "channel", used)};
}

// The switch over the methods' numbers that each operation consists of.
std::string Switch(const ServiceModel& model,
                   const std::function<std::string(const MethodModel&)>& statement) {
  std::string text = "  switch (method->index()) {\n";
  for (std::size_t i = 0; i < model.methods.size(); ++i) {
    absl::StrAppend(&text, "    case ", i, ":\n", statement(model.methods[i]));
  }
  return text + kBadIndex;
}

std::string Includes(const ServiceModel& model) {
  std::string text = absl::StrCat("#include \"", Stem(model), ".rpc.h\"\n\n",
                                  "#include <google/protobuf/generated_message_reflection.h>\n\n",
                                  "#include <mutex>\n");
  const bool events = model.HasKind(Kind::kEventStream);
  const bool callbacks = model.HasKind(Kind::kCallbackStream);
  if (model.HasKind(Kind::kUnary)) text += "#include <string>\n";
  if (events || callbacks) text += "#include <utility>\n";
  absl::StrAppend(&text, "\n#include \"core/common/rpc/fatal.h\"\n",
                  "#include \"core/common/rpc/service_descriptors.h\"\n");
  if (callbacks) text += "#include \"core/common/rpc/stream/callback_stream.h\"\n";
  if (events) text += "#include \"core/common/rpc/stream/event_stream.h\"\n";
  return text + "\n";
}

// The file's only service, looked up once; and the registration of the file, which holds whichever
// of its objects the linker has kept.
std::string DescriptorLookUp(const ServiceModel& model) {
  const std::string mangled = MangledPath(model.proto_file);
  const std::string table = absl::StrCat("&::descriptor_table_", mangled);
  const std::string array = absl::StrCat("file_level_service_descriptors_", mangled);
  return absl::StrCat(
      "namespace {\n\n"
      "std::once_flag init_service_descriptors_flag;\n",
      LayOutDeclaration(kServiceDescriptor, absl::StrCat(array, "[1];")),
      "\n"
      "// Registers the file with the generated pool before the program starts, whichever of its "
      "objects\n"
      "// the linker has kept.\n",
      LayOutCall(0,
                 "const ::google::protobuf::internal::AddDescriptorsRunner add_descriptors_runner",
                 {table}, ";"),
      "\nvoid AssignDescriptors() {\n"
      "  const ::google::protobuf::FileDescriptor* file =\n",
      LayOutCall(6, "::google::protobuf::DescriptorPool::generated_pool()->FindFileByName",
                 {absl::StrCat("\"", model.proto_file, "\"")}, ";"),
      LayOutCall(2, "::varnic::StoreServiceDescriptors", {"*file", array}, ";"),
      "}\n\n}  // namespace\n\n", kServiceDescriptor, " ", model.class_name, "::descriptor() {\n",
      LayOutCall(2, "::google::protobuf::internal::AssignDescriptors", {table}, ";"),
      "  std::call_once(init_service_descriptors_flag, AssignDescriptors);\n"
      "  return ",
      array, "[0];\n}\n\n", kServiceDescriptor, " ", model.class_name,
      "::GetDescriptor() {\n  return descriptor();\n}\n\n");
}

std::string CallMethod(const ServiceModel& model) {
  const auto statement = [](const MethodModel& method) {
    if (method.kind != Kind::kUnary) {
      return std::string(
          "      VARNIC_FATAL(\"Streaming method can't be called with this call.\");\n");
    }
    return absl::StrCat(
        LayOutCall(
            6, method.name,
            {"controller", absl::StrCat("static_cast<const ", method.request_class, "*>(request)"),
             absl::StrCat("static_cast<", method.response_class, "*>(response)"), "done"},
            ";"),
        "      return;\n");
  };
  return absl::StrCat(LayOutCall(0, absl::StrCat("void ", model.class_name, "::CallMethod"),
                                 CallMethodParameters(model.HasKind(Kind::kUnary)), " {"),
                      Switch(model, statement));
}

std::string Prototypes(const ServiceModel& model, const std::string& operation,
                       std::string MethodModel::*type) {
  const auto statement = [type](const MethodModel& method) {
    return absl::StrCat("      return ", method.*type, "::default_instance();\n");
  };
  return absl::StrCat(
      LayOutCall(
          0, absl::StrCat("const ::google::protobuf::Message& ", model.class_name, "::", operation),
          {Parameter(kMethodDescriptor, "method")}, " const {"),
      Switch(model, statement));
}

std::string OpenStream(const ServiceModel& model) {
  const auto statement = [](const MethodModel& method) {
    if (method.kind == Kind::kUnary) {
      return std::string(
          "      VARNIC_FATAL(\"Cannot open a stream for a non-streaming method.\");\n");
    }
    const char* stream = method.kind == Kind::kEventStream ? "EventStream" : "CallbackStream";
    return LayOutCall(
        6, absl::StrCat("return new ::varnic::", stream, "<", method.response_class, ">"),
        {"this", "method", "std::move(channel)"}, ";");
  };
  const bool streams = model.HasKind(Kind::kEventStream) || model.HasKind(Kind::kCallbackStream);
  return absl::StrCat(
      LayOutCall(0, absl::StrCat("::varnic::AbstractStream* ", model.class_name, "::OpenStream"),
                 OpenStreamParameters(streams), " {"),
      Switch(model, statement));
}

std::string Default(const ServiceModel& model, const MethodModel& method) {
  const std::string head = absl::StrCat("void ", model.class_name, "::", method.name);
  if (method.kind != Kind::kUnary) {
    return absl::StrCat(head, "() {\n  VARNIC_FATAL(\"Not implemented.\");\n}\n");
  }
  return absl::StrCat(
      LayOutCall(0, head, UnaryParameters(method, /*messages_used=*/false), " {"),
      LayOutCall(2, "controller->SetFailed",
                 {absl::StrCat("\"Method ", method.name, "() not implemented.\"")}, ";"),
      "  done->Run();\n}\n");
}

std::string Declaration(const MethodModel& method) {
  const std::string head = absl::StrCat("virtual void ", method.name);
  if (method.kind != Kind::kUnary) return absl::StrCat("  ", head, "();\n");
  return LayOutCall(2, head, UnaryParameters(method, /*messages_used=*/true), ";");
}

// Those of unary methods, and then those of streams, each in the order of their numbers.
template <class Write>
std::string ForEachMethod(const ServiceModel& model, bool unary, const Write& write) {
  std::string text;
  for (const MethodModel& method : model.methods) {
    if ((method.kind == Kind::kUnary) == unary) text += write(method);
  }
  return text;
}

std::string ServiceOperations() {
  return absl::StrCat(
      "  // Any thread.\n  static ", kServiceDescriptor, " descriptor();\n\n  ", kServiceDescriptor,
      " GetDescriptor() override;\n",
      LayOutCall(2, "void CallMethod", CallMethodParameters(/*used=*/true), " override;"),
      LayOutCall(2, "const ::google::protobuf::Message& GetRequestPrototype",
                 {Parameter(kMethodDescriptor, "method")}, " const override;"),
      LayOutCall(2, "const ::google::protobuf::Message& GetResponsePrototype",
                 {Parameter(kMethodDescriptor, "method")}, " const override;"),
      LayOutCall(2, "::varnic::AbstractStream* OpenStream", OpenStreamParameters(/*used=*/true),
                 " override;"));
}

std::string HeaderIncludes(const ServiceModel& model) {
  std::vector<std::string> own = {"core/common/rpc/abstract_stream.h", "core/common/rpc/service.h",
                                  Stem(model) + ".pb.h"};
  std::sort(own.begin(), own.end());
  std::string text =
      "#include <google/protobuf/descriptor.h>\n"
      "#include <google/protobuf/service.h>\n\n";
  for (const std::string& path : own) absl::StrAppend(&text, "#include \"", path, "\"\n");
  return text + "\n";
}

std::string ClassComment(const ServiceModel& model) {
  return absl::StrCat(
      LayOutComment(absl::StrCat(
          "The server's side of ", model.service_name,
          ": derive from it and override what the host serves. A unary method that is not "
          "overridden fails its call; a call is dispatched by the method's index alone.")),
      "//\n",
      LayOutComment("An override fills the response or fails the controller, and runs the closure "
                    "exactly once in either case, now or later, on the RPC thread. Request, "
                    "response and controller stay valid until then."));
}

}  // namespace

std::string WriteSkeletonHeader(const ServiceModel& model) {
  const std::string guard = IncludeGuard(absl::StrCat(Stem(model), ".rpc.h"));
  const auto declare = [](const MethodModel& method) { return Declaration(method); };
  const std::string unary = ForEachMethod(model, /*unary=*/true, declare);
  const std::string hooks = ForEachMethod(model, /*unary=*/false, declare);
  return absl::StrCat(
      Banner(model), "#ifndef ", guard, "\n#define ", guard, "\n\n", HeaderIncludes(model),
      OpenNamespaces(model), model.namespaces.empty() ? "" : "\n", ClassComment(model), "class ",
      model.class_name, " : public ::varnic::Service {\n public:\n  ", model.class_name,
      "() = default;\n  ~", model.class_name, "() override = default;\n\n", ServiceOperations(),
      unary.empty() ? "" : "\n", unary,
      hooks.empty() ? "" : "\n  // Never called: OpenStream() makes the streams.\n", hooks, "};\n",
      CloseNamespaces(model), "\n#endif  // ", guard, "\n");
}

std::string WriteSkeletonSource(const ServiceModel& model) {
  const auto define_unary = [&model](const MethodModel& method) {
    return absl::StrCat("\n", Default(model, method));
  };
  const auto define_hook = [&model](const MethodModel& method) { return Default(model, method); };
  const std::string hooks = ForEachMethod(model, /*unary=*/false, define_hook);
  const std::string operations = absl::StrCat(
      DescriptorLookUp(model), CallMethod(model),
      Prototypes(model, "GetRequestPrototype", &MethodModel::request_class),
      Prototypes(model, "GetResponsePrototype", &MethodModel::response_class), OpenStream(model));
  return absl::StrCat(Banner(model), Includes(model), OpenNamespaces(model),
                      absl::StripSuffix(operations, "\n"),
                      ForEachMethod(model, /*unary=*/true, define_unary), hooks.empty() ? "" : "\n",
                      hooks, CloseNamespaces(model));
}

}  // namespace varnic::compiler
