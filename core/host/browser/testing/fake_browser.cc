// A program that stands in for a browser: speaks the DevTools pipe, and misbehaves as its arguments
// and the commands say.
//
//   --ignore-everything   no signal but SIGKILL ends it, no command, and no end of its pipe
//   --ignore-pipe-end     the end of its pipe does not end it
//   --mute                reads commands and answers none
//   --never-read          does not read commands after the first
//   --flood-output        writes ten megabytes to its standard error before the first answer
//   --leave-child         leaves a process behind that does not end
//   --version=V           says that it is V
//   --exit=N --say=TEXT   writes TEXT to its standard error and exits with N at once
//   --journal=FILE        writes the commands into it: method, session and url, if there are any
//   --crash-at=METHOD     is killed by that command
//   --silent-at=METHOD      does not answer that command
//   --attach-late         see FakeTargets
//   --settings-failures=N
//
// Commands: Browser.getVersion and Browser.close as ever. Test.crash, Test.closePipe; Test.files
// tells which descriptors it has, Test.variable the value of an environment variable; Test.event
// sends an event with the same parameters, and Test.flood many large ones. FakeTargets answers what
// concerns windows. Everything else is answered with its own parameters.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "core/host/browser/testing/fake_targets.h"
#include "nlohmann/json.hpp"

namespace {

using Json = nlohmann::json;
using varnic::host::testing::FakeTargets;

constexpr int kCommandFd = 3;
constexpr int kAnswerFd = 4;

struct Behaviour {
  bool ignore_everything = false;
  bool ignore_pipe_end = false;
  bool mute = false;
  bool never_read = false;
  bool flood_output = false;
  bool leave_child = false;
  std::string version = "Chrome/156.0.8078.79";
  std::string say;
  std::string journal;
  std::string crash_at;
  std::string silent_at;
  bool attach_late = false;
  int settings_failures = 0;
  int exit_code = -1;
};

void WriteAll(int fd, const std::string& text) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t size = ::write(fd, text.data() + written, text.size() - written);
    if (size <= 0) ::_exit(3);
    written += static_cast<size_t>(size);
  }
}

void Send(const Json& message) {
  WriteAll(kAnswerFd, message.dump() + '\0');
}

[[noreturn]] void StayForEver() {
  while (true) ::pause();
}

Json OpenFiles() {
  Json files = Json::array();
  for (int fd = 0; fd < 1024; ++fd) {
    if (::fcntl(fd, F_GETFD) >= 0) files.push_back(fd);
  }
  return files;
}

// False if the command has no answer.
bool Do(const Behaviour& behaviour, const std::string& method, Json& params) {
  if (behaviour.mute) return false;
  if (method == "Browser.getVersion") {
    params = {{"product", behaviour.version}, {"userAgent", "Mozilla/5.0 Fake"}};
  } else if (method == "Test.crash") {
    ::raise(SIGKILL);
  } else if (method == "Test.closePipe") {
    ::close(kCommandFd);
    ::close(kAnswerFd);
    StayForEver();
  } else if (method == "Test.files") {
    params = {{"files", OpenFiles()}};
  } else if (method == "Test.variable") {
    const char* const value = std::getenv(params["name"].get_ref<std::string&>().c_str());
    params = {{"value", value == nullptr ? "" : value}};
  } else if (method == "Test.event") {
    Send({{"method", "Test.happened"}, {"params", params}});
  } else if (method == "Test.flood") {
    const Json flood = {{"method", "Test.flooded"}, {"params", {{"x", std::string(10'000, 'x')}}}};
    for (int i = 0; i < 100; ++i) Send(flood);
  }
  return true;
}

void Note(const Behaviour& behaviour, const std::string& method, const std::string& session,
          const Json& params) {
  if (behaviour.journal.empty()) return;
  std::ofstream journal(behaviour.journal, std::ios::app);
  journal << method;
  for (const std::string& word : {session, params.value("url", std::string())}) {
    if (!word.empty()) journal << ' ' << word;
  }
  journal << '\n';
}

void Handle(const Behaviour& behaviour, FakeTargets& targets, const std::string& text) {
  const Json command = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!command.is_object()) return Send({{"error", {{"code", -32700}, {"message", "not JSON"}}}});
  const std::string method = command.value("method", "");
  const std::string session = command.value("sessionId", "");
  Json params = command.value("params", Json::object());
  Note(behaviour, method, session, params);
  if (method == behaviour.crash_at) ::raise(SIGKILL);
  if (method == behaviour.silent_at) return;
  if (Do(behaviour, method, params)) {
    Json answer = targets.Answer(method, params, session);
    if (answer.is_null()) answer = {{"result", params}};
    answer["id"] = command.value("id", 0);
    if (!session.empty()) answer["sessionId"] = session;
    Send(answer);
    targets.AfterAnswer();
  }
  if (method == "Browser.close" && !behaviour.mute && !behaviour.ignore_everything) ::_exit(0);
  if (behaviour.never_read) StayForEver();
}

Behaviour Read(int count, char** arguments) {
  Behaviour behaviour;
  for (int i = 1; i < count; ++i) {
    const std::string argument = arguments[i];
    const std::string value = argument.substr(argument.find('=') + 1);
    const auto is = [&argument](const char* name) { return argument.rfind(name, 0) == 0; };
    behaviour.ignore_everything |= is("--ignore-everything");
    behaviour.ignore_pipe_end |= is("--ignore-pipe-end");
    behaviour.mute |= is("--mute");
    behaviour.never_read |= is("--never-read");
    behaviour.flood_output |= is("--flood-output");
    behaviour.leave_child |= is("--leave-child");
    if (is("--version=")) behaviour.version = value;
    behaviour.attach_late |= is("--attach-late");
    if (is("--say=")) behaviour.say = value;
    if (is("--journal=")) behaviour.journal = value;
    if (is("--crash-at=")) behaviour.crash_at = value;
    if (is("--silent-at=")) behaviour.silent_at = value;
    if (is("--settings-failures=")) behaviour.settings_failures = std::atoi(value.c_str());
    if (is("--exit=")) behaviour.exit_code = std::atoi(value.c_str());
  }
  return behaviour;
}

}  // namespace

int main(int count, char** arguments) {
  const Behaviour behaviour = Read(count, arguments);
  if (behaviour.ignore_everything) ::signal(SIGTERM, SIG_IGN);
  if (!behaviour.say.empty()) WriteAll(STDERR_FILENO, behaviour.say + "\n");
  if (behaviour.exit_code >= 0) return behaviour.exit_code;
  if (behaviour.flood_output) {
    const std::string line = std::string(9'999, 'x') + "\n";
    for (int i = 0; i < 1000; ++i) WriteAll(STDERR_FILENO, line);
  }
  if (behaviour.leave_child && ::fork() == 0) {
    ::close(kCommandFd);
    ::close(kAnswerFd);
    StayForEver();
  }

  FakeTargets targets(Send);
  targets.set_attaches_late(behaviour.attach_late);
  targets.set_settings_failures(behaviour.settings_failures);
  std::string text;
  char byte = 0;
  while (::read(kCommandFd, &byte, 1) == 1) {
    if (byte != '\0') {
      text.push_back(byte);
    } else {
      Handle(behaviour, targets, std::exchange(text, {}));
    }
  }
  if (behaviour.ignore_everything || behaviour.ignore_pipe_end) StayForEver();
  return 0;
}
