"""varnic-host as systemd starts it: with sockets that are bound already, and somebody to tell how
it goes. The test plays systemd."""

import os
import pathlib
import socket
import stat
import subprocess
import sys
import unittest

import certificates
import programs

NOBODY = 65534
UNAVAILABLE = 10 + 14

# What a client says first, and what it then hears: frames, the first of which is SETTINGS.
PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + b"\0\0\0\x04\0\0\0\0\0"
SETTINGS_TYPE = 4

# Puts the file descriptors that it is given where systemd would, and becomes the program.
# LISTEN_PID has to be the program's own.
LAUNCHER = """
import fcntl, os, sys
fds = [fcntl.fcntl(int(fd), fcntl.F_DUPFD, 100) for fd in sys.argv[1].split(",")]
for place, fd in enumerate(fds, 3):
    os.dup2(fd, place)
    os.close(fd)
os.environ.update(LISTEN_FDS=str(len(fds)), LISTEN_PID=str(os.getpid()))
os.execv(sys.argv[2], sys.argv[2:])
"""


UNITS = pathlib.Path(__file__).resolve().parents[2] / "packaging" / "systemd"


def settings(unit, name):
    """The values of a setting in a unit's file."""
    return [line.split("=", 1)[1] for line in (UNITS / unit).read_text().split("\n")
            if line.startswith(name + "=")]


class Notifications:
    """What a program tells its service manager."""

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(path)
        self._socket.settimeout(programs.PATIENCE_SECONDS)

    def wait_for(self, state):
        """The next notification that has this line; others before it are dropped."""
        while True:
            lines = self._socket.recv(4096).decode().split("\n")
            if state in lines:
                return lines

    def close(self):
        self._socket.close()


class SystemdTest(programs.HostTestCase):
    def setUp(self):
        super().setUp()
        self.notifications = Notifications(str(self.folder / "notify.sock"))
        self.addCleanup(self.notifications.close)
        self.environment["NOTIFY_SOCKET"] = str(self.folder / "notify.sock")

    @property
    def path(self):
        return self.folder / "host.sock"

    @property
    def target(self):
        return f"unix://{self.path}"

    def bind(self, family, address, kind=socket.SOCK_STREAM):
        bound = socket.socket(family, kind)
        self.addCleanup(bound.close)
        bound.bind(address)
        return bound

    def listen(self, family, address):
        bound = self.bind(family, address)
        bound.listen()
        return bound

    def listen_on_path(self):
        bound = self.listen(socket.AF_UNIX, str(self.path))
        self.path.chmod(0o620)
        return bound

    def start_host(self, sockets, *arguments, **environment):
        fds = [one.fileno() for one in sockets]
        host = programs.Host("-c", LAUNCHER, ",".join(map(str, fds)), programs.HOST, *arguments,
                             program=sys.executable, env={**self.environment, **environment},
                             pass_fds=fds)
        self.addCleanup(host.__exit__)
        return host

    def assert_refuses(self, fd, text, *arguments):
        result = subprocess.run(
            [sys.executable, "-c", LAUNCHER, str(fd), programs.HOST, *arguments], pass_fds=[fd],
            capture_output=True, text=True, env=self.environment, timeout=programs.PATIENCE_SECONDS)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn(text, result.stderr)

    def connect(self):
        """A client that has said its first words, whether or not anybody listens to them yet."""
        client = socket.socket(socket.AF_UNIX)
        self.addCleanup(client.close)
        client.settimeout(programs.PATIENCE_SECONDS)
        client.connect(str(self.path))
        client.sendall(PREFACE)
        return client

    def assert_served(self, client):
        self.assertEqual(client.recv(9)[3], SETTINGS_TYPE)

    def test_host_serves_the_socket_that_it_is_given_and_tells_how_it_goes(self):
        host = self.start_host([self.listen_on_path()])

        ready = self.notifications.wait_for("READY=1")

        self.assertEqual(host.addresses, [self.target])
        self.assertIn(f"STATUS=Serving on {self.target}", ready)
        result = programs.ctl("--target", self.target, "path")
        self.assertEqual((result.returncode, result.stderr), (0, ""))

        self.assertEqual(host.stop(), 0)
        stopping = self.notifications.wait_for("STOPPING=1")
        self.assertIn("STATUS=Ending 0 connections", stopping)
        self.assertEqual(stat.S_IMODE(self.path.stat().st_mode), 0o620)

    def test_clients_that_come_while_no_host_runs_are_served_by_the_next(self):
        listener = self.listen_on_path()
        early = self.connect()
        first = self.start_host([listener])
        self.assert_served(early)

        self.assertEqual(first.stop(), 0)
        between = self.connect()
        self.start_host([listener])

        self.assert_served(between)

    def test_sockets_take_the_place_of_addresses(self):
        tcp = self.listen(socket.AF_INET, ("127.0.0.1", 0))
        port = tcp.getsockname()[1]

        host = self.start_host([self.listen_on_path(), tcp], "--listen", "127.0.0.1:1")

        self.assertEqual(host.addresses, [self.target, f"127.0.0.1:{port}"])
        self.assertIn("service manager has passed sockets address=127.0.0.1:1", host.stderr())
        for target in host.addresses:
            self.assertEqual(programs.ctl("--target", target, "path").returncode, 0)

    def test_tls_is_for_the_tcp_sockets(self):
        certificates.Authority(self.folder).certify("server", "IP:127.0.0.1")
        tcp = self.listen(socket.AF_INET, ("127.0.0.1", 0))

        host = self.start_host([self.listen_on_path(), tcp],
                               "--tls-cert", str(self.folder / "server.pem"),
                               "--tls-key", str(self.folder / "server.key"))

        plain = programs.ctl("--target", host.addresses[0], "path")
        encrypted = programs.ctl("--target", host.addresses[1],
                                 "--tls-ca", str(self.folder / "ca.pem"), "path")
        self.assertEqual((plain.returncode, plain.stderr), (0, ""))
        self.assertEqual((encrypted.returncode, encrypted.stderr), (0, ""))

    @unittest.skipUnless(os.geteuid() == 0, "only root can be another user")
    def test_mode_of_the_file_lets_nobody_in_who_is_not_listed(self):
        host = self.start_host([self.listen_on_path()])
        self.path.chmod(0o666)

        result = subprocess.run(
            [programs.copy_for_everybody(programs.CTL, self.folder), "--target", self.target,
             "path"], user=NOBODY, group=NOBODY,
            extra_groups=[], capture_output=True, text=True, timeout=programs.PATIENCE_SECONDS)

        self.assertEqual(result.returncode, UNAVAILABLE, result.stderr)
        self.assertIn(f"uid={NOBODY}", host.stderr())

    def test_watchdog_hears_of_the_host_again_and_again(self):
        self.start_host([self.listen_on_path()], WATCHDOG_USEC="100000")
        self.notifications.wait_for("READY=1")

        for _ in range(3):
            self.notifications.wait_for("WATCHDOG=1")

    def test_sockets_of_another_process_are_left_alone(self):
        host = programs.Host(env={**self.environment, "LISTEN_FDS": "1", "LISTEN_PID": "1"})
        self.addCleanup(host.__exit__)

        self.assertEqual(host.addresses, [f"unix://{self.folder}/run/varnic/host.sock"])

    def test_what_is_no_socket_to_listen_on_is_named(self):
        with open(os.devnull, "rb") as file:
            self.assert_refuses(file.fileno(), "LISTEN_FDS=1: file descriptor 3 is not a socket")
        datagrams = self.bind(socket.AF_UNIX, str(self.folder / "datagrams"), socket.SOCK_DGRAM)
        self.assert_refuses(datagrams.fileno(), "file descriptor 3 is not a stream socket")
        silent = self.bind(socket.AF_UNIX, str(self.path))
        self.assert_refuses(silent.fileno(), "file descriptor 3 is a socket that does not listen")
        everywhere = self.listen(socket.AF_INET, ("0.0.0.0", 0))
        self.assert_refuses(everywhere.fileno(), "file descriptor 3: cannot listen on 0.0.0.0")

    def test_socket_that_is_not_there_is_told_of(self):
        result = subprocess.run(
            [sys.executable, "-c",
             "import os, sys\n"
             "os.environ.update(LISTEN_FDS='7', LISTEN_PID=str(os.getpid()))\n"
             "os.execv(sys.argv[1], sys.argv[1:])", programs.HOST],
            capture_output=True, text=True, env=self.environment, timeout=programs.PATIENCE_SECONDS)

        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn("LISTEN_FDS=7, the file descriptors from 3 on", result.stderr)

    def test_units_make_whatever_the_sandboxed_host_writes_to(self):
        places = {"%h": str(self.folder / "home"), "%t": str(self.folder / "run")}

        def expand(text):
            for specifier, path in places.items():
                text = text.replace(specifier, path)
            return text.split()

        os.mkdir(places["%h"])
        for command in settings("varnic-host.socket", "ExecStartPre"):
            subprocess.run(expand(command), check=True)
        for address in settings("varnic-host.socket", "ListenStream"):  # systemd makes its folder.
            os.mkdir(os.path.dirname(expand(address)[0]), 0o700)

        for paths in settings("varnic-host.service.in", "ReadWritePaths"):
            for path in expand(paths):
                self.assertTrue(os.path.isdir(path.removeprefix("-")), path)
        host = programs.Host("--metrics", f"unix:{places['%t']}/varnic/metrics.sock",
                             env={**self.environment, "HOME": places["%h"],
                                  "XDG_RUNTIME_DIR": places["%t"],
                                  "XDG_DATA_HOME": places["%h"] + "/.local/share"})
        self.addCleanup(host.__exit__)
        self.assertEqual(host.addresses, [f"unix://{places['%t']}/varnic/host.sock"])

    def test_options_that_want_a_socket_that_was_not_passed_are_usage_errors(self):
        listener = self.listen_on_path()
        result = subprocess.run(
            [sys.executable, "-c", LAUNCHER, str(listener.fileno()), programs.HOST,
             "--tls-cert", "a", "--tls-key", "b"], pass_fds=[listener.fileno()],
            capture_output=True, text=True, env=self.environment, timeout=programs.PATIENCE_SECONDS)

        self.assertEqual(result.returncode, 2, result.stderr)
        self.assertIn("is for TCP", result.stderr)


if __name__ == "__main__":
    unittest.main()
