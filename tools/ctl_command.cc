#include "tools/ctl_command.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "tools/command_line.h"
#include "tools/connection_text.h"
#include "tools/message_json.h"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

absl::Status UnknownCommand(const std::string& name) {
  return absl::InvalidArgumentError(absl::StrCat("unknown command ", name));
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
  std::vector<OptionSpec> specs = {{"target", true},  {"tls-ca", true},          {"tls-cert", true},
                                   {"tls-key", true}, {"tls-server-name", true}, {"json", false},
                                   {"help", false},   {"version", false}};
  for (const OptionSpec& spec : CallOptionSpecs()) specs.push_back(spec);
  for (const OptionSpec& spec : StreamOptionSpecs()) specs.push_back(spec);
  return specs;
}

bool IsCommand(const std::string& name) {
  return name == "help" || IsCallCommand(name) || IsStreamCommand(name);
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

// Each command has options of its own.
absl::Status CheckOptions(const CommandLine& line, const std::string& name) {
  const std::vector<std::string> own =
      IsStreamCommand(name) ? StreamOptionsOf(name) : CallOptionsOf(name);
  for (const std::vector<OptionSpec>& specs : {CallOptionSpecs(), StreamOptionSpecs()}) {
    for (const OptionSpec& spec : specs) {
      const bool is_own = std::find(own.begin(), own.end(), spec.name) != own.end();
      if (is_own || !line.Has(spec.name)) continue;
      return absl::InvalidArgumentError(absl::StrCat(name, " has no option --", spec.name));
    }
  }
  return absl::OkStatus();
}

absl::Status ReadStream(const CommandLine& line, CtlCommand& command) {
  absl::StatusOr<StreamCommand> stream = ParseStreamCommand(line);
  if (!stream.ok()) return stream.status();
  command.stream = *std::move(stream);
  return absl::OkStatus();
}

absl::Status ReadCall(const CommandLine& line, CtlCommand& command) {
  absl::StatusOr<CallCommand> call = ParseCallCommand(line);
  if (!call.ok()) return call.status();
  command.call = *std::move(call);
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
  if (!IsCommand(command.name)) return UnknownCommand(command.name);
  if (absl::Status status = CheckOptions(*line, command.name); !status.ok()) return status;
  absl::Status status =
      IsStreamCommand(command.name) ? ReadStream(*line, command) : ReadCall(*line, command);
  if (!status.ok()) return status;
  return command;
}

std::string CtlHint(const CtlCommand& command, const absl::Status& status) {
  switch (status.code()) {
    case absl::StatusCode::kUnavailable:
      // A host that is there says itself what is the matter.
      if (!absl::StartsWith(status.message(), "cannot connect ")) return "";
      return command.default_target
                 ? "Is varnic-host running? Start it, or name another host with --target."
                 : "Is a host listening there? varnic-host prints its addresses when it starts.";
    case absl::StatusCode::kNotFound:
      return command.name == "close-browser" ? "'varnicctl browsers' lists the browsers."
                                             : "'varnicctl profiles' lists the profiles; without "
                                               "an id, the default one is meant.";
    case absl::StatusCode::kDeadlineExceeded:
      return "The host may be busy; --timeout gives it longer.";
    case absl::StatusCode::kUnimplemented:
      return "The host does not serve this method; it may be older than this varnicctl.";
    default:
      return "";
  }
}

std::string FormatFailureForPeople(const CtlCommand& command, const absl::Status& status) {
  const std::string hint = CtlHint(command, status);
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
