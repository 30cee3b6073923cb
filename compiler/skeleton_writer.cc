#include "compiler/skeleton_writer.h"

#include <cstddef>
#include <functional>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/strip.h"
#include "compiler/cpp_layout.h"
#include "compiler/file_frame.h"
#include "compiler/name_rules.h"

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

// A parameter that the body does not use has its name in a comment.
std::string Name(const std::string& name, bool used) {
  return used ? name : absl::StrCat("/*", name, "*/");
}

std::vector<Parameter> UnaryParameters(const MethodModel& method, bool messages_used) {
  return {{"::google::protobuf::RpcController*", "controller"},
          {absl::StrCat("const ", method.request_class, "*"), Name("request", messages_used)},
          {absl::StrCat(method.response_class, "*"), Name("response", messages_used)},
          {"::google::protobuf::Closure*", "done"}};
}

std::vector<Parameter> CallMethodParameters(bool used) {
  return {{kMethodDescriptor, "method"},
          {"::google::protobuf::RpcController*", Name("controller", used)},
          {"const ::google::protobuf::Message*", Name("request", used)},
          {"::google::protobuf::Message*", Name("response", used)},
          {"::google::protobuf::Closure*", Name("done", used)}};
}

std::vector<Parameter> OpenStreamParameters(bool used) {
  return {{kMethodDescriptor, "method"}, {"::varnic::StreamChannel", Name("channel", used)}};
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

std::string SourceIncludes(const ServiceModel& model) {
  const bool events = model.HasKind(Kind::kEventStream);
  const bool callbacks = model.HasKind(Kind::kCallbackStream);
  std::vector<std::string> standard = {"mutex"};
  if (model.HasKind(Kind::kUnary)) standard.push_back("string");
  if (events || callbacks) standard.push_back("utility");
  std::vector<std::string> own = {"core/common/rpc/fatal.h",
                                  "core/common/rpc/service_descriptors.h"};
  if (callbacks) own.push_back("core/common/rpc/stream/callback_stream.h");
  if (events) own.push_back("core/common/rpc/stream/event_stream.h");
  return absl::StrCat(OwnIncludes({model.stem + ".rpc.h"}), "\n",
                      SystemIncludes({"google/protobuf/generated_message_reflection.h"}), "\n",
                      SystemIncludes(standard), "\n", OwnIncludes(own), "\n");
}

// The file's only service, looked up once; and the registration of the file, which holds whichever
// of its objects the linker has kept.
std::string DescriptorLookUp(const ServiceModel& model) {
  const std::string table = absl::StrCat("&::descriptor_table_", MangledPath(model.proto_file));
  const std::string array = DescriptorArray(model.proto_file);
  return absl::StrCat(
      "namespace {\n\n"
      "::std::once_flag init_service_descriptors_flag;\n",
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
      "}\n\n}  // namespace\n\n", kServiceDescriptor, " ", model.skeleton_class,
      "::descriptor() {\n",
      LayOutCall(2, "::google::protobuf::internal::AssignDescriptors", {table}, ";"),
      "  ::std::call_once(init_service_descriptors_flag, AssignDescriptors);\n"
      "  return ",
      array, "[0];\n}\n\n", kServiceDescriptor, " ", model.skeleton_class,
      "::GetDescriptor() {\n  return descriptor();\n}\n\n");
}

// A method may be called as a parameter of CallMethod() is.
std::string Callee(const MethodModel& method) {
  for (const char* parameter : {"method", "controller", "request", "response", "done"}) {
    if (method.name == parameter) return absl::StrCat("this->", method.name);
  }
  return method.name;
}

std::string CallMethod(const ServiceModel& model) {
  const auto statement = [](const MethodModel& method) {
    if (method.kind != Kind::kUnary) {
      return std::string(
          "      VARNIC_FATAL(\"Streaming method can't be called with this call.\");\n");
    }
    return absl::StrCat(
        LayOutCall(
            6, Callee(method),
            {"controller", absl::StrCat("static_cast<const ", method.request_class, "*>(request)"),
             absl::StrCat("static_cast<", method.response_class, "*>(response)"), "done"},
            ";"),
        "      return;\n");
  };
  return absl::StrCat(LayOutFunction(0, "void", absl::StrCat(model.skeleton_class, "::CallMethod"),
                                     CallMethodParameters(model.HasKind(Kind::kUnary)), " {"),
                      Switch(model, statement));
}

std::string Prototypes(const ServiceModel& model, const std::string& operation,
                       std::string MethodModel::*type) {
  const auto statement = [type](const MethodModel& method) {
    return LayOutReturn(6, method.*type, "default_instance()");
  };
  return absl::StrCat(LayOutFunction(0, "const ::google::protobuf::Message&",
                                     absl::StrCat(model.skeleton_class, "::", operation),
                                     {{kMethodDescriptor, "method"}}, " const {"),
                      Switch(model, statement));
}

std::string OpenStream(const ServiceModel& model) {
  const auto statement = [](const MethodModel& method) {
    if (method.kind == Kind::kUnary) {
      return std::string(
          "      VARNIC_FATAL(\"Cannot open a stream for a non-streaming method.\");\n");
    }
    const char* stream = method.kind == Kind::kEventStream ? "EventStream" : "CallbackStream";
    return LayOutTemplateCall(6, absl::StrCat("return new ::varnic::", stream),
                              method.response_class, {"this", "method", "::std::move(channel)"},
                              ";");
  };
  const bool streams = model.HasKind(Kind::kEventStream) || model.HasKind(Kind::kCallbackStream);
  return absl::StrCat(LayOutFunction(0, "::varnic::AbstractStream*",
                                     absl::StrCat(model.skeleton_class, "::OpenStream"),
                                     OpenStreamParameters(streams), " {"),
                      Switch(model, statement));
}

std::string Default(const ServiceModel& model, const MethodModel& method) {
  const std::string name = absl::StrCat(model.skeleton_class, "::", method.name);
  if (method.kind != Kind::kUnary) {
    return absl::StrCat("void ", name, "() {\n  VARNIC_FATAL(\"Not implemented.\");\n}\n");
  }
  return absl::StrCat(
      LayOutFunction(0, "void", name, UnaryParameters(method, /*messages_used=*/false), " {"),
      LayOutCall(2, "controller->SetFailed",
                 {absl::StrCat("\"Method ", method.name, "() not implemented.\"")}, ";"),
      "  done->Run();\n}\n");
}

std::string Declaration(const MethodModel& method) {
  if (method.kind != Kind::kUnary) return absl::StrCat("  virtual void ", method.name, "();\n");
  return LayOutFunction(2, "virtual void", method.name,
                        UnaryParameters(method, /*messages_used=*/true), ";");
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
      LayOutFunction(2, "void", "CallMethod", CallMethodParameters(/*used=*/true), " override;"),
      LayOutFunction(2, "const ::google::protobuf::Message&", "GetRequestPrototype",
                     {{kMethodDescriptor, "method"}}, " const override;"),
      LayOutFunction(2, "const ::google::protobuf::Message&", "GetResponsePrototype",
                     {{kMethodDescriptor, "method"}}, " const override;"),
      LayOutFunction(2, "::varnic::AbstractStream*", "OpenStream",
                     OpenStreamParameters(/*used=*/true), " override;"));
}

std::string HeaderIncludes(const ServiceModel& model) {
  return absl::StrCat(SystemIncludes({"google/protobuf/descriptor.h", "google/protobuf/service.h"}),
                      "\n",
                      OwnIncludes({"core/common/rpc/abstract_stream.h", "core/common/rpc/service.h",
                                   model.stem + ".pb.h"}));
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
  const auto declare = [](const MethodModel& method) { return Declaration(method); };
  const std::string unary = ForEachMethod(model, /*unary=*/true, declare);
  const std::string hooks = ForEachMethod(model, /*unary=*/false, declare);
  const std::string code = absl::StrCat(
      ClassComment(model), "class ", model.skeleton_class,
      " : public ::varnic::Service {\n public:\n  ", model.skeleton_class, "() = default;\n  ~",
      model.skeleton_class, "() override = default;\n\n", ServiceOperations(),
      unary.empty() ? "" : "\n", unary,
      hooks.empty() ? "" : "\n  // Never called: OpenStream() makes the streams.\n", hooks, "};\n");
  return FrameHeader(model, model.stem + ".rpc.h", HeaderIncludes(model), code);
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
  return absl::StrCat(Banner(model), SourceIncludes(model), OpenNamespaces(model),
                      absl::StripSuffix(operations, "\n"),
                      ForEachMethod(model, /*unary=*/true, define_unary), hooks.empty() ? "" : "\n",
                      hooks, CloseNamespaces(model));
}

}  // namespace varnic::compiler
