#include "tools/call_command.h"

#include <google/protobuf/empty.pb.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "core/net/utf8_text.h"
#include "rpc/host/browser_host.rpc.h"
#include "rpc/profile/profile.rpc.h"
#include "tools/answer_text.h"
#include "tools/profile_table.h"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

using google::protobuf::Message;
using google::protobuf::ServiceDescriptor;

constexpr char kCreateBrowser[] = "create-browser";

// How a command's words and options become a request.
using MakeRequest = absl::StatusOr<std::unique_ptr<Message>> (*)(const CommandLine& line);
using FormatAnswer = std::string (*)(const Message& answer);

struct CommandSpec {
  const char* name;
  const ServiceDescriptor* (*service)();
  const char* method;
  // What the first word is that has to follow; null if none has to.
  const char* needs;
  std::size_t max_words;
  MakeRequest make_request;
  FormatAnswer format = FormatAnswerForPeople;
  absl::Duration timeout = kDefaultCallTimeout;
};

// A word behind the command's name; empty, as the id of the default profile is, if there is none.
std::string WordAt(const CommandLine& line, std::size_t index) {
  return index < line.words.size() ? line.words[index] : "";
}

absl::StatusOr<std::unique_ptr<Message>> MakeEmpty(const CommandLine& /*line*/) {
  return std::make_unique<google::protobuf::Empty>();
}

absl::StatusOr<std::unique_ptr<Message>> MakeProfileId(const CommandLine& line) {
  auto request = std::make_unique<ProfileId>();
  request->set_value(WordAt(line, 1));
  return request;
}

absl::StatusOr<std::unique_ptr<Message>> MakeSetAcceptLanguage(const CommandLine& line) {
  auto request = std::make_unique<rpc::SetAcceptLanguageRequest>();
  request->set_accept_language(line.words[1]);
  request->mutable_profile_id()->set_value(WordAt(line, 2));
  return request;
}

absl::StatusOr<std::unique_ptr<Message>> MakeNewProfile(const CommandLine& line) {
  auto request = std::make_unique<rpc::CreateProfileRequest>();
  request->set_name(WordAt(line, 1));
  return request;
}

absl::StatusOr<std::unique_ptr<Message>> MakeBrowserId(const CommandLine& line) {
  int64_t number = 0;
  if (!absl::SimpleAtoi(line.words[1], &number)) {
    return absl::InvalidArgumentError(
        absl::StrCat("a browser's id is a number, not ", SafeWord(line.words[1])));
  }
  auto request = std::make_unique<BrowserId>();
  request->set_value(number);
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
  request->mutable_profile_id()->set_value(WordAt(line, 1));
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

// The table of a type of answer, for any message that is of this type.
template <class Answer, std::string (*kFormat)(const Answer&)>
std::string Format(const Message& answer) {
  return kFormat(static_cast<const Answer&>(answer));
}

constexpr auto kProfile = rpc::ProfileRpc::descriptor;
constexpr auto kHost = rpc::BrowserHostRpc::descriptor;

constexpr CommandSpec kCommands[] = {
    {"profiles", kHost, "ListProfiles", nullptr, 0, MakeEmpty,
     Format<rpc::ProfileList, FormatProfiles>},
    {"new-profile", kHost, "CreateProfile", nullptr, 1, MakeNewProfile,
     Format<rpc::ProfileInfo, FormatProfileId>},
    {"delete-profile", kHost, "DeleteProfile", "the id of a profile", 1, MakeProfileId,
     FormatAnswerForPeople, kBrowserCallTimeout},
    {"path", kProfile, "Path", nullptr, 1, MakeProfileId},
    {"name", kProfile, "Name", nullptr, 1, MakeProfileId},
    {"is-incognito", kProfile, "IsIncognito", nullptr, 1, MakeProfileId},
    {"is-default", kProfile, "IsDefault", nullptr, 1, MakeProfileId},
    {"browsers", kHost, "ListBrowsers", nullptr, 1, MakeProfileId,
     Format<rpc::BrowserList, FormatBrowsers>},
    {kCreateBrowser, kProfile, "CreateBrowser", nullptr, 1, MakeBrowserOptions,
     FormatAnswerForPeople, kBrowserCallTimeout},
    {"close-browser", kHost, "CloseBrowser", "the id of a browser", 1, MakeBrowserId,
     FormatAnswerForPeople, kBrowserCallTimeout},
    {"get-accept-language", kProfile, "GetAcceptLanguage", nullptr, 1, MakeProfileId},
    {"set-accept-language", kProfile, "SetAcceptLanguage", "the languages to set", 2,
     MakeSetAcceptLanguage},
    {"get-user-agent", kProfile, "GetUserAgent", nullptr, 1, MakeProfileId},
    {"get-user-agent-metadata", kProfile, "GetUserAgentMetadata", nullptr, 1, MakeProfileId},
};

const CommandSpec* FindCommand(const std::string& name) {
  for (const CommandSpec& spec : kCommands) {
    if (name == spec.name) return &spec;
  }
  return nullptr;
}

absl::Status CheckWords(const CommandSpec& spec, const CommandLine& line) {
  if (spec.needs != nullptr && line.words.size() < 2) {
    return absl::InvalidArgumentError(absl::StrCat(spec.name, " needs ", spec.needs));
  }
  if (line.words.size() > 1 + spec.max_words) {
    return absl::InvalidArgumentError(absl::StrCat("unexpected argument ", line.words.back()));
  }
  return absl::OkStatus();
}

// No field of a request could hold anything else.
absl::Status CheckText(const CommandLine& line) {
  std::vector<std::string> texts = line.words;
  texts.push_back(line.Get("url", ""));
  for (const std::string& text : texts) {
    if (net::IsUtf8(text)) continue;
    return absl::InvalidArgumentError(absl::StrCat(SafeWord(text), " is no UTF-8"));
  }
  return absl::OkStatus();
}

absl::StatusOr<absl::Duration> ReadTimeout(const CommandSpec& spec, const CommandLine& line) {
  double seconds = absl::ToDoubleSeconds(spec.timeout);
  if (line.Has("timeout") &&
      (!absl::SimpleAtod(line.Get("timeout", ""), &seconds) || !(seconds > 0))) {
    return absl::InvalidArgumentError("--timeout has to be a number of seconds");
  }
  return absl::Seconds(seconds);
}

}  // namespace

bool IsCallCommand(const std::string& name) {
  return FindCommand(name) != nullptr;
}

std::vector<std::string> CallOptionsOf(const std::string& name) {
  if (name == kCreateBrowser) {
    return {"timeout", "url", "incognito", "headless", "window-size", "window-position"};
  }
  return IsCallCommand(name) ? std::vector<std::string>{"timeout"} : std::vector<std::string>();
}

std::vector<OptionSpec> CallOptionSpecs() {
  return {{"timeout", true},   {"url", true},         {"incognito", false},
          {"headless", false}, {"window-size", true}, {"window-position", true}};
}

absl::StatusOr<CallCommand> ParseCallCommand(const CommandLine& line) {
  const CommandSpec& spec = *FindCommand(line.words.front());
  const absl::StatusOr<absl::Duration> timeout = ReadTimeout(spec, line);
  if (!timeout.ok()) return timeout.status();
  if (absl::Status status = CheckWords(spec, line); !status.ok()) return status;
  if (absl::Status status = CheckText(line); !status.ok()) return status;
  absl::StatusOr<std::unique_ptr<Message>> request = spec.make_request(line);
  if (!request.ok()) return request.status();
  CallCommand command;
  command.method = spec.service()->FindMethodByName(spec.method);
  command.request = *std::move(request);
  command.timeout = *timeout;
  command.format = spec.format;
  return command;
}

}  // namespace varnic::tools
