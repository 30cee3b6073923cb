#include "tools/stream_command.h"

#include <algorithm>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "core/net/utf8_text.h"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

constexpr char kWatchNetwork[] = "watch-network";
constexpr char kWatchProfiles[] = "watch-profiles";
constexpr char kAnswerFiles[] = "answer-files";
constexpr char kAnswerAuth[] = "answer-auth";

std::vector<std::string> ValuesOf(const CommandLine& line, const std::string& option) {
  const auto found = line.options.find(option);
  return found == line.options.end() ? std::vector<std::string>() : found->second;
}

absl::Status CheckText(const std::string& what, const std::string& text) {
  if (net::IsUtf8(text)) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat(what, " ", SafeWord(text), " is no UTF-8"));
}

absl::StatusOr<std::vector<std::string>> ProfilesOf(const CommandLine& line) {
  std::vector<std::string> profiles = ValuesOf(line, "profile");
  profiles.insert(profiles.end(), line.words.begin() + 1, line.words.end());
  for (const std::string& profile : profiles) {
    if (absl::Status status = CheckText("profile", profile); !status.ok()) return status;
  }
  if (profiles.empty()) profiles.emplace_back();
  return profiles;
}

// Under the empty id, each profile is told of; more ids would tell of some twice.
std::vector<std::string> AllIfAny(const std::vector<std::string>& profiles) {
  const bool has_all = std::find(profiles.begin(), profiles.end(), "") != profiles.end();
  return has_all ? std::vector<std::string>{""} : profiles;
}

// A glob that the shell has expanded leaves words behind.
absl::Status CheckNoWords(const CommandLine& line) {
  if (line.words.size() == 1) return absl::OkStatus();
  return absl::InvalidArgumentError(
      absl::StrCat("unexpected argument ", SafeWord(line.words[1]),
                   ": --profile names a profile, and a glob needs quotes against the shell"));
}

absl::StatusOr<AnswerFiles> ParseAnswerFiles(const CommandLine& line) {
  const bool ask = line.Has("ask");
  if (!ask && !line.Has("allow") && !line.Has("deny")) {
    return absl::InvalidArgumentError("answer-files needs --allow, --deny or --ask");
  }
  absl::StatusOr<FileRules> rules =
      FileRules::Make(ValuesOf(line, "allow"), ValuesOf(line, "deny"), ask);
  if (!rules.ok()) return rules.status();
  return AnswerFiles{*std::move(rules), ask};
}

absl::Status CheckSource(const CommandLine& line) {
  const bool user = line.Has("user");
  const bool file = line.Has("password-file");
  if (line.Has("ask") && (user || file)) {
    return absl::InvalidArgumentError("--ask goes without --user and --password-file");
  }
  if (user != file) return absl::InvalidArgumentError("--user and --password-file go together");
  if (!line.Has("ask") && !user) {
    return absl::InvalidArgumentError("answer-auth needs --user and --password-file, or --ask");
  }
  return CheckText("--user", line.Get("user", ""));
}

absl::StatusOr<AnswerAuth> ParseAnswerAuth(const CommandLine& line) {
  if (absl::Status status = CheckSource(line); !status.ok()) return status;
  AnswerAuth task;
  task.source.ask = line.Has("ask");
  task.source.username = line.Get("user", "");
  task.source.password_file = line.Get("password-file", "");
  for (const std::string& text : ValuesOf(line, "challenger")) {
    absl::StatusOr<Challenger> challenger = Challenger::Parse(text);
    if (!challenger.ok()) return challenger.status();
    task.source.challengers.push_back(*std::move(challenger));
  }
  return task;
}

}  // namespace

bool IsStreamCommand(const std::string& name) {
  return !StreamOptionsOf(name).empty();
}

std::vector<std::string> StreamOptionsOf(const std::string& name) {
  if (name == kWatchNetwork || name == kWatchProfiles) return {"profile"};
  if (name == kAnswerFiles) return {"profile", "allow", "deny", "ask"};
  if (name == kAnswerAuth) return {"profile", "user", "password-file", "challenger", "ask"};
  return {};
}

std::vector<OptionSpec> StreamOptionSpecs() {
  return {{"profile", true}, {"allow", true},         {"deny", true},      {"ask", false},
          {"user", true},    {"password-file", true}, {"challenger", true}};
}

absl::StatusOr<StreamCommand> ParseStreamCommand(const CommandLine& line) {
  const std::string& name = line.words.front();
  if (name != kWatchNetwork && name != kWatchProfiles) {
    if (absl::Status status = CheckNoWords(line); !status.ok()) return status;
  }
  StreamCommand command;
  absl::StatusOr<std::vector<std::string>> profiles = ProfilesOf(line);
  if (!profiles.ok()) return profiles.status();
  command.profiles = *std::move(profiles);
  if (name == kWatchProfiles) {
    command.profiles = AllIfAny(command.profiles);
    command.task = WatchProfiles();
  } else if (name == kAnswerFiles) {
    absl::StatusOr<AnswerFiles> task = ParseAnswerFiles(line);
    if (!task.ok()) return task.status();
    command.task = *std::move(task);
  } else if (name == kAnswerAuth) {
    absl::StatusOr<AnswerAuth> task = ParseAnswerAuth(line);
    if (!task.ok()) return task.status();
    command.task = *std::move(task);
  }
  return command;
}

}  // namespace varnic::tools
