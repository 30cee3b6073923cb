#include "core/host/browser/spawned_browser.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

namespace varnic::host {
namespace {

// Where the child's descriptors wait until they take their places, which are all below.
constexpr int kFirstSpareFd = 10;
constexpr int kPipeFds = 5;  // Standard input, output, error, and the two of the DevTools pipe.
// linux/close_range.h has it, which not every libc's headers go along with.
constexpr unsigned kCloseOnExec = 1U << 2;

struct ChildEnds {
  FileDescriptor input;
  FileDescriptor output;
  FileDescriptor commands;
  FileDescriptor answers;
  FileDescriptor failure;  // Where the child writes errno if it cannot run the program.
};

absl::Status CannotRun(const std::string& program, int error) {
  return absl::ErrnoToStatus(error, absl::StrCat("cannot run \"", program, "\""));
}

FileDescriptor Spare(int fd) {
  FileDescriptor low(fd);
  if (!low) return low;
  return FileDescriptor(::fcntl(low.get(), F_DUPFD_CLOEXEC, kFirstSpareFd));
}

bool MakePipe(FileDescriptor& ours, FileDescriptor& childs) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return false;
  ours = FileDescriptor(fds[0]);
  childs = Spare(fds[1]);
  return static_cast<bool>(childs);
}

bool MakeSocketPair(FileDescriptor& ours, FileDescriptor& childs) {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return false;
  ours = FileDescriptor(fds[0]);
  childs = Spare(fds[1]);
  return static_cast<bool>(childs);
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

void ResetSignals() {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) ::sigaction(signal, &action, nullptr);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool PlaceDescriptors(const ChildEnds& ends) {
  const int sources[kPipeFds] = {ends.input.get(), ends.output.get(), ends.output.get(),
                                 ends.commands.get(), ends.answers.get()};
  for (int fd = 0; fd < kPipeFds; ++fd) {
    if (::dup2(sources[fd], fd) < 0) return false;
  }
  return ::syscall(SYS_close_range, kPipeFds, UINT_MAX, kCloseOnExec) == 0;
}

// Runs in the child, where only what is safe in a signal handler may be called: other threads may
// have held locks when it was made.
[[noreturn]] void BecomeBrowser(const ChildEnds& ends, pid_t parent, char* const* arguments,
                                char* const* environment) {
  // If the host dies, the end of the pipe asks a browser to end; this also reaches one that does
  // not read any more.
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (::getppid() != parent) ::_exit(127);
  ::setpgid(0, 0);
  ResetSignals();
  if (PlaceDescriptors(ends)) ::execvpe(arguments[0], arguments, environment);
  const int error = errno;
  // If this fails too, the exit status is all that is left to tell.
  if (::write(ends.failure.get(), &error, sizeof(error)) < 0) ::_exit(126);
  ::_exit(127);
}

// What the child wrote before it exited; 0 if it wrote nothing, and so runs the program.
int ReadFailure(int fd) {
  int error = 0;
  ssize_t size;
  do {
    size = ::read(fd, &error, sizeof(error));
  } while (size < 0 && errno == EINTR);
  return size == sizeof(error) ? error : 0;
}

void Reap(pid_t pid) {
  while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) continue;
}

}  // namespace

absl::StatusOr<SpawnedBrowser> SpawnBrowser(std::vector<std::string> arguments,
                                            std::vector<std::string> environment) {
  const std::string program = arguments.front();
  const std::vector<char*> argv = Pointers(arguments);
  const std::vector<char*> envp = Pointers(environment);
  SpawnedBrowser browser;
  ChildEnds childs;
  FileDescriptor failure;
  childs.input = Spare(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!childs.input || !MakePipe(browser.output, childs.output) ||
      !MakePipe(failure, childs.failure) || !MakeSocketPair(browser.to_browser, childs.commands) ||
      !MakeSocketPair(browser.from_browser, childs.answers) ||
      ::fcntl(browser.output.get(), F_SETFL, O_NONBLOCK) != 0) {
    return CannotRun(program, errno);
  }

  const pid_t parent = ::getpid();
  // Not posix_spawn, which cannot ask for a signal at the parent's death.
  browser.pid = ::fork();
  if (browser.pid == 0) BecomeBrowser(childs, parent, argv.data(), envp.data());
  if (browser.pid < 0) return CannotRun(program, errno);
  childs = ChildEnds();
  int error = ReadFailure(failure.get());
  if (error == 0) {
    browser.exit = FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, browser.pid, 0)));
    if (browser.exit) return browser;
    error = errno;
    ::kill(-browser.pid, SIGKILL);
  }
  Reap(browser.pid);
  return CannotRun(program, error);
}

}  // namespace varnic::host
