"""What varnic-host tells whoever operates it: one line for each record, whatever it is about."""

import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import unittest

import grpc

import programs

TEXT_LINE = re.compile(
    r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (DEBUG|INFO|WARNING|ERROR) [a-z0-9_]+\.(cc|h):\d+ .+")
# Puts a file descriptor in the place of standard error, and becomes the program, for which no signal
# is ignored as it is in Python.
LAUNCHER = """
import os, signal, sys
signal.signal(signal.SIGPIPE, signal.SIG_DFL)
os.dup2(int(sys.argv[1]), 2)
os.execv(sys.argv[2], sys.argv[2:])
"""
DENY_ALL = '{"roles": {}, "methods": {}}'
# More than the host writes of one kind at once.
FLOOD = 300


def fill(pipe):
    """Writes until the pipe takes nothing more. Its descriptors stay as they are, and block."""
    os.set_blocking(pipe, False)
    for size in (4096, 1):
        try:
            while True:
                os.write(pipe, b"\n" * size)
        except BlockingIOError:
            pass
    os.set_blocking(pipe, True)


def drain(pipe):
    """Reads what is in the pipe."""
    os.set_blocking(pipe, False)
    try:
        while os.read(pipe, 65536):
            pass
    except BlockingIOError:
        pass
    os.set_blocking(pipe, True)


class HostLogTest(programs.HostTestCase):
    def start_host(self, *arguments):
        return super().start_host("--listen", "127.0.0.1:0", *arguments)

    def call(self, host, method="/rpc.Profile/Path"):
        """The status of a call, made by somebody else's gRPC."""
        with grpc.insecure_channel(host.addresses[0]) as channel:
            try:
                channel.unary_unary(method)(b"", timeout=programs.PATIENCE_SECONDS)
            except grpc.RpcError as error:
                return error.code()
        return grpc.StatusCode.OK

    def lines_of(self, host):
        """What the host has written, once it has ended."""
        self.assertEqual(host.stop(), 0)
        # Not splitlines(), which ends a line at more than its end.
        *lines, rest = host.stderr().split("\n")
        self.assertEqual(rest, "")
        return lines

    def records_of(self, host):
        return [json.loads(line) for line in self.lines_of(host)]

    def test_life_of_a_host_is_told_in_lines_of_text(self):
        host = self.start_host()
        self.assertEqual(self.call(host), grpc.StatusCode.OK)

        lines = self.lines_of(host)

        for line in lines:
            self.assertRegex(line, TEXT_LINE)
        messages = [line.split(" ", 3)[3] for line in lines]
        for expected in (r"^Starting version=\S+ pid=\d+ profiles_dir=",
                         f"^Listening address={re.escape(host.addresses[0])}$",
                         "^Stopping signal=SIGTERM$",
                         r"^Draining connections=\d+ streams=0 patience=10s$",
                         "^Drained connections_left=0 reason=", "^Stopped$"):
            self.assertTrue(any(re.search(expected, message) for message in messages),
                            (expected, messages))
        self.assertFalse(any("Accepted" in message for message in messages), messages)

    def test_json_has_a_record_in_each_line(self):
        (self.folder / "policy.json").write_text(DENY_ALL)
        host = self.start_host("--log-format", "json", "--policy", str(self.folder / "policy.json"))
        self.assertEqual(self.call(host), grpc.StatusCode.PERMISSION_DENIED)

        records = self.records_of(host)

        for record in records:
            self.assertEqual(list(record), ["time", "level", "source", "message"])
        denial = [record for record in records if record["level"] == "warning"]
        self.assertEqual(len(denial), 1, records)
        self.assertTrue(denial[0]["message"].startswith(
            "Denied a call method=/rpc.Profile/Path peer=127.0.0.1:"))
        self.assertTrue(denial[0]["source"].startswith("policy_file.cc:"))

    def test_level_leaves_out_what_is_below_it(self):
        quiet = self.start_host("--log-level", "warning")
        self.assertEqual(self.call(quiet), grpc.StatusCode.OK)
        self.assertEqual(self.lines_of(quiet), [])

        verbose = self.start_host("--log-level", "debug", "--log-format", "json")
        self.assertEqual(self.call(verbose), grpc.StatusCode.OK)
        messages = [record["message"] for record in self.records_of(verbose)
                    if record["level"] == "debug"]
        self.assertRegex(messages[0], r"^Accepted a connection peer=127\.0\.0\.1:\d+")

    def test_text_of_a_peer_forges_no_field(self):
        (self.folder / "policy.json").write_text(DENY_ALL)
        host = self.start_host("--policy", str(self.folder / "policy.json"))
        self.assertEqual(self.call(host, '/a"peer=127.0.0.1:1'),
                         grpc.StatusCode.PERMISSION_DENIED)

        denial = [line for line in self.lines_of(host) if "Denied" in line]

        self.assertRegex(denial[0], r'method="/a\\"peer=127\.0\.0\.1:1" peer=127\.0\.0\.1:\d+$')

    def test_name_with_a_new_line_forges_no_record(self):
        # Of no user-data directory. The host says it twice: what it starts with, and why it ends.
        name = str(self.folder / "x\n2026-11-21T05:00:00.000Z ERROR x.cc:1 forged\x1b[2J")
        for log_format in ("text", "json"):
            result = subprocess.run(
                [programs.HOST, "--user-data-dir", name, "--log-format", log_format],
                capture_output=True, text=True, env=self.environment,
                timeout=programs.PATIENCE_SECONDS)

            self.assertEqual(result.returncode, 1, result.stderr)
            self.assertEqual(result.stderr.count("\n"), 2, result.stderr)
            self.assertEqual(result.stderr.count("forged"), 2, result.stderr)
            self.assertNotIn("\x1b", result.stderr)

    def test_file_that_is_read_again_is_told_of_but_not_what_it_holds(self):
        policy = self.folder / "policy.json"
        policy.write_text(DENY_ALL)
        host = self.start_host("--policy", str(policy))

        replacement = self.folder / "new"
        replacement.write_text("s3cret")
        replacement.rename(policy)
        while "cannot be used" not in host.stderr():
            self.assertEqual(self.call(host), grpc.StatusCode.PERMISSION_DENIED)
        replacement.write_text('{"roles": {"all": {"anyone": true}}, "methods": {"*": ["all"]}}')
        replacement.rename(policy)
        while self.call(host) != grpc.StatusCode.OK:
            pass

        log = "\n".join(self.lines_of(host))
        self.assertIn(f"The policy has changed and is in force policy={policy}", log)
        self.assertNotIn("s3cret", log)

    def test_flood_of_records_is_cut(self):
        host = self.start_host("--log-level", "debug", "--log-format", "json")
        name, port = host.addresses[0].rsplit(":", 1)
        for _ in range(FLOOD):
            socket.create_connection((name, int(port))).close()
        self.assertEqual(self.call(host), grpc.StatusCode.OK)

        accepted = [record for record in self.records_of(host)
                    if record["message"].startswith("Accepted")]

        self.assertGreater(len(accepted), 0)
        self.assertLess(len(accepted), FLOOD)

    def start_host_with_error_to_pipe(self):
        """A host that logs every connection, and both ends of the pipe that it does so to."""
        reading, writing = os.pipe()
        self.addCleanup(os.close, writing)
        host = programs.Host("-c", LAUNCHER, str(writing), programs.HOST,
                             "--listen", "127.0.0.1:0", "--log-level", "debug",
                             program=sys.executable, env=self.environment, pass_fds=[writing])
        self.addCleanup(host.__exit__)
        self.assertNotEqual(host.addresses, [])
        return host, reading, writing

    def test_host_waits_for_nobody_who_reads_its_log(self):
        host, reading, writing = self.start_host_with_error_to_pipe()
        fill(writing)

        for _ in range(3):
            self.assertEqual(self.call(host), grpc.StatusCode.OK)
        with open(reading, "rb") as log:
            drain(reading)
            self.assertEqual(self.call(host), grpc.StatusCode.OK)
            first = log.readline().decode()
            fill(writing)
            self.assertEqual(host.stop(), 0)

        self.assertRegex(first, r"^\d{4}-.* lost=\d+\n$")

    def test_host_goes_on_without_those_who_read_its_log(self):
        host, reading, _ = self.start_host_with_error_to_pipe()
        os.close(reading)

        self.assertEqual(self.call(host), grpc.StatusCode.OK)

        self.assertEqual(host.stop(), 0)

    def test_long_text_of_a_peer_is_cut_and_leaves_the_peer_to_be_seen(self):
        (self.folder / "policy.json").write_text(DENY_ALL)
        host = self.start_host("--policy", str(self.folder / "policy.json"))
        self.assertEqual(self.call(host, "/" + "a" * 8000), grpc.StatusCode.PERMISSION_DENIED)

        denial = [line for line in self.lines_of(host) if "Denied" in line]

        self.assertRegex(denial[0], r"method=/a{255}\.\.\. peer=127\.0\.0\.1:\d+$")

    def run_with_error(self, log, **environment):
        """A host that cannot serve, with its standard error in `log`."""
        result = subprocess.run([programs.HOST, "--listen", "0.0.0.0:0"], stderr=log,
                                env={**self.environment, **environment},
                                timeout=programs.PATIENCE_SECONDS)
        self.assertEqual(result.returncode, 1)
        log.seek(0)
        return log.read().decode().splitlines()

    def test_journal_is_told_how_bad_it_is(self):
        with tempfile.TemporaryFile() as log:
            info = os.fstat(log.fileno())
            stream = f"{info.st_dev}:{info.st_ino}"
            starting, failure = self.run_with_error(log, JOURNAL_STREAM=stream)
            self.assertRegex(starting, r"^<6>\d{4}-.* INFO .* Starting ")
            self.assertRegex(failure, r"^<3>\d{4}-.* ERROR .* --listen: cannot listen on ")
        with tempfile.TemporaryFile() as log:
            for line in self.run_with_error(log, JOURNAL_STREAM=stream):
                self.assertRegex(line, TEXT_LINE)

    def test_formats_and_levels_that_are_none_are_usage_errors(self):
        for option, value in (("--log-format", "xml"), ("--log-level", "loud")):
            programs.assert_host_refuses(self, 2, [f"{option} {value}", "expected"],
                                         [option, value], self.environment)


if __name__ == "__main__":
    unittest.main()
