#include "tools/terminal.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "absl/status/status.h"
#include "core/common/rpc/fatal.h"

namespace varnic::tools {
namespace {

// What kills a process unless it says otherwise. SIGINT and SIGTERM may, and are dealt with here
// only as long as nobody else does.
constexpr std::array kDeadlySignals = {
    SIGHUP,  SIGINT,  SIGQUIT, SIGABRT, SIGSEGV, SIGBUS,  SIGFPE, SIGILL,    SIGPIPE, SIGALRM,
    SIGTERM, SIGUSR1, SIGUSR2, SIGXCPU, SIGXFSZ, SIGTRAP, SIGSYS, SIGVTALRM, SIGPROF, SIGIO};

// For the signal handler, which finds nothing else.
int hidden_descriptor = -1;
termios mode_before = {};
std::array<struct sigaction, kDeadlySignals.size()> actions_before = {};

void Restore() {
  // In the background, setting a mode would stop the process.
  sigset_t background;
  sigset_t before;
  sigemptyset(&background);
  sigaddset(&background, SIGTTOU);
  pthread_sigmask(SIG_BLOCK, &background, &before);
  tcsetattr(hidden_descriptor, TCSANOW, &mode_before);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void RestoreAndDie(int signal) {
  Restore();
  raise(signal);  // The handler was for once: this time, the signal kills.
}

void HandleDeadlySignals() {
  struct sigaction action = {};
  action.sa_handler = RestoreAndDie;
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
  for (std::size_t i = 0; i < kDeadlySignals.size(); ++i) {
    sigaction(kDeadlySignals[i], nullptr, &actions_before[i]);
    const bool is_default =
        (actions_before[i].sa_flags & SA_SIGINFO) == 0 && actions_before[i].sa_handler == SIG_DFL;
    if (is_default) sigaction(kDeadlySignals[i], &action, nullptr);
  }
}

void LeaveDeadlySignals() {
  for (std::size_t i = 0; i < kDeadlySignals.size(); ++i) {
    sigaction(kDeadlySignals[i], &actions_before[i], nullptr);
  }
}

}  // namespace

absl::StatusOr<Terminal> Terminal::OpenOwn() {
  // Opened anew, so that nobody who shares the standard input finds it not blocking.
  host::FileDescriptor descriptor(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!descriptor) return absl::FailedPreconditionError("there is no terminal to ask on");
  return Terminal(std::move(descriptor));
}

Terminal::Input Terminal::ReadLine(std::string& line) {
  std::array<char, 4096> buffer;  // The longest line of a terminal.
  const ssize_t count = read(descriptor_.get(), buffer.data(), buffer.size());
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return Input::kNothingYet;
  if (count <= 0) return Input::kEnd;
  line.assign(buffer.data(), static_cast<std::size_t>(count));
  if (line.back() == '\n') line.pop_back();
  return Input::kLine;
}

void Terminal::DiscardInput() {
  tcflush(descriptor_.get(), TCIFLUSH);
}

HiddenInput::HiddenInput(const Terminal& terminal) {
  VARNIC_CHECK(hidden_descriptor == -1);
  if (tcgetattr(terminal.descriptor(), &mode_before) != 0) return;
  hidden_descriptor = terminal.descriptor();
  HandleDeadlySignals();
  termios mode = mode_before;
  mode.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  mode.c_lflag |= ECHONL;
  mode.c_cc[VSUSP] = _POSIX_VDISABLE;
  mode.c_cc[VQUIT] = _POSIX_VDISABLE;
  hidden_ = tcsetattr(terminal.descriptor(), TCSANOW, &mode) == 0;
}

HiddenInput::~HiddenInput() {
  if (hidden_descriptor == -1) return;
  Restore();
  LeaveDeadlySignals();
  hidden_descriptor = -1;
}

}  // namespace varnic::tools
