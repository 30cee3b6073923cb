#include "tools/host_options.h"

#include <algorithm>
#include <utility>

#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "core/host/user_agent.h"
#include "core/net/address.h"
#include "tools/accounts.h"
#include "tools/command_line.h"

namespace varnic::tools {

namespace {

constexpr int kMaxQuestionSeconds = 24 * 60 * 60;
constexpr int kMaxLoginAttempts = 100;

absl::Status Failure(const CommandLine& line, const std::string& option, const std::string& why) {
  return absl::InvalidArgumentError(absl::StrCat(line.Quote({option}), ": ", why));
}

bool AnyIs(net::Address::Kind kind, const std::vector<std::string>& addresses) {
  return std::any_of(addresses.begin(), addresses.end(), [kind](const std::string& text) {
    const absl::StatusOr<net::Address> address = net::Address::Parse(text);
    return address.ok() && address->kind == kind;
  });
}

// Every address that `option` gives has to be one.
absl::Status CheckAddresses(const CommandLine& line, const std::string& option) {
  if (!line.Has(option)) return absl::OkStatus();
  for (const std::string& text : line.options.at(option)) {
    const absl::StatusOr<net::Address> address = net::Address::Parse(text);
    if (!address.ok()) {
      return absl::InvalidArgumentError(
          absl::StrCat("--", option, ": ", address.status().message()));
    }
  }
  return absl::OkStatus();
}

// Appends the accounts that `option` names, which `find` looks up.
template <class Id>
absl::Status ReadAccounts(const CommandLine& line, const std::string& option,
                          absl::StatusOr<Id> (*find)(const std::string&), std::vector<Id>& ids) {
  if (!line.Has(option)) return absl::OkStatus();
  for (const std::string& text : line.options.at(option)) {
    const absl::StatusOr<Id> id = find(text);
    if (!id.ok()) {
      return absl::InvalidArgumentError(
          absl::StrCat("--", option, " ", text, ": ", id.status().message()));
    }
    ids.push_back(*id);
  }
  return absl::OkStatus();
}

void ReadListen(const CommandLine& line, const Environment& environment,
                const std::vector<std::string>& inherited, HostOptions& options) {
  if (line.Has("listen")) options.listen = line.options.at("listen");
  if (!inherited.empty()) {
    options.unused_listen = std::exchange(options.listen, inherited);
  } else if (options.listen.empty()) {
    options.default_listen = true;
    options.listen = {DefaultAddress(environment)};
  }
}

absl::Status ReadLog(const CommandLine& line, HostOptions& options) {
  const absl::StatusOr<LogFormat> format = ParseLogFormat(line.Get("log-format", "text"));
  if (!format.ok()) return Failure(line, "log-format", std::string(format.status().message()));
  const absl::StatusOr<logging::LogSeverity> level = ParseLogLevel(line.Get("log-level", "info"));
  if (!level.ok()) return Failure(line, "log-level", std::string(level.status().message()));
  options.log_format = *format;
  options.log_level = *level;
  return absl::OkStatus();
}

absl::Status ReadAdmission(const CommandLine& line, HostOptions& options) {
  net::UnixAdmission& admission = options.unix_admission;
  absl::Status status = ReadAccounts(line, "allow-user", FindUser, admission.users);
  if (status.ok()) status = ReadAccounts(line, "allow-group", FindGroup, admission.groups);
  if (!status.ok()) return status;
  for (const char* option : {"allow-user", "allow-group"}) {
    if (!line.Has(option)) continue;
    if (options.default_listen) {
      return Failure(line, option,
                     "the default socket is in a folder that no other user can enter; name another "
                     "one with --listen unix:PATH");
    }
    if (!AnyIs(net::Address::Kind::kUnix, options.listen) &&
        !AnyIs(net::Address::Kind::kUnix, {options.metrics})) {
      return Failure(line, option,
                     "is for Unix-domain sockets, and none is listened on; see --listen unix:PATH "
                     "and --metrics");
    }
  }
  return absl::OkStatus();
}

absl::Status ReadTls(const CommandLine& line, HostOptions& options) {
  const std::pair<const char*, const char*> needs[] = {{"tls-cert", "tls-key"},
                                                       {"tls-key", "tls-cert"},
                                                       {"tls-client-ca", "tls-cert"},
                                                       {"tls-crl", "tls-client-ca"}};
  for (const auto& [option, other] : needs) {
    if (line.Has(option) && !line.Has(other)) {
      return Failure(line, option, absl::StrCat("needs --", other, " too"));
    }
  }
  if (!line.Has("tls-cert")) return absl::OkStatus();
  if (!AnyIs(net::Address::Kind::kTcp, options.listen)) {
    return Failure(line, "tls-cert", "is for TCP, and none is listened on; see --listen HOST:PORT");
  }
  options.tls.emplace();
  options.tls->certificate_file = line.Get("tls-cert", "");
  options.tls->key_file = line.Get("tls-key", "");
  options.tls->client_ca_file = line.Get("tls-client-ca", "");
  options.tls->crl_file = line.Get("tls-crl", "");
  options.tls_flags = line.Quote({"tls-cert", "tls-key", "tls-client-ca", "tls-crl"});
  return absl::OkStatus();
}

absl::Status ReadProfiles(const CommandLine& line, const Environment& environment,
                          HostOptions& options) {
  for (const char* option : {"profiles-dir", "user-data-dir"}) {
    if (line.Has(option) && line.Get(option, "").empty()) {
      return Failure(line, option, "needs the path of a directory");
    }
  }
  if (line.Has("user-data-dir")) {
    for (const char* option : {"profiles-dir", "no-sandbox", "restart-delay", "file-default",
                               "question-timeout", "login-attempts"}) {
      if (!line.Has(option)) continue;
      return Failure(line, option, "is for hosts with browsers, and --user-data-dir has none");
    }
  }
  options.user_data_dir = line.Get("user-data-dir", "");
  options.profiles_dir = line.Get("profiles-dir", DefaultProfilesFolder(environment));
  options.browser = line.Get("browser", "");
  options.without_sandbox = line.Has("no-sandbox");
  if (line.Has("restart-delay")) {
    double seconds = 0;
    const absl::Duration most = options.pacing.max_delay;
    if (!absl::SimpleAtod(line.Get("restart-delay", ""), &seconds) || !(seconds >= 0) ||
        seconds > absl::ToDoubleSeconds(most)) {
      return Failure(
          line, "restart-delay",
          absl::StrCat("is a number of seconds, ", absl::ToInt64Seconds(most), " at most"));
    }
    options.pacing.first_delay = absl::Seconds(seconds);
  }
  if (!line.Has("user-agent")) return absl::OkStatus();
  absl::StatusOr<host::UserAgent> user_agent = host::UserAgentFromText(line.Get("user-agent", ""));
  if (!user_agent.ok()) {
    return absl::InvalidArgumentError(
        absl::StrCat("--user-agent: ", user_agent.status().message()));
  }
  options.user_agent = *std::move(user_agent);
  return absl::OkStatus();
}

absl::Status ReadQuestions(const CommandLine& line, HostOptions& options) {
  host::QuestionOptions& questions = options.questions;
  const std::string file_default = line.Get("file-default", "deny");
  if (file_default != "deny" && file_default != "allow") {
    return Failure(line, "file-default", "has to be deny or allow");
  }
  questions.allow_files = file_default == "allow";
  if (line.Has("question-timeout")) {
    double seconds = 0;
    if (!absl::SimpleAtod(line.Get("question-timeout", ""), &seconds) || !(seconds > 0) ||
        seconds > kMaxQuestionSeconds) {
      return Failure(
          line, "question-timeout",
          absl::StrCat("has to be a number of seconds above 0, ", kMaxQuestionSeconds, " at most"));
    }
    questions.time = absl::Seconds(seconds);
  }
  if (line.Has("login-attempts")) {
    int& attempts = questions.login_attempts;
    if (!absl::SimpleAtoi(line.Get("login-attempts", ""), &attempts) || attempts < 1 ||
        attempts > kMaxLoginAttempts) {
      return Failure(line, "login-attempts",
                     absl::StrCat("has to be a number from 1 to ", kMaxLoginAttempts));
    }
  }
  return absl::OkStatus();
}

}  // namespace

absl::StatusOr<HostOptions> ParseHostOptions(const std::vector<std::string>& arguments,
                                             const Environment& environment,
                                             const std::vector<std::string>& inherited) {
  const absl::StatusOr<CommandLine> line = ParseCommandLine(
      arguments, {{"listen", true},        {"profiles-dir", true},     {"user-data-dir", true},
                  {"user-agent", true},    {"browser", true},          {"no-sandbox", false},
                  {"file-default", true},  {"question-timeout", true}, {"login-attempts", true},
                  {"allow-user", true},    {"allow-group", true},      {"tls-cert", true},
                  {"tls-key", true},       {"tls-client-ca", true},    {"tls-crl", true},
                  {"policy", true},        {"metrics", true},          {"no-reflection", false},
                  {"restart-delay", true}, {"log-format", true},       {"log-level", true},
                  {"help", false},         {"version", false}});
  if (!line.ok()) return line.status();
  if (!line->words.empty()) {
    return absl::InvalidArgumentError(absl::StrCat("unexpected argument ", line->words.front()));
  }

  HostOptions options;
  options.help = line->Has("help");
  options.version = line->Has("version");
  ReadListen(*line, environment, inherited, options);
  for (const char* option : {"tls-cert", "tls-key", "tls-client-ca", "tls-crl", "policy"}) {
    if (line->Has(option) && line->Get(option, "").empty()) {
      return Failure(*line, option, "needs the path of a file");
    }
  }
  options.policy = line->Get("policy", "");
  if (line->Has("metrics") && line->Get("metrics", "").empty()) {
    return Failure(*line, "metrics", "needs an address");
  }
  options.metrics = line->Get("metrics", "");
  options.reflection = !line->Has("no-reflection");
  absl::Status status = CheckAddresses(*line, "listen");
  if (status.ok()) status = CheckAddresses(*line, "metrics");
  if (status.ok()) status = ReadLog(*line, options);
  if (status.ok()) status = ReadAdmission(*line, options);
  if (status.ok()) status = ReadTls(*line, options);
  if (status.ok()) status = ReadProfiles(*line, environment, options);
  if (status.ok()) status = ReadQuestions(*line, options);
  if (!status.ok()) return status;
  return options;
}

std::string HostHelp(const Environment& environment) {
  return absl::StrCat(
      R"(Usage: varnic-host [OPTION]...

Serves browser profiles to gRPC clients, and runs the browsers in them.

  --listen ADDRESS       where clients connect: unix:PATH, or HOST:PORT on a
                         loopback address (port 0: any free one); with TLS, on
                         any address. May be given more than once. Sockets that
                         systemd passes take the place of all of them.
                         Default: )",
      DefaultAddress(environment), R"(
  --profiles-dir DIR     the profiles: a folder of the host's own, made when
                         missing, with a user-data directory for each of them.
                         Default: )",
      DefaultProfilesFolder(environment), R"(
  --user-data-dir DIR    instead, the files of an existing user-data directory;
                         no browser is run
  --user-agent TEXT      the user agent of every profile.
                         Default: that of the installed browser.
  --browser PROGRAM      the browser, Chromium 132 or newer.
                         Default: the system's chromium.
  --no-sandbox           run the browser without its sandbox, as root has to: a
                         page that breaks out of the browser is the host's user
  --restart-delay SECONDS
                         how far apart the starts of a browser are after it has
                         crashed; twice as far with each crash more, and two
                         minutes at most. 0: no delay. Default: 1
  --file-default ANSWER  deny or allow: whether pages may read a file if no
                         client answers. Default: deny
  --question-timeout SECONDS
                         how long a client may take to answer. Default: 30
  --login-attempts N     how often a request asks for credentials before it goes
                         on without. Default: 3
  --allow-user USER      let this user, by name or number, connect to a
                         Unix-domain socket, too. May be given more than once.
                         Default: only the user that the host runs as.
  --allow-group GROUP    let the members of this group do so
  --tls-cert FILE        serve HOST:PORT with TLS: the certificate, and what
                         leads from it to a root, in PEM form
  --tls-key FILE         its private key
  --tls-client-ca FILE   require clients to have a certificate of these roots
  --tls-crl FILE         and none that is on these revocation lists
  --policy FILE          which clients may call which methods, in JSON; see
                         docs/security.md. Default: all who may connect, all.
                         Files that change are read again by themselves.
  --metrics ADDRESS      serve metrics for Prometheus at /metrics over HTTP:
                         unix:PATH, for those who may connect to the others,
                         or HOST:PORT on a loopback address, for everybody on
                         this machine. See docs/operations.md.
  --no-reflection        do not tell clients what the methods look like
  --log-format FORMAT    log records, on standard error, as lines of text or
                         of json. Default: text
  --log-level LEVEL      log records of this level and above: debug, info,
                         warning or error. Default: info
  --help                 print this text
  --version              print the version

Ctrl-C or SIGTERM ends it, once the calls that are open have ended or 10 seconds
have passed, and then the browsers; another one ends it at once. Exit status: 0
after that, 1 if it cannot serve, 2 if the command line is wrong. See
docs/operations.md.
)");
}

}  // namespace varnic::tools
