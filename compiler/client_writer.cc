#include "compiler/client_writer.h"

#include <cstddef>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "compiler/cpp_layout.h"
#include "compiler/file_frame.h"
#include "compiler/name_rules.h"

namespace varnic::compiler {
namespace {

using Kind = MethodModel::Kind;

constexpr char kMethodDescriptor[] = "const ::google::protobuf::MethodDescriptor&";

bool HasStreams(const ServiceModel& model) {
  return model.HasKind(Kind::kEventStream) || model.HasKind(Kind::kCallbackStream);
}

// A function of the class: declared in the header, defined in the source.
struct Function {
  std::string result;
  std::string name;
  std::vector<Parameter> parameters;
  std::string default_argument;  // Of the last parameter, in the declaration.
  std::string body;
};

std::vector<Function> UnaryFunctions(const MethodModel& method, std::size_t index) {
  const std::string& response = method.response_class;
  const Parameter request{absl::StrCat("const ", method.request_class, "&"), "request"};
  const Parameter timeout{"::absl::Duration", "timeout"};
  const std::string method_at = absl::StrCat("MethodAt(", index, ")");
  Function start{
      "::varnic::Client::CallId",
      method.name,
      {request, timeout, {absl::StrCat("::varnic::OnAnswer<", response, ">"), "done"}},
      "",
      LayOutTemplateCall(2, "return ::varnic::StartCall", response,
                         {"client_", method_at, "request", "timeout", "::std::move(done)"}, ";")};
  Function wait{absl::StrCat("::absl::StatusOr<", response, ">"),
                WaitingForm(method.name),
                {request, timeout},
                "",
                LayOutTemplateCall(2, "return ::varnic::CallAndWait", response,
                                   {"client_", method_at, "request", "timeout"}, ";")};
  return {start, wait};
}

Function StreamFunction(const MethodModel& method, std::size_t index) {
  const bool events = method.kind == Kind::kEventStream;
  const std::string type =
      absl::StrCat("::varnic::", events ? "EventSubscriber" : "CallbackAnswerer", "<",
                   method.response_class, ">");
  const std::string callback = events ? "on_event" : "on_question";
  return {
      absl::StrCat("::std::unique_ptr<", type, ">"),
      method.name,
      {{absl::StrCat(type, events ? "::OnEvent" : "::OnQuestion"), callback},
       {"::varnic::StreamListeners", "listeners"}},
      " = {}",
      LayOutTemplateCall(2, "return ::std::make_unique", type,
                         {"client_", absl::StrCat("MethodAt(", index, ")"),
                          absl::StrCat("::std::move(", callback, ")"), "::std::move(listeners)"},
                         ";")};
}

// In the order of the file.
std::vector<Function> Functions(const ServiceModel& model) {
  std::vector<Function> functions;
  for (std::size_t i = 0; i < model.methods.size(); ++i) {
    const MethodModel& method = model.methods[i];
    if (method.kind == Kind::kUnary) {
      for (Function& function : UnaryFunctions(method, i)) functions.push_back(function);
    } else {
      functions.push_back(StreamFunction(method, i));
    }
  }
  return functions;
}

std::string Declaration(const Function& function) {
  std::vector<Parameter> parameters = function.parameters;
  parameters.back().name += function.default_argument;
  return LayOutFunction(2, function.result, function.name, parameters, ";");
}

std::string Definition(const ServiceModel& model, const Function& function) {
  return absl::StrCat(
      LayOutFunction(0, function.result, absl::StrCat(model.client_class, "::", function.name),
                     function.parameters, " {"),
      function.body, "}\n");
}

std::string ClassComment(const ServiceModel& model) {
  std::string text =
      absl::StrCat(LayOutComment(absl::StrCat(
                       "The client's side of ", model.service_name,
                       ": its methods, with their own types. Owns nothing; `client` must outlive ",
                       "it and whatever it started. Cheap to make and to copy.")),
                   "//\n",
                   LayOutComment("Belongs to the thread of the client's loop. Callbacks run on "
                                 "that loop, never inside the call that asked for them, and may "
                                 "use and destroy this object; Client::Cancel() runs a call's "
                                 "callback inside."));
  if (model.HasKind(Kind::kUnary)) {
    text += "//\n";
    text += LayOutComment(
        "A unary method ends in exactly one `done`, with the answer or with the status that the "
        "call failed with; `timeout` covers connecting too. The form that waits runs the loop "
        "until then, so not inside a callback.");
  }
  if (HasStreams(model)) {
    text += "//\n";
    text += LayOutComment(
        "A stream is the object that its method returns, which opens at once, comes back by "
        "itself after a loss, and ends when it is destroyed, also inside its own callbacks.");
  }
  return text;
}

std::string HeaderIncludes(const ServiceModel& model) {
  const bool unary = model.HasKind(Kind::kUnary);
  std::vector<std::string> own = {"core/client/client.h", model.stem + ".pb.h"};
  if (model.HasKind(Kind::kCallbackStream)) own.push_back("core/client/callback_answerer.h");
  if (model.HasKind(Kind::kEventStream)) own.push_back("core/client/event_subscriber.h");
  if (HasStreams(model)) own.push_back("core/client/stream_listeners.h");
  if (unary) {
    own.insert(own.end(),
               {"absl/status/statusor.h", "absl/time/time.h", "core/client/typed_call.h"});
  }
  return absl::StrCat(
      model.methods.empty() ? "" : SystemIncludes({"google/protobuf/descriptor.h"}) + "\n",
      HasStreams(model) ? SystemIncludes({"memory"}) + "\n" : "", OwnIncludes(own));
}

std::string SourceIncludes(const ServiceModel& model) {
  const std::string own = OwnIncludes({model.stem + ".client.h"});
  if (model.methods.empty()) return own;
  return absl::StrCat(own, "\n", SystemIncludes({"google/protobuf/generated_message_reflection.h"}),
                      "\n", SystemIncludes({"utility"}));
}

// A client without methods would have no use for its member.
std::string ClassBody(const ServiceModel& model) {
  const std::string head = absl::StrCat("  explicit ", model.client_class, "(::varnic::Client& ");
  if (model.methods.empty()) return absl::StrCat(head, "/*client*/) {}\n");
  std::string text = absl::StrCat(head, "client) : client_(client) {}\n\n");
  for (const Function& function : Functions(model)) text += Declaration(function);
  return absl::StrCat(text, "\n private:\n  static ", kMethodDescriptor,
                      " MethodAt(int index);\n\n  ::varnic::Client& client_;\n");
}

// Looks the service up at the first call, after naming the file's registration, which the linker
// could leave out otherwise.
std::string DescriptorLookUp(const ServiceModel& model) {
  return absl::StrCat(
      LayOutFunction(0, kMethodDescriptor, absl::StrCat(model.client_class, "::MethodAt"),
                     {{"int", "index"}}, " {"),
      "  static const ::google::protobuf::ServiceDescriptor* const service = [] {\n",
      LayOutCall(4, "::google::protobuf::internal::AssignDescriptors",
                 {absl::StrCat("&::descriptor_table_", MangledPath(model.proto_file))}, ";"),
      "    const auto* pool = ::google::protobuf::DescriptorPool::generated_pool();\n",
      LayOutCall(4, "const auto* file = pool->FindFileByName",
                 {absl::StrCat("\"", model.proto_file, "\"")}, ";"),
      "    return file->service(0);\n  }();\n  return *service->method(index);\n}\n");
}

}  // namespace

std::string WriteClientHeader(const ServiceModel& model) {
  const std::string code = absl::StrCat(ClassComment(model), "class ", model.client_class,
                                        " {\n public:\n", ClassBody(model), "};\n");
  return FrameHeader(model, model.stem + ".client.h", HeaderIncludes(model), code);
}

std::string WriteClientSource(const ServiceModel& model) {
  const std::string head = absl::StrCat(Banner(model), SourceIncludes(model));
  if (model.methods.empty()) return head;
  std::vector<std::string> definitions;
  for (const Function& function : Functions(model)) {
    definitions.push_back(Definition(model, function));
  }
  definitions.push_back(DescriptorLookUp(model));
  return absl::StrCat(head, "\n", OpenNamespaces(model), model.namespaces.empty() ? "" : "\n",
                      absl::StrJoin(definitions, "\n"), CloseNamespaces(model));
}

}  // namespace varnic::compiler
