#include "tools/ctl_command.h"

#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include <cstdint>
#include <optional>

#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "nlohmann/json.hpp"
#include "rpc/profile/profile.rpc.h"
#include "tools/command_line.h"

namespace varnic::tools {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

constexpr absl::Duration kDefaultTimeout = absl::Seconds(10);

// How a command's words and options become a request.
using MakeRequest = absl::StatusOr<std::unique_ptr<Message>> (*)(const CommandLine& line);

struct CommandSpec {
  const char* name;
  const char* method;
  // The words that have to follow; a profile may follow them.
  std::size_t required_words;
  MakeRequest make_request;
};

// The profile that a command line names behind the command and its required words; by default the
// empty id, which is the default profile's.
std::string ProfileWord(const CommandLine& line, std::size_t required_words = 0) {
  const std::size_t index = 1 + required_words;
  return index < line.words.size() ? line.words[index] : "";
}

absl::StatusOr<std::unique_ptr<Message>> MakeProfileId(const CommandLine& line) {
  auto request = std::make_unique<ProfileId>();
  request->set_value(ProfileWord(line));
  return request;
}

absl::StatusOr<std::unique_ptr<Message>> MakeSetAcceptLanguage(const CommandLine& line) {
  auto request = std::make_unique<rpc::SetAcceptLanguageRequest>();
  request->set_accept_language(line.words[1]);
  request->mutable_profile_id()->set_value(ProfileWord(line, 1));
  return request;
}

// "800x600" and "-5,20": two numbers.
template <class Number>
std::optional<std::pair<Number, Number>> ParsePair(const std::string& text, char separator) {
  const std::vector<std::string> parts = absl::StrSplit(text, separator);
  std::pair<Number, Number> pair;
  if (parts.size() != 2 || !absl::SimpleAtoi(parts[0], &pair.first) ||
      !absl::SimpleAtoi(parts[1], &pair.second)) {
    return std::nullopt;
  }
  return pair;
}

absl::StatusOr<std::unique_ptr<Message>> MakeBrowserOptions(const CommandLine& line) {
  auto request = std::make_unique<rpc::BrowserOptions>();
  request->mutable_profile_id()->set_value(ProfileWord(line));
  request->set_url(line.Get("url", ""));
  request->set_incognito(line.Has("incognito"));
  request->set_headless(line.Has("headless"));
  if (line.Has("window-size")) {
    const auto size = ParsePair<uint32_t>(line.Get("window-size", ""), 'x');
    if (!size) return absl::InvalidArgumentError("--window-size has to be WIDTHxHEIGHT: 1280x720");
    request->mutable_window_size()->set_width(size->first);
    request->mutable_window_size()->set_height(size->second);
  }
  if (line.Has("window-position")) {
    const auto position = ParsePair<int32_t>(line.Get("window-position", ""), ',');
    if (!position) return absl::InvalidArgumentError("--window-position has to be X,Y: 100,50");
    request->mutable_window_position()->set_x(position->first);
    request->mutable_window_position()->set_y(position->second);
  }
  return request;
}

constexpr CommandSpec kCommands[] = {
    {"path", "Path", 0, MakeProfileId},
    {"name", "Name", 0, MakeProfileId},
    {"is-incognito", "IsIncognito", 0, MakeProfileId},
    {"is-default", "IsDefault", 0, MakeProfileId},
    {"create-browser", "CreateBrowser", 0, MakeBrowserOptions},
    {"get-accept-language", "GetAcceptLanguage", 0, MakeProfileId},
    {"set-accept-language", "SetAcceptLanguage", 1, MakeSetAcceptLanguage},
    {"get-user-agent", "GetUserAgent", 0, MakeProfileId},
    {"get-user-agent-metadata", "GetUserAgentMetadata", 0, MakeProfileId},
};

const CommandSpec* FindCommand(const std::string& name) {
  for (const CommandSpec& spec : kCommands) {
    if (name == spec.name) return &spec;
  }
  return nullptr;
}

// The canonical name of a gRPC status, as it stands in gRPC's documents: "NOT_FOUND".
std::string CodeName(absl::StatusCode code) {
  return absl::StatusCodeToString(code);
}

std::string Hint(const CtlCommand& command, absl::StatusCode code) {
  switch (code) {
    case absl::StatusCode::kUnavailable:
      return command.default_target
                 ? "Is varnic-host running? Start it, or name another host with --target."
                 : "Is a host listening there? varnic-host prints its addresses when it starts.";
    case absl::StatusCode::kNotFound:
      return "A profile's id is the name of its folder, such as Default; without an id, the "
             "default profile is meant.";
    case absl::StatusCode::kDeadlineExceeded:
      return "The host may be busy; --timeout gives it longer.";
    case absl::StatusCode::kUnimplemented:
      return "The host does not serve this method; it may be older than this varnicctl.";
    default:
      return "";
  }
}

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
    return field.is_repeated() ? reflection.GetRepeatedString(message, &field, index)
                               : reflection.GetString(message, &field);
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

absl::Status ReadTls(const CommandLine& line, CtlCommand& command) {
  command.tls_flags = line.Quote({"tls-ca", "tls-cert", "tls-key", "tls-server-name"});
  if (command.tls_flags.empty()) return absl::OkStatus();
  if (line.Has("tls-cert") != line.Has("tls-key")) {
    return absl::InvalidArgumentError(absl::StrCat(line.Quote({"tls-cert", "tls-key"}),
                                                   ": --tls-cert and --tls-key go together"));
  }
  if (command.default_target) {
    return absl::InvalidArgumentError(
        absl::StrCat(command.tls_flags, ": TLS needs --target HOST:PORT too"));
  }
  command.tls.emplace();
  command.tls->ca_file = line.Get("tls-ca", "");
  command.tls->certificate_file = line.Get("tls-cert", "");
  command.tls->key_file = line.Get("tls-key", "");
  command.tls->server_name = line.Get("tls-server-name", "");
  return absl::OkStatus();
}

}  // namespace

absl::StatusOr<CtlCommand> ParseCtlCommand(const std::vector<std::string>& arguments,
                                           const Environment& environment) {
  const absl::StatusOr<CommandLine> line = ParseCommandLine(arguments, {{"target", true},
                                                                        {"tls-ca", true},
                                                                        {"tls-cert", true},
                                                                        {"tls-key", true},
                                                                        {"tls-server-name", true},
                                                                        {"timeout", true},
                                                                        {"json", false},
                                                                        {"help", false},
                                                                        {"version", false},
                                                                        {"url", true},
                                                                        {"incognito", false},
                                                                        {"headless", false},
                                                                        {"window-size", true},
                                                                        {"window-position", true}});
  if (!line.ok()) return line.status();

  CtlCommand command;
  command.help = line->Has("help");
  command.version = line->Has("version");
  if (command.help || command.version) return command;
  command.json = line->Has("json");
  command.default_target = !line->Has("target");
  command.target = line->Get("target", DefaultAddress(environment));
  if (absl::Status status = ReadTls(*line, command); !status.ok()) return status;
  double timeout_seconds = absl::ToDoubleSeconds(kDefaultTimeout);
  if (line->Has("timeout") &&
      (!absl::SimpleAtod(line->Get("timeout", ""), &timeout_seconds) || !(timeout_seconds > 0))) {
    return absl::InvalidArgumentError("--timeout has to be a number of seconds");
  }
  command.timeout = absl::Seconds(timeout_seconds);

  if (line->words.empty()) return absl::InvalidArgumentError("no command given");
  command.name = line->words.front();
  const CommandSpec* spec = FindCommand(command.name);
  if (spec == nullptr) {
    return absl::InvalidArgumentError(absl::StrCat("unknown command ", command.name));
  }
  if (line->words.size() < 1 + spec->required_words) {
    return absl::InvalidArgumentError(absl::StrCat(command.name, " needs the languages to set"));
  }
  if (line->words.size() > 2 + spec->required_words) {
    return absl::InvalidArgumentError(absl::StrCat("unexpected argument ", line->words.back()));
  }
  command.method = rpc::ProfileRpc::descriptor()->FindMethodByName(spec->method);
  absl::StatusOr<std::unique_ptr<Message>> request = spec->make_request(*line);
  if (!request.ok()) return request.status();
  command.request = *std::move(request);
  return command;
}

std::string CtlHelp(const Environment& environment) {
  return absl::StrCat(R"(Usage: varnicctl [OPTION]... COMMAND [PROFILE]

Calls a running varnic-host about a profile: its id, or nothing for the default
profile.

  path                           the profile's folder on the host's disk
  name                           the name that a person gave it
  is-incognito
  is-default
  create-browser                 open a browser in the profile; see below
  get-accept-language            the languages that pages are asked for
  set-accept-language LANGUAGES  set them: "fr-FR,fr,en"; the profile follows
  get-user-agent
  get-user-agent-metadata        the user-agent client hints

  --target ADDRESS               the host: unix:PATH or HOST:PORT
                                 Default: )",
                      DefaultAddress(environment), R"(
  --tls-ca FILE                  connect with TLS to a host with a certificate of
                                 these roots, in PEM form. Default, if another
                                 option for TLS is given: the system's roots
  --tls-cert FILE                this client's certificate, in PEM form
  --tls-key FILE                 its private key
  --tls-server-name NAME         the name in the host's certificate.
                                 Default: the host in ADDRESS
  --timeout SECONDS              how long to wait for an answer. Default: )",
                      absl::ToInt64Seconds(kDefaultTimeout), R"(
  --json                         print answers and errors as JSON, a line each
  --help                         print this text
  --version                      print the version

For create-browser:
  --url URL                      what it shows first
  --incognito
  --headless
  --window-size WIDTHxHEIGHT     in pixels
  --window-position X,Y          on the screen, in pixels

Exit status: 0 if the call was answered, 2 if the command line is wrong, and
10 plus the gRPC status if the call failed: 13 for a bad argument, 15 for an
unknown profile, 19 if the host cannot do it now, 24 if no host is there.
)");
}

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
  google::protobuf::util::JsonPrintOptions options;
  options.always_print_primitive_fields = true;
  std::string text;
  // Fails only for messages that hold others of unknown types; no answer does.
  const auto status = google::protobuf::util::MessageToJsonString(answer, &text, options);
  return (status.ok() ? text : "null") + "\n";
}

std::string FormatFailureForPeople(const CtlCommand& command, const absl::Status& status) {
  const std::string hint = Hint(command, status.code());
  return absl::StrCat("varnicctl: ", command.name, ": ", status.message(), " (",
                      CodeName(status.code()), ")\n", hint, hint.empty() ? "" : "\n");
}

std::string FormatFailureAsJson(const absl::Status& status) {
  const nlohmann::ordered_json error = {{"error",
                                         {{"code", static_cast<int>(status.code())},
                                          {"status", CodeName(status.code())},
                                          {"message", std::string(status.message())}}}};
  // A host may send any bytes as a text.
  return error.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace varnic::tools
