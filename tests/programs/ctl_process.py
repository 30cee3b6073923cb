"""A varnicctl that runs, with or without a terminal, and what it writes meanwhile."""

import json
import os
import pathlib
import pty
import re
import signal
import socket
import subprocess
import sys
import termios
import threading

import programs

TERMINAL_KEEPER = str(pathlib.Path(__file__).parent / "terminal_keeper.py")

# What a terminal, or a reader of lines, would take for something else than text.
HOSTILE = "\x1b]0;x\x07\x1b[2J\u009b1m\u202e\nallow"
HARMFUL = re.compile("[\x00-\x08\x0b\x0c\x0e-\x1f\x7f-\x9f\u202e]")


class Reader:
    """Collects what comes out of a file, on a thread."""

    def __init__(self, descriptor):
        self.text = ""
        self._descriptor = descriptor
        self._changed = threading.Condition()
        self._thread = threading.Thread(target=self._read)
        self._thread.start()

    def _read(self):
        data = b""
        while True:
            try:
                piece = os.read(self._descriptor, 65536)
            except OSError:  # What a terminal says when nobody is at its other end.
                piece = b""
            with self._changed:
                data += piece
                self.text = data.decode(errors="replace")
                self._changed.notify_all()
            if not piece:
                return

    def wait_for(self, pattern, count=1):
        """The `count`th match of a regular expression, once there are so many."""
        def matches():
            return list(re.finditer(pattern, self.text))

        with self._changed:
            found = self._changed.wait_for(
                lambda: len(matches()) >= count, programs.PATIENCE_SECONDS
            )
            if not found:
                raise AssertionError(f"no {pattern!r} in {self.text!r}")
            return matches()[count - 1]

    def join(self):
        self._thread.join(programs.PATIENCE_SECONDS)


class Ctl:
    """A varnicctl that runs without a terminal. `out` and `err` are what it has written."""

    def __init__(self, *arguments, stdout=subprocess.PIPE):
        self.process = self._start([programs.CTL, *arguments], stdout)
        self.out = Reader(self.process.stdout.fileno()) if stdout == subprocess.PIPE else None
        self.err = Reader(self.process.stderr.fileno())

    def _start(self, command, stdout, **options):
        return subprocess.Popen(
            command,
            stdin=subprocess.DEVNULL,
            stdout=stdout,
            stderr=subprocess.PIPE,
            start_new_session=True,
            **options,
        )

    def json_line(self, count):
        """The object in the `count`th line of the standard output."""
        return json.loads(self.out.wait_for(r".*\n", count).group())

    def send_signal(self, number):
        self.process.send_signal(number)

    def _exit_status(self):
        return self.process.wait(programs.PATIENCE_SECONDS)

    def wait(self):
        """The exit status, when everything has been read."""
        status = self._exit_status()
        for reader in (self.out, self.err):
            if reader is not None:
                reader.join()
        return status

    def stop(self, number=signal.SIGINT):
        self.send_signal(number)
        return self.wait()

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        if self.process.stdout is not None:
            self.out.join()
            self.process.stdout.close()
        self.err.join()
        self.process.stderr.close()


class CtlOnTerminal(Ctl):
    """A varnicctl with a terminal of its own. `terminal` is what has been on the screen."""

    def _start(self, command, stdout, **options):
        self._person, screen = pty.openpty()
        self._control, other_end = socket.socketpair()
        self._status = None
        keeper = super()._start(
            [sys.executable, TERMINAL_KEEPER, str(other_end.fileno()), str(screen), *command],
            stdout,
            pass_fds=(other_end.fileno(), screen),
        )
        other_end.close()
        os.close(screen)
        self._control.settimeout(programs.PATIENCE_SECONDS)
        self._control_lines = self._control.makefile()
        self._pid = int(self._control_lines.readline())
        self.terminal = Reader(self._person)
        return keeper

    def type(self, text):
        os.write(self._person, text.encode())

    def echoes(self):
        return bool(termios.tcgetattr(self._person)[3] & termios.ECHO)

    def send_signal(self, number):
        os.kill(self._pid, number)

    def _exit_status(self):
        if self._status is None:
            self._status = int(self._control_lines.readline())
        return self._status

    def close(self):
        if self._status is None:
            self.send_signal(signal.SIGKILL)
            self._exit_status()
        self._control_lines.close()
        self._control.close()
        self.process.wait(programs.PATIENCE_SECONDS)
        super().close()
        self.terminal.join()
        os.close(self._person)
