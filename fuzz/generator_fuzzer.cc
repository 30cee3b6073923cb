// The generator, as protoc's plugin: whatever the descriptors say, it writes code or says what is
// wrong, the same each time, and what it writes stands in the files that it is for.
//
// The input is a request of protoc's in bytes, or in text, or proto files as protoc reads them, or
// a script for descriptors that no proto file could give.

#include <google/protobuf/compiler/parser.h>
#include <google/protobuf/compiler/plugin.h>
#include <google/protobuf/compiler/plugin.pb.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/text_format.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "compiler/generator.h"
#include "core/common/rpc/fatal.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/quiet_logs.h"

namespace varnic {
namespace {

using google::protobuf::DescriptorProto;
using google::protobuf::FieldDescriptorProto;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileOptions;
using google::protobuf::MethodDescriptorProto;
using google::protobuf::compiler::CodeGeneratorRequest;
using google::protobuf::compiler::CodeGeneratorResponse;

constexpr int kMaxFiles = 8;
constexpr int kMaxSteps = 64;

// What a script may begin with.
constexpr char kFramework[] =
    "=== rpc/event_subscription.proto\n"
    "syntax = \"proto3\"; package rpc; message EventSubscription {} message ProfileId {}\n"
    "=== a.proto\n"
    "syntax = \"proto3\"; message ProfileId {} message Question { message Request {}"
    " message Response {} ProfileId profile_id = 1; oneof kind { bool subscribe = 2;"
    " Request request = 3; Response response = 4; } string error = 5; }\n";

class Silence : public google::protobuf::io::ErrorCollector {
  void AddError(int /*line*/, int /*column*/, const std::string& /*message*/) override {}
};

// Proto files behind one another, each of which begins with a line "=== name".
void ReadProtoFiles(std::string_view text, CodeGeneratorRequest& request) {
  constexpr std::string_view kMark = "=== ";
  while (text.substr(0, kMark.size()) == kMark && request.proto_file_size() < kMaxFiles) {
    const std::size_t name_end = std::min(text.find('\n'), text.size());
    const std::size_t end = std::min(text.find("\n=== ", name_end), text.size());
    const std::string name(text.substr(kMark.size(), name_end - kMark.size()));
    const std::string_view body = text.substr(name_end, end - name_end);
    google::protobuf::io::ArrayInputStream stream(body.data(), static_cast<int>(body.size()));
    Silence silence;
    google::protobuf::io::Tokenizer tokenizer(&stream, &silence);
    google::protobuf::compiler::Parser parser;
    FileDescriptorProto& file = *request.add_proto_file();
    (void)parser.Parse(&tokenizer, &file);
    file.set_name(name);
    request.add_file_to_generate(name);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

// A request in text; what stands before a mistake counts.
void ReadText(std::string_view text, CodeGeneratorRequest& request) {
  Silence silence;
  google::protobuf::TextFormat::Parser parser;
  parser.RecordErrorsTo(&silence);
  parser.AllowPartialMessage(true);
  (void)parser.ParseFromString(std::string(text), &request);
}

// Names that mean something to somebody, and any others.
std::string TakeName(fuzz::FuzzInput& input) {
  static constexpr const char* kNames[] = {"A",
                                           "B",
                                           "Request",
                                           "Response",
                                           "Question",
                                           "ProfileId",
                                           "profile_id",
                                           "kind",
                                           "subscribe",
                                           "response",
                                           "request",
                                           "error",
                                           "S",
                                           "SRpc",
                                           "SClient",
                                           "F",
                                           "FAndWait",
                                           "delete",
                                           "CallMethod",
                                           "client_",
                                           "A_B",
                                           "A_BRpc",
                                           "MethodAt",
                                           "namespace",
                                           "descriptor",
                                           "done",
                                           "rpc",
                                           "google",
                                           "std",
                                           "varnic",
                                           "",
                                           "1",
                                           "x.y",
                                           "\xc3\xa4",
                                           "\n*/\"",
                                           "EventSubscription",
                                           "a.proto",
                                           "b.proto",
                                           "1/b.protodevel",
                                           "rpc/event_subscription.proto"};
  const std::size_t choice = input.TakeBelow(std::size(kNames) + 2);
  if (choice < std::size(kNames)) return kNames[choice];
  if (choice == std::size(kNames)) return std::string(input.TakePiece());
  return std::string(std::size_t{input.TakeByte()} * 16, 'n');
}

std::string TakeTypeName(fuzz::FuzzInput& input) {
  std::string name;
  for (std::size_t parts = 1 + input.TakeBelow(3); parts > 0; --parts) {
    absl::StrAppend(&name, ".", TakeName(input));
  }
  return input.TakeBool() ? name : name.substr(1);
}

void AddField(fuzz::FuzzInput& input, DescriptorProto& message) {
  FieldDescriptorProto& field = *message.add_field();
  field.set_name(TakeName(input));
  field.set_number(static_cast<int>(input.TakeBelow(8)));
  field.set_label(static_cast<FieldDescriptorProto::Label>(1 + input.TakeBelow(3)));
  field.set_type(static_cast<FieldDescriptorProto::Type>(1 + input.TakeBelow(18)));
  if (input.TakeBool()) field.set_type_name(TakeTypeName(input));
  if (input.TakeBool()) field.set_oneof_index(static_cast<int>(input.TakeBelow(3)) - 1);
}

void AddMethod(fuzz::FuzzInput& input, google::protobuf::ServiceDescriptorProto& service) {
  MethodDescriptorProto& method = *service.add_method();
  method.set_name(TakeName(input));
  method.set_input_type(TakeTypeName(input));
  method.set_output_type(input.TakeBool() ? method.input_type() : TakeTypeName(input));
  method.set_client_streaming(input.TakeBool());
  method.set_server_streaming(input.TakeBool());
}

void AddToFile(fuzz::FuzzInput& input, FileDescriptorProto& file) {
  DescriptorProto* message =
      file.message_type_size() == 0
          ? nullptr
          : file.mutable_message_type(static_cast<int>(input.TakeBelow(256)) %
                                      file.message_type_size());
  switch (input.TakeBelow(9)) {
    case 0:
      return file.set_package(TakeTypeName(input));
    case 1:
      return file.add_dependency(TakeName(input));
    case 2:
      return file.add_message_type()->set_name(TakeName(input));
    case 3:
      return file.add_service()->set_name(TakeName(input));
    case 4:
      if (file.service_size() > 0) {
        AddMethod(input, *file.mutable_service(file.service_size() - 1));
      }
      return;
    case 5:
      if (message != nullptr) AddField(input, *message);
      return;
    case 6:
      if (message != nullptr) message->add_oneof_decl()->set_name(TakeName(input));
      return;
    case 7:
      if (message != nullptr) message->add_nested_type()->set_name(TakeName(input));
      return;
    default:
      file.mutable_options()->set_optimize_for(
          static_cast<FileOptions::OptimizeMode>(1 + input.TakeBelow(3)));
  }
}

// Descriptors that the input spells, most of which protobuf takes.
void FollowScript(fuzz::FuzzInput& input, CodeGeneratorRequest& request) {
  static constexpr const char* kParameters[] = {"", "skeleton", "client", "client,skeleton"};
  request.set_parameter(kParameters[input.TakeBelow(std::size(kParameters))]);
  if (input.TakeBool()) ReadProtoFiles(kFramework, request);
  for (int step = 0; step < kMaxSteps && !input.empty(); ++step) {
    const bool next = request.proto_file_size() < kMaxFiles && input.TakeBelow(8) == 0;
    if (request.proto_file_size() == 0 || next) {
      FileDescriptorProto& file = *request.add_proto_file();
      file.set_name(TakeName(input));
      if (input.TakeBool()) file.set_syntax("proto3");
      request.add_file_to_generate(file.name());
    }
    AddToFile(input, *request.mutable_proto_file(request.proto_file_size() - 1));
  }
}

// Code has no control characters but the ends of its lines, and its braces match, unless those of
// a file's name do not.
void CheckCode(const std::string& path, const std::string& code) {
  const bool count = path.find_first_of("{}") == std::string::npos;
  int depth = 0;
  for (const char c : code) {
    VARNIC_CHECK(c == '\n' || !absl::ascii_iscntrl(static_cast<unsigned char>(c)));
    if (count) depth += c == '{' ? 1 : c == '}' ? -1 : 0;
    VARNIC_CHECK(depth >= 0);
  }
  VARNIC_CHECK(depth == 0 && absl::EndsWith(code, "\n"));
}

// Code, or lines that each say what is wrong.
void CheckResponse(const CodeGeneratorResponse& response) {
  VARNIC_CHECK(response.file_size() == 0 || !response.has_error());
  for (const CodeGeneratorResponse::File& file : response.file()) {
    VARNIC_CHECK(absl::EndsWith(file.name(), ".h") || absl::EndsWith(file.name(), ".cc"));
    CheckCode(file.name(), file.content());
  }
  if (!response.has_error()) return;
  for (const absl::string_view line : absl::StrSplit(response.error(), '\n')) {
    VARNIC_CHECK(absl::StartsWith(line, "there is no option ") || absl::StrContains(line, ": "));
  }
}

void Generate(const CodeGeneratorRequest& request) {
  const compiler::Generator generator;
  CodeGeneratorResponse response;
  CodeGeneratorResponse again;
  std::string error;
  const bool written =
      google::protobuf::compiler::GenerateCode(request, generator, &response, &error);
  if (written) CheckResponse(response);
  VARNIC_CHECK(google::protobuf::compiler::GenerateCode(request, generator, &again, &error) ==
               written);
  VARNIC_CHECK(again.SerializeAsString() == response.SerializeAsString());
}

}  // namespace
}  // namespace varnic

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::QuietLogs();
  varnic::fuzz::FuzzInput input(data, size);
  varnic::CodeGeneratorRequest request;
  switch (size == 0 ? 0 : data[0]) {
    case '=':
      varnic::ReadProtoFiles(input.TakeRest(), request);
      break;
    case '#':
      varnic::ReadText(input.TakeRest(), request);
      break;
    case '$':
      input.TakeByte();
      varnic::FollowScript(input, request);
      break;
    default:
      if (!request.ParseFromArray(data, static_cast<int>(size))) return 0;
  }
  varnic::Generate(request);
  return 0;
}
