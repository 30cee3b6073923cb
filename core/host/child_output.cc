#include "core/host/child_output.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/time/clock.h"
#include "core/host/file_descriptor.h"

namespace varnic::host {
namespace {

absl::Status CannotRun(const std::string& program, int error) {
  return absl::ErrnoToStatus(error, absl::StrCat("cannot run \"", program, "\""));
}

// How a child is started. Our signal mask, ignored signals and process group stay ours.
class SpawnSettings {
 public:
  explicit SpawnSettings(int output_fd) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions_, output_fd, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    posix_spawnattr_setpgroup(&attributes_, 0);
    posix_spawnattr_setflags(
        &attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }

  const posix_spawn_file_actions_t* actions() const { return &actions_; }
  const posix_spawnattr_t* attributes() const { return &attributes_; }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

// A running child, killed with its process group and waited for by the destructor at the latest.
class Child {
 public:
  Child(std::string program, pid_t pid, FileDescriptor output)
      : program_(std::move(program)),
        pid_(pid),
        output_(std::move(output)),
        exit_(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))) {}
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid_ > 0) KillAndReap();
  }

  absl::StatusOr<std::string> ReadAll(const ChildLimits& limits) {
    if (!exit_) return CannotRun(program_, errno);
    const absl::Time deadline = absl::Now() + limits.time;
    std::string output;
    bool has_exited = false;
    while (!has_exited) {
      pollfd ready[] = {{output_.get(), POLLIN, 0}, {exit_.get(), POLLIN, 0}};
      const absl::Duration left = deadline - absl::Now();
      if (left <= absl::ZeroDuration()) return TookTooLong(limits.time);
      // An interrupted or early poll() comes round again; a failed one ends at the deadline.
      if (::poll(ready, 2, PollTimeout(left)) <= 0) continue;
      // Seen before reading, so that what was written before the exit is read.
      has_exited = ready[1].revents != 0;
      if (ready[0].revents != 0) ReadAvailable(limits.output_bytes, output);
      if (output.size() > limits.output_bytes) return WroteTooMuch(limits.output_bytes);
    }
    const absl::Status status = Reap();
    if (!status.ok()) return status;
    return output;
  }

 private:
  static int PollTimeout(absl::Duration left) {
    const int64_t ms = absl::ToInt64Milliseconds(absl::Ceil(left, absl::Milliseconds(1)));
    return static_cast<int>(std::min<int64_t>(ms, INT_MAX));
  }

  // Appends what is there without waiting. At the end of the output, leaves only the exit to poll.
  void ReadAvailable(size_t max_bytes, std::string& output) {
    char buffer[4096];
    while (output.size() <= max_bytes) {
      const ssize_t got = ::read(output_.get(), buffer, sizeof(buffer));
      if (got > 0) {
        output.append(buffer, static_cast<size_t>(got));
      } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
        output_.Close();
        return;
      } else if (errno == EAGAIN) {
        return;
      }
    }
  }

  // Ends what the child left behind; its own exit status is settled already.
  absl::Status Reap() {
    ::kill(-pid_, SIGKILL);
    int status = 0;
    const pid_t reaped = ::waitpid(std::exchange(pid_, 0), &status, 0);
    if (reaped > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return absl::OkStatus();
    return absl::FailedPreconditionError(absl::StrCat(
        "\"", program_, "\" ",
        reaped < 0          ? "ended in an unknown way"
        : WIFEXITED(status) ? absl::StrCat("ended with exit code ", WEXITSTATUS(status))
                            : absl::StrCat("was ended by signal ", WTERMSIG(status))));
  }

  void KillAndReap() {
    ::kill(-pid_, SIGKILL);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
  }

  absl::Status TookTooLong(absl::Duration limit) const {
    return absl::UnavailableError(
        absl::StrCat("\"", program_, "\" did not finish within ", absl::FormatDuration(limit)));
  }
  absl::Status WroteTooMuch(size_t limit) const {
    return absl::ResourceExhaustedError(
        absl::StrCat("\"", program_, "\" wrote more than ", limit, " bytes"));
  }

  const std::string program_;
  pid_t pid_;  // 0 once waited for.
  FileDescriptor output_;
  const FileDescriptor exit_;  // Readable once the child has exited.
};

}  // namespace

absl::StatusOr<std::string> ReadChildOutput(std::vector<std::string> arguments,
                                            const ChildLimits& limits) {
  const std::string program = arguments.front();
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  int pipe_fds[2];
  if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return CannotRun(program, errno);
  FileDescriptor output(pipe_fds[0]);
  FileDescriptor childs_end(pipe_fds[1]);
  if (::fcntl(output.get(), F_SETFL, O_NONBLOCK) != 0) return CannotRun(program, errno);
  const SpawnSettings settings(childs_end.get());
  pid_t pid = 0;
  const int error = ::posix_spawnp(&pid, program.c_str(), settings.actions(), settings.attributes(),
                                   argv.data(), environ);
  if (error != 0) return CannotRun(program, error);
  childs_end.Close();
  return Child(program, pid, std::move(output)).ReadAll(limits);
}

}  // namespace varnic::host
