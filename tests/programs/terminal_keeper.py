"""Runs a program on a terminal of its own, and outlives it, as a shell does: the system takes the
terminal away, and forgets its modes, when the first process of its session ends.

  terminal_keeper.py CONTROL TERMINAL PROGRAM [ARGUMENT]...

CONTROL and TERMINAL are descriptors. Has to be started in a session of its own. Writes to CONTROL the program's process id and, at its end, its
exit status, as subprocess has it, each in a line; ends itself when CONTROL is closed.
"""

import fcntl
import os
import signal
import socket
import subprocess
import sys
import termios


def main():
    control = socket.socket(fileno=int(sys.argv[1]))
    fcntl.ioctl(int(sys.argv[2]), termios.TIOCSCTTY, 0)
    # Ctrl-C is for the program. Not ignored, because the program would inherit that.
    signal.signal(signal.SIGINT, lambda *_: None)
    with subprocess.Popen(sys.argv[3:], stdin=subprocess.DEVNULL) as program:
        # The program alone keeps its output open.
        null = os.open(os.devnull, os.O_WRONLY)
        os.dup2(null, 1)
        os.dup2(null, 2)
        control.sendall(f"{program.pid}\n".encode())
        control.sendall(f"{program.wait()}\n".encode())
    control.recv(1)


main()
