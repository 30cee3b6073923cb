// varnicctl: one call to a host and its answer, or one stream until it is stopped.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/client/client.h"
#include "core/net/event_loop.h"
#include "core/net/tls_context.h"
#include "tools/answer_text.h"
#include "tools/ctl_command.h"
#include "tools/ctl_help.h"
#include "tools/default_paths.h"
#include "tools/run_stream_command.h"
#include "tools/standard_files.h"
#include "tools/version.h"

namespace varnic::tools {
namespace {

void PrintError(const std::string& text) {
  std::fputs(text.c_str(), stderr);
}

// Returns the exit status.
int Print(const std::string& text) {
  const bool written = std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
  if (written) return kCtlOk;
  PrintError(OutputFailure(errno));
  return kCtlOutputFailed;
}

absl::Status Call(const CtlCommand& command, google::protobuf::Message& answer) {
  if (command.default_target) {
    // In the temporary directory, anybody might have put a socket there.
    const absl::Status status = CheckPrivateFolder(DefaultRuntimeFolder(std::getenv));
    if (!status.ok()) return status;
  }
  net::EventLoop loop;
  ClientOptions options;
  options.tls = command.tls;
  Client client(loop, command.target, options);
  return client.CallAndWait(*command.call->method, *command.call->request, answer,
                            command.call->timeout);
}

// What is wrong with the files for TLS, with the options that named them; empty if nothing is.
std::string ProblemOfTls(const CtlCommand& command) {
  if (!command.tls.has_value()) return "";
  const auto context = net::TlsClientContext::Create(*command.tls);
  if (context.ok()) return "";
  return absl::StrCat(command.tls_flags, ": ", context.status().message());
}

int Execute(const CtlCommand& command) {
  if (const std::string problem = ProblemOfTls(command); !problem.empty()) {
    PrintError(absl::StrCat("varnicctl: ", problem, "\n"));
    return kCtlUsage;
  }
  if (command.stream.has_value()) return RunStreamCommand(command);
  const std::unique_ptr<google::protobuf::Message> answer(
      google::protobuf::MessageFactory::generated_factory()
          ->GetPrototype(command.call->method->output_type())
          ->New());
  const absl::Status status = Call(command, *answer);
  if (!status.ok()) {
    PrintError(command.json ? FormatFailureAsJson(status)
                            : FormatFailureForPeople(command, status));
    return kCtlCallFailed + static_cast<int>(status.code());
  }
  return Print(command.json ? FormatAnswerAsJson(*answer) : command.call->format(*answer));
}

int Main(const std::vector<std::string>& arguments) {
  const absl::StatusOr<CtlCommand> command = ParseCtlCommand(arguments, std::getenv);
  if (!command.ok()) {
    PrintError(
        absl::StrCat("varnicctl: ", command.status().message(), "\nTry 'varnicctl --help'.\n"));
    return kCtlUsage;
  }
  if (command->help) return Print(CtlHelp(command->name, std::getenv));
  if (command->version) return Print(absl::StrCat("varnicctl ", kVersion, "\n"));
  return Execute(*command);
}

}  // namespace
}  // namespace varnic::tools

int main(int argc, char** argv) {
  if (!varnic::tools::ReserveStandardFiles()) return 1;
  // A reader that is gone is an error like others.
  std::signal(SIGPIPE, SIG_IGN);
  return varnic::tools::Main(std::vector<std::string>(argv + 1, argv + argc));
}
