#include "tools/ctl_command.h"

#include <google/protobuf/text_format.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "nlohmann/json.hpp"
#include "rpc/profile/profile.rpc.h"
#include "tools/command_line.h"
#include "tools/connection_text.h"
#include "tools/message_json.h"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

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

absl::Status UnknownCommand(const std::string& name) {
  return absl::InvalidArgumentError(absl::StrCat("unknown command ", name));
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
    return EscapeUnprintable(field.is_repeated()
                                 ? reflection.GetRepeatedString(message, &field, index)
                                 : reflection.GetString(message, &field));
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

std::vector<OptionSpec> OptionSpecs() {
  std::vector<OptionSpec> specs = {
      {"target", true},      {"tls-ca", true},          {"tls-cert", true},
      {"tls-key", true},     {"tls-server-name", true}, {"timeout", true},
      {"json", false},       {"help", false},           {"version", false},
      {"url", true},         {"incognito", false},      {"headless", false},
      {"window-size", true}, {"window-position", true}};
  for (const OptionSpec& spec : StreamOptionSpecs()) specs.push_back(spec);
  return specs;
}

bool IsCommand(const std::string& name) {
  return name == "help" || FindCommand(name) != nullptr || IsStreamCommand(name);
}

// "varnicctl help COMMAND", "varnicctl COMMAND --help", and both without a command.
absl::Status ReadHelp(const CommandLine& line, CtlCommand& command) {
  const bool by_word = !line.words.empty() && line.words.front() == "help";
  command.help = by_word || line.Has("help");
  const std::size_t index = by_word ? 1 : 0;
  if (!command.help || index >= line.words.size()) return absl::OkStatus();
  command.name = line.words[index];
  return IsCommand(command.name) ? absl::OkStatus() : UnknownCommand(command.name);
}

// Each command has options of its own. Calls may have those of other calls.
absl::Status CheckOptions(const CommandLine& line, const std::string& name) {
  std::vector<std::string> wrong;
  if (IsStreamCommand(name)) {
    wrong = {"timeout", "url", "incognito", "headless", "window-size", "window-position"};
  }
  const std::vector<std::string> own = StreamOptionsOf(name);
  for (const OptionSpec& spec : StreamOptionSpecs()) {
    if (std::find(own.begin(), own.end(), spec.name) == own.end()) wrong.emplace_back(spec.name);
  }
  for (const std::string& option : wrong) {
    if (!line.Has(option)) continue;
    return absl::InvalidArgumentError(absl::StrCat(name, " has no option --", option));
  }
  return absl::OkStatus();
}

absl::Status ReadStream(const CommandLine& line, CtlCommand& command) {
  absl::StatusOr<StreamCommand> stream = ParseStreamCommand(line);
  if (!stream.ok()) return stream.status();
  command.stream = *std::move(stream);
  return absl::OkStatus();
}

absl::Status ReadTimeout(const CommandLine& line, CtlCommand& command) {
  double timeout_seconds = absl::ToDoubleSeconds(kDefaultCallTimeout);
  if (line.Has("timeout") &&
      (!absl::SimpleAtod(line.Get("timeout", ""), &timeout_seconds) || !(timeout_seconds > 0))) {
    return absl::InvalidArgumentError("--timeout has to be a number of seconds");
  }
  command.timeout = absl::Seconds(timeout_seconds);
  return absl::OkStatus();
}

absl::Status ReadCall(const CommandLine& line, CtlCommand& command) {
  if (absl::Status status = ReadTimeout(line, command); !status.ok()) return status;
  const CommandSpec* spec = FindCommand(command.name);
  if (spec == nullptr) return UnknownCommand(command.name);
  if (line.words.size() < 1 + spec->required_words) {
    return absl::InvalidArgumentError(absl::StrCat(command.name, " needs the languages to set"));
  }
  if (line.words.size() > 2 + spec->required_words) {
    return absl::InvalidArgumentError(absl::StrCat("unexpected argument ", line.words.back()));
  }
  command.method = rpc::ProfileRpc::descriptor()->FindMethodByName(spec->method);
  absl::StatusOr<std::unique_ptr<Message>> request = spec->make_request(line);
  if (!request.ok()) return request.status();
  command.request = *std::move(request);
  return absl::OkStatus();
}

}  // namespace

absl::StatusOr<CtlCommand> ParseCtlCommand(const std::vector<std::string>& arguments,
                                           const Environment& environment) {
  const absl::StatusOr<CommandLine> line = ParseCommandLine(arguments, OptionSpecs());
  if (!line.ok()) return line.status();

  CtlCommand command;
  command.version = line->Has("version");
  if (absl::Status status = ReadHelp(*line, command); !status.ok()) return status;
  if (command.help || command.version) return command;
  command.json = line->Has("json");
  command.default_target = !line->Has("target");
  command.target = line->Get("target", DefaultAddress(environment));
  if (absl::Status status = ReadTls(*line, command); !status.ok()) return status;
  if (line->words.empty()) return absl::InvalidArgumentError("no command given");
  command.name = line->words.front();
  if (absl::Status status = CheckOptions(*line, command.name); !status.ok()) return status;
  absl::Status status =
      IsStreamCommand(command.name) ? ReadStream(*line, command) : ReadCall(*line, command);
  if (!status.ok()) return status;
  return command;
}

std::string CtlHint(const CtlCommand& command, absl::StatusCode code) {
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
  return MessageToJson(answer) + "\n";
}

std::string FormatFailureForPeople(const CtlCommand& command, const absl::Status& status) {
  const std::string hint = CtlHint(command, status.code());
  return absl::StrCat(
      "varnicctl: ", command.name, ": ", EscapeUnprintable(std::string(status.message())), " (",
      absl::StatusCodeToString(status.code()), ")\n", hint, hint.empty() ? "" : "\n");
}

std::string FormatFailureAsJson(const absl::Status& status) {
  return JsonLine({{"error", StatusToJson(status)}});
}

std::string OutputFailure(int error) {
  return absl::StrCat("varnicctl: cannot write to the standard output: ", std::strerror(error),
                      "\n");
}

}  // namespace varnic::tools
