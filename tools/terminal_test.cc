#include "tools/terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>

namespace varnic::tools {
namespace {

class TerminalTest : public ::testing::Test {
 protected:
  TerminalTest() {
    int person = -1;
    int program = -1;
    EXPECT_EQ(openpty(&person, &program, nullptr, nullptr, nullptr), 0);
    person_ = host::FileDescriptor(person);
    EXPECT_EQ(fcntl(program, F_SETFL, O_NONBLOCK), 0);
    terminal_.emplace(host::FileDescriptor(program));
  }

  void Type(const std::string& text) {
    EXPECT_EQ(write(person_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  // What comes of a line that has been typed.
  Terminal::Input WaitForLine(std::string& line) {
    pollfd end = {terminal_->descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&end, 1, -1), 1);
    return terminal_->ReadLine(line);
  }

  // What is typed arrives in the system's own time, and shows when it has.
  void WaitForEcho(const std::string& text) {
    std::string screen;
    while (screen.find(text) == std::string::npos) {
      char character = 0;
      ASSERT_EQ(read(person_.get(), &character, 1), 1);
      screen += character;
    }
  }

  termios Mode() const {
    termios mode = {};
    EXPECT_EQ(tcgetattr(terminal_->descriptor(), &mode), 0);
    return mode;
  }
  bool Echoes() const { return (Mode().c_lflag & ECHO) != 0; }

  host::FileDescriptor person_;
  std::optional<Terminal> terminal_;
};

TEST_F(TerminalTest, LineIsReadWithoutItsEnd) {
  Type("Grüße\n");

  std::string line;
  EXPECT_EQ(WaitForLine(line), Terminal::Input::kLine);
  EXPECT_EQ(line, "Grüße");
}

TEST_F(TerminalTest, HalfALineIsNothingYet) {
  Type("half");
  WaitForEcho("half");

  std::string line;
  EXPECT_EQ(terminal_->ReadLine(line), Terminal::Input::kNothingYet);
}

TEST_F(TerminalTest, ControlDIsTheEnd) {
  Type("\x04");

  std::string line;
  EXPECT_EQ(WaitForLine(line), Terminal::Input::kEnd);
}

TEST_F(TerminalTest, TerminalThatIsGoneIsTheEnd) {
  person_.Close();

  std::string line;
  EXPECT_EQ(WaitForLine(line), Terminal::Input::kEnd);
}

TEST_F(TerminalTest, DiscardedInputIsNotRead) {
  Type("a whole line\nand a half");
  WaitForEcho("half");

  terminal_->DiscardInput();
  Type("new\n");

  std::string line;
  EXPECT_EQ(WaitForLine(line), Terminal::Input::kLine);
  EXPECT_EQ(line, "new");
}

TEST_F(TerminalTest, InputIsHiddenForAWhile) {
  const termios before = Mode();
  {
    const HiddenInput hidden(*terminal_);
    EXPECT_TRUE(hidden.hidden());
    EXPECT_FALSE(Echoes());
    EXPECT_EQ(Mode().c_cc[VSUSP], _POSIX_VDISABLE);
    // Its handler has to go with it.
    struct sigaction action = {};
    sigaction(SIGQUIT, nullptr, &action);
    EXPECT_NE(action.sa_handler, SIG_DFL);
  }
  EXPECT_TRUE(Echoes());
  EXPECT_EQ(Mode().c_cc[VSUSP], before.c_cc[VSUSP]);
  struct sigaction action = {};
  sigaction(SIGQUIT, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_DFL);
}

TEST_F(TerminalTest, InputThatCannotBeHiddenIsSaid) {
  person_.Close();

  const HiddenInput hidden(*terminal_);

  EXPECT_FALSE(hidden.hidden());
}

TEST_F(TerminalTest, ProcessThatIsKilledShowsInputAgain) {
  for (const int signal :
       {SIGHUP, SIGQUIT, SIGTERM, SIGABRT, SIGTRAP, SIGSYS, SIGVTALRM, SIGPROF, SIGIO}) {
    const pid_t child = fork();
    if (child == 0) {
      const HiddenInput hidden(*terminal_);
      // An exit status of 0 means that it was hidden, and nothing killed the process.
      if (!hidden.hidden() || Echoes()) _exit(1);
      raise(signal);
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);

    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
    EXPECT_TRUE(Echoes());
  }
}

// As a shell leaves a program that was suspended and goes on in the background. Runs in the first
// process of a session with the terminal; returns the exit status of the program.
int KillInTheBackground(const Terminal& terminal) {
  const int descriptor = terminal.descriptor();
  setsid();
  if (ioctl(descriptor, TIOCSCTTY, 0) != 0) return -1;
  const pid_t shell = getpgrp();
  const pid_t program = fork();
  if (program == 0) {
    std::signal(SIGTTOU, SIG_IGN);
    setpgid(0, 0);
    tcsetpgrp(descriptor, getpgrp());
    const HiddenInput hidden(terminal);
    tcsetpgrp(descriptor, shell);
    std::signal(SIGTTOU, SIG_DFL);
    raise(SIGTERM);
    _exit(0);
  }
  int status = 0;
  waitpid(program, &status, WUNTRACED);
  kill(program, SIGKILL);
  return status;
}

TEST_F(TerminalTest, ProcessThatIsKilledInTheBackgroundShowsInputAgain) {
  const pid_t shell = fork();
  if (shell == 0) {
    const int status = KillInTheBackground(*terminal_);
    _exit(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM && Echoes() ? 0 : 1);
  }

  int status = 0;
  ASSERT_EQ(waitpid(shell, &status, 0), shell);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace varnic::tools
