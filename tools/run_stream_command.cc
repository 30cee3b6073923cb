#include "tools/run_stream_command.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <variant>

#include "absl/strings/str_cat.h"
#include "core/client/client.h"
#include "core/net/event_loop.h"
#include "rpc/host/browser_host.client.h"
#include "rpc/profile/profile.client.h"
#include "tools/connection_text.h"
#include "tools/credentials_answerer.h"
#include "tools/file_answerer.h"
#include "tools/network_text.h"
#include "tools/password_file.h"
#include "tools/profile_changes.h"
#include "tools/stream_output.h"
#include "tools/terminal_prompt.h"

namespace varnic::tools {
namespace {

// Of "default-incognito-1": which ids there will be is not known.
constexpr std::size_t kUsualIdWidth = 19;

void PrintError(const std::string& text) {
  std::fputs(text.c_str(), stderr);
}

std::string FailureText(const CtlCommand& command, const absl::Status& status) {
  return command.json ? FormatFailureAsJson(status) : FormatFailureForPeople(command, status);
}

int FailureCode(const absl::Status& status) {
  return kCtlCallFailed + static_cast<int>(status.code());
}

StreamOutput::Options OutputOptions(const CtlCommand& command) {
  StreamOutput::Options options;
  options.json = command.json;
  if (std::holds_alternative<WatchProfiles>(command.stream->task)) {
    options.profile_width = kUsualIdWidth;
  }
  for (const std::string& profile : command.stream->profiles) {
    options.profile_width = std::max(options.profile_width, ProfileLabel(profile).size());
  }
  return options;
}

ClientOptions OptionsOf(const CtlCommand& command) {
  ClientOptions options;
  options.tls = command.tls;
  return options;
}

// What one run of a command is made of, whichever it is.
class StreamRun {
 public:
  StreamRun(const CtlCommand& command, std::unique_ptr<Terminal> terminal)
      : command_(command),
        client_(loop_, command.target, OptionsOf(command)),
        profile_(client_),
        browser_host_(client_),
        output_(loop_, OutputOptions(command), [this](int error) { OnOutputBroken(error); }) {
    if (terminal == nullptr) return;
    prompt_ = std::make_unique<TerminalPrompt>(loop_, std::move(*terminal));
    output_.set_prompt(prompt_.get());
  }

  int Run(const WatchNetwork& /*task*/) {
    return RunStream(profile_.WhenNetworkChanged(
        [this](const rpc::NetworkChanged& event) { output_.Tell(DescribeNetworkChange(event)); },
        Listeners()));
  }

  int Run(const WatchProfiles& /*task*/) {
    ProfileChanges changes;
    return RunStream(browser_host_.WhenProfilesChanged(
        [&](const rpc::ProfilesChanged& event) {
          for (const Happening& happening : changes.Take(event)) output_.Tell(happening);
        },
        Listeners()));
  }

  int Run(const AnswerFiles& task) {
    FileAnswerer answerer(task.rules, output_, prompt_.get());
    return RunStream(profile_.OnCanAccessFile(
        [&](FileAnswerer::Question question) {
          if (!stopping_) answerer.OnQuestion(std::move(question));
        },
        Listeners()));
  }

  int Run(const AnswerAuth& task) {
    CredentialsAnswerer answerer(task.source, output_, prompt_.get());
    return RunStream(profile_.OnAuthenticate(
        [&](CredentialsAnswerer::Question question) {
          if (!stopping_) answerer.OnQuestion(std::move(question));
        },
        Listeners()));
  }

 private:
  template <class Stream>
  int RunStream(std::unique_ptr<Stream> stream) {
    for (const std::string& id : command_.stream->profiles) {
      ProfileId profile;
      profile.set_value(id);
      stream->Subscribe(profile);
    }
    const net::StopSignals signals(loop_, [this](int /*signal*/) { Stop(kCtlOk); });
    loop_.Run();
    // While the stream can still say so, which it does on the loop.
    DropQuestions();
    loop_.RunPending();
    output_.Finish();
    return exit_status_;
  }

  StreamListeners Listeners() {
    StreamListeners listeners;
    listeners.on_up = [this] { OnUp(); };
    listeners.on_down = [this](const absl::Status& why, absl::Duration retry_in) {
      OnDown(why, retry_in);
    };
    listeners.on_end = [this](const absl::Status& status) { OnEnd(status); };
    return listeners;
  }

  void OnUp() {
    output_.Tell(DescribeUp(was_up_));
    was_up_ = true;
  }

  void OnDown(const absl::Status& why, absl::Duration retry_in) {
    // What to try, once, and not when it has worked before.
    const bool first = !std::exchange(was_down_, true) && !was_up_;
    output_.Tell(DescribeDown(why, retry_in, was_up_, first ? CtlHint(command_, why) : ""));
  }

  void OnEnd(const absl::Status& status) {
    DropQuestions();
    if (stopping_) return;
    output_.Complain(status.ok() ? "varnicctl: the host has ended the stream\n"
                                 : FailureText(command_, status));
    Stop(status.ok() ? kCtlOk : FailureCode(status));
  }

  void OnOutputBroken(int error) {
    if (stopping_) return;
    output_.Complain(OutputFailure(error));
    Stop(kCtlOutputFailed);
  }

  void DropQuestions() {
    output_.set_prompt(nullptr);
    prompt_.reset();
  }

  void Stop(int exit_status) {
    if (std::exchange(stopping_, true)) return;
    exit_status_ = exit_status;
    loop_.Stop();
  }

  const CtlCommand& command_;
  net::EventLoop loop_;
  Client client_;
  rpc::ProfileClient profile_;
  rpc::BrowserHostClient browser_host_;
  StreamOutput output_;
  std::unique_ptr<TerminalPrompt> prompt_;  // While somebody may be asked.
  bool was_up_ = false;
  bool was_down_ = false;
  bool stopping_ = false;  // What still happens changes nothing.
  int exit_status_ = kCtlOk;
};

bool AsksPerson(const StreamCommand& stream) {
  const auto* files = std::get_if<AnswerFiles>(&stream.task);
  const auto* credentials = std::get_if<AnswerAuth>(&stream.task);
  return (files != nullptr && files->ask) || (credentials != nullptr && credentials->source.ask);
}

// What is wrong with the password file, before anybody asks; empty if nothing is.
std::string ProblemOfPasswordFile(const StreamCommand& stream) {
  const auto* credentials = std::get_if<AnswerAuth>(&stream.task);
  if (credentials == nullptr || credentials->source.ask) return "";
  const auto password = ReadPasswordFile(credentials->source.password_file);
  return password.ok() ? "" : absl::StrCat("--password-file: ", password.status().message());
}

int UsageError(const std::string& text) {
  PrintError(absl::StrCat("varnicctl: ", text, "\n"));
  return kCtlUsage;
}

}  // namespace

int RunStreamCommand(const CtlCommand& command) {
  if (command.default_target) {
    // Made, so that nobody else makes it while this runs, and waits in it for our next attempt.
    const absl::Status status = MakePrivateFolder(DefaultRuntimeFolder(std::getenv));
    if (!status.ok()) {
      PrintError(FailureText(command, status));
      return FailureCode(status);
    }
  }
  if (std::holds_alternative<AnswerAuth>(command.stream->task)) KeepPasswordsOutOfCoreDumps();
  const std::string problem = ProblemOfPasswordFile(*command.stream);
  if (!problem.empty()) return UsageError(problem);
  std::unique_ptr<Terminal> terminal;
  if (AsksPerson(*command.stream)) {
    absl::StatusOr<Terminal> own = Terminal::OpenOwn();
    if (!own.ok()) return UsageError(absl::StrCat("--ask: ", own.status().message()));
    terminal = std::make_unique<Terminal>(*std::move(own));
  }
  StreamRun run(command, std::move(terminal));
  return std::visit([&run](const auto& task) { return run.Run(task); }, command.stream->task);
}

}  // namespace varnic::tools
