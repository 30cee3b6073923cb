#include "tools/host_options.h"

#include "absl/strings/str_cat.h"
#include "core/host/user_agent.h"
#include "tools/command_line.h"

namespace varnic::tools {

absl::StatusOr<HostOptions> ParseHostOptions(const std::vector<std::string>& arguments,
                                             const Environment& environment) {
  const absl::StatusOr<CommandLine> line = ParseCommandLine(arguments, {{"listen", true},
                                                                        {"user-data-dir", true},
                                                                        {"user-agent", true},
                                                                        {"browser", true},
                                                                        {"help", false},
                                                                        {"version", false}});
  if (!line.ok()) return line.status();
  if (!line->words.empty()) {
    return absl::InvalidArgumentError(absl::StrCat("unexpected argument ", line->words.front()));
  }

  HostOptions options;
  options.help = line->Has("help");
  options.version = line->Has("version");
  options.default_listen = !line->Has("listen");
  options.listen = options.default_listen ? std::vector<std::string>{DefaultAddress(environment)}
                                          : line->options.at("listen");
  options.default_user_data_dir = !line->Has("user-data-dir");
  options.user_data_dir = line->Get("user-data-dir", DefaultUserDataFolder(environment));
  options.profiles.browser = line->Get("browser", "");
  if (line->Has("user-agent")) {
    absl::StatusOr<host::UserAgent> user_agent =
        host::UserAgentFromText(line->Get("user-agent", ""));
    if (!user_agent.ok()) {
      return absl::InvalidArgumentError(
          absl::StrCat("--user-agent: ", user_agent.status().message()));
    }
    options.profiles.user_agent = *std::move(user_agent);
  }
  return options;
}

std::string HostHelp(const Environment& environment) {
  return absl::StrCat(
      R"(Usage: varnic-host [OPTION]...

Serves the profiles of a Chromium user-data directory to gRPC clients.

  --listen ADDRESS       where clients connect: unix:PATH, or HOST:PORT on a
                         loopback address (port 0: any free one). May be given
                         more than once.
                         Default: )",
      DefaultAddress(environment), R"(
  --user-data-dir DIR    an existing user-data directory.
                         Default: a directory of its own, made when missing:
                         )",
      DefaultUserDataFolder(environment), R"(
  --user-agent TEXT      the user agent of every profile.
                         Default: that of the installed browser.
  --browser PROGRAM      the browser to ask for its version.
                         Default: the system's chromium.
  --help                 print this text
  --version              print the version

Ctrl-C or SIGTERM ends it. Exit status: 0 after that, 1 if it cannot serve,
2 if the command line is wrong.
)");
}

}  // namespace varnic::tools
