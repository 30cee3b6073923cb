#include "tools/ctl_help.h"

#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "tools/ctl_command.h"

namespace varnic::tools {
namespace {

std::string GeneralHelp(const Environment& environment) {
  return absl::StrCat(R"(Usage: varnicctl [OPTION]... COMMAND [PROFILE]
       varnicctl help COMMAND

Calls a running varnic-host about its profiles and their browsers.

  profiles                       all profiles, incognito ones too, a line each
  new-profile [NAME]             make one that stays, and print its id
  delete-profile PROFILE         close its browsers, and remove what it has on
                                 the host's disk
  browsers [PROFILE]             open browsers, of all profiles or of one
  close-browser BROWSER          by its id, as create-browser prints it

These are about one profile: its id, or nothing for the default profile.

  path                           the profile's folder on the host's disk
  name                           the name that a person gave it
  is-incognito
  is-default
  create-browser                 open a browser in the profile, and print the
                                 browser's id; see below
  get-accept-language            the languages that pages are asked for
  set-accept-language LANGUAGES  set them: "fr-FR,fr,en"; the profile follows
  get-user-agent
  get-user-agent-metadata        the user-agent client hints

These run until Ctrl-C, and come back by themselves when the connection is
lost; 'varnicctl help COMMAND' says more about each:

  watch-network [PROFILE]...     print changes of the network as they happen
  watch-profiles [PROFILE]...    print what happens to profiles and browsers
  answer-files                   answer the host's questions about files
  answer-auth                    answer its questions for credentials

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
                      absl::ToInt64Seconds(kDefaultCallTimeout), R"(, or
                                 )",
                      absl::ToInt64Seconds(kBrowserCallTimeout),
                      R"( where a browser may have to start or to end
  --json                         print answers and errors as JSON, a line each
  --help                         print this text
  --version                      print the version

For create-browser:
  --url URL                      what it shows first
  --incognito
  --headless
  --window-size WIDTHxHEIGHT     in pixels
  --window-position X,Y          on the screen, in pixels

Exit status: 0 if the call was answered, 1 if the answer could not be written,
2 if the command line is wrong, and 10 plus the gRPC status if the call failed:
13 for a bad argument, 15 for an unknown profile or browser, 19 if the host
cannot do it now, 24 if no host is there.
A command that runs until Ctrl-C exits with 0 then.
)");
}

// What holds for each command that runs until it is stopped.
constexpr char kStreamHelp[] = R"(
It runs until Ctrl-C or SIGTERM, and exits with 0 then. A connection that is
lost, or that cannot be made, is tried again after a second, and then ever more
slowly, up to every two minutes. The exit status is 10 plus the gRPC status if
the host ends the stream for good, 2 if the command line is wrong, and 1 if the
standard output cannot be written.

It goes on while nobody reads its output: a megabyte is kept, lines beyond that
are dropped, and a line in their place says how many. At the end, what nobody
has read within half a second is lost.

Where to connect: --target and the --tls options; see 'varnicctl --help'.
)";

constexpr char kJsonHelp[] = R"(
With --json, each line is one JSON object with "time" (UTC) and "type". About
the connection, on the standard output as well:
  {"time":...,"type":"up"}
  {"time":...,"type":"down","error":{"code":14,"status":"UNAVAILABLE",
   "message":...},"retryInSeconds":1.6}
  {"time":...,"type":"dropped","lines":12}
)";

constexpr char kWatchNetworkHelp[] = R"(Usage: varnicctl watch-network [OPTION]... [PROFILE]...

Prints a line each time that the host tells of a change of the network: time,
profile, online or offline, kind of connection, how fast it is in effect and at
most, and the interfaces. What changes while there is no connection is not
heard. Without a profile, the default profile is meant.

  --profile PROFILE              the same as PROFILE alone
  --json                         print JSON, a line each; type "network":
                                 {"time":...,"type":"network","profile":...,
                                  "change":{"online":true,...}}
                                 with the fields of rpc.NetworkChanged
)";

constexpr char kWatchProfilesHelp[] =
    R"(Usage: varnicctl watch-profiles [OPTION]... [PROFILE]...

Prints what profiles and browsers there are, and then a line for each thing that
happens to them: profiles are created, started, stopped, renamed and deleted;
browsers are opened, show another page, and are closed. What happens while there
is no connection is told when it is back. Without a profile, all are meant.

  --profile PROFILE              the same as PROFILE alone
  --json                         print JSON, a line each; type "profile" or
                                 "browser":
                                 {"time":...,"type":"profile","profile":...,
                                  "change":...,"state":{"name":...,...}}
                                 {"time":...,"type":"browser","profile":...,
                                  "change":...,"browser":{"id":...,...}}
                                 with the fields of rpc.ProfileInfo and
                                 rpc.BrowserInfo. "change" of a profile is
                                 "present", "created", "started", "stopped",
                                 "renamed", "default" (it is that now),
                                 "deleted" or "absent" (no profile has this id;
                                 without "state"); of a browser, "present",
                                 "opened", "shows" or "closed"

The host tells states, so of what comes and goes quickly nothing may be heard.
)";

constexpr char kAnswerFilesHelp[] =
    R"(Usage: varnicctl answer-files [OPTION]... [--allow GLOB]... [--deny GLOB]...
       varnicctl answer-files [OPTION]... --ask

Answers the host's questions whether a page may read, write or list a file, and
prints a line for each: time, profile, answer, kind of access, path, who asks,
and why it was answered so.

  --profile PROFILE              answer for this profile; any number of them.
                                 Default: the default profile
  --allow GLOB                   allow what GLOB matches
  --deny GLOB                    deny what GLOB matches, and everything in a
                                 folder that it matches, whatever --allow says
  --ask                          ask on the terminal about what no glob matches.
                                 Default: it is denied
  --json                         print JSON, a line each; type "file":
                                 {"time":...,"type":"file","profile":...,
                                  "request":{"path":...,"access":"READ",
                                  "origin":...},"answer":...,"reason":...}
                                 "answer" is "allow", "deny" or "withdrawn"

A GLOB is matched with the whole path, begins with / or **, and needs quotes
against the shell:
  ?      one character, but no /
  *      any number of characters, none of them /; also at the start of .names
  **/    any number of whole folders, none included: /a/**/b is /a/b, too
  **     elsewhere, any number of characters: /a/** is all that is in /a
  [a-z]  one character of a set; [!a-z] one that is not in it
  \      takes the next character as it is
  /      at the end: the folder and all that is in it; / alone is everything

Only the path counts: symbolic links stand for themselves. A path that is not
plain (relative, or with //, . or .. in it) is denied, and nobody is asked.

Whoever subscribed last answers for a profile. When the command ends, the host
hears that its open questions get no answer, and ends them in its own way.
)";

constexpr char kAnswerAuthHelp[] =
    R"(Usage: varnicctl answer-auth [OPTION]... --user NAME --password-file FILE
       varnicctl answer-auth [OPTION]... --ask

Answers the host's questions for the credentials that a server or a proxy wants,
and prints a line for each: time, profile, answer, scheme, who wants them, for
which realm and which page. Passwords are never printed.

  --profile PROFILE              answer for this profile; any number of them.
                                 Default: the default profile
  --user NAME                    the user name to send
  --password-file FILE           the password, in a file of one line. It is read
                                 for each question, so it may be replaced. It
                                 has to be yours, and closed to others (0600),
                                 or root's, which a group may read
  --challenger HOST[:PORT]       give credentials to this server or proxy, and
                                 cancel the questions of others; any number of
                                 them. Default: WHOEVER asks gets them
  --ask                          ask on the terminal for user name and password
  --json                         print JSON, a line each; type "credentials":
                                 {"time":...,"type":"credentials","profile":...,
                                  "request":{"url":...,...},
                                  "answer":...,"username":...,"reason":...}
                                 with the fields of rpc.Authenticate.Request;
                                 "answer" is "sent", "cancelled", "failed" (the
                                 file cannot be read) or "withdrawn"

A password that a server or proxy was sent for a profile, and has refused, is
not sent to it again: the question is cancelled, until the file has another one,
or until the host says that a challenge is the first.
)";

}  // namespace

std::string CtlHelp(const std::string& name, const Environment& environment) {
  const char* text = nullptr;
  if (name == "watch-network") text = kWatchNetworkHelp;
  if (name == "watch-profiles") text = kWatchProfilesHelp;
  if (name == "answer-files") text = kAnswerFilesHelp;
  if (name == "answer-auth") text = kAnswerAuthHelp;
  if (text == nullptr) return GeneralHelp(environment);
  return absl::StrCat(text, kJsonHelp, kStreamHelp);
}

}  // namespace varnic::tools
