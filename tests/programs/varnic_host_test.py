"""varnic-host as an operator runs it: its defaults, what it refuses, and how it ends."""

import json
import os
import queue
import signal
import socket
import stat
import subprocess
import sys
import time
import unittest

import grpc

import certificates
import programs

sys.path.insert(0, os.environ["VARNIC_PYTHON_STUBS"])
from rpc import event_subscription_pb2, identifiers_pb2
from rpc.profile import profile_pb2, profile_pb2_grpc


class VarnicHostTest(programs.HostTestCase):
    def assert_refuses(self, status, *texts_and_arguments):
        *texts, arguments = texts_and_arguments
        programs.assert_host_refuses(self, status, texts, arguments, self.environment)

    def test_without_options_it_serves_a_directory_of_its_own(self):
        host = self.start_host()
        self.assertEqual(host.addresses, [f"unix://{self.folder}/run/varnic/host.sock"])
        socket_mode = (self.folder / "run" / "varnic" / "host.sock").stat().st_mode
        self.assertEqual(stat.S_IMODE(socket_mode), 0o600)
        folder_mode = (self.folder / "run" / "varnic").stat().st_mode
        self.assertEqual(stat.S_IMODE(folder_mode), 0o700)

        result = programs.ctl("path", env=self.environment)

        self.assertEqual(result.stdout, f"{self.folder}/data/varnic/profiles/default/Default\n")
        result = programs.ctl("name", env=self.environment)
        self.assertEqual((result.returncode, result.stderr), (0, ""))

    def test_command_that_it_prints_answers(self):
        for arguments in ([], ["--listen", "127.0.0.1:0"]):
            host = self.start_host(*arguments)
            command = host.announcement[-1].removeprefix("Try: ")

            result = subprocess.run(
                command, shell=True, capture_output=True, text=True, env=self.environment,
                timeout=programs.PATIENCE_SECONDS,
            )

            self.assertEqual((result.returncode, result.stderr), (0, ""))
            self.assertIn("Default", result.stdout)
            self.assertEqual(host.stop(), 0)

    def test_host_has_one_thread_for_calls_and_one_for_files(self):
        host = self.start_host()
        for command in ("path", "get-accept-language", "get-user-agent"):
            programs.ctl(command, env=self.environment)

        self.assertEqual(programs.threads(host), programs.HOST_THREADS)

    def test_host_has_no_more_threads_for_whatever_it_serves(self):
        host = self.start_host_with_everything()
        credentials = grpc.ssl_channel_credentials((self.folder / "ca.pem").read_bytes())
        for i in range(5):
            key = identifiers_pb2.ProfileId(value=str(i))
            subscription = event_subscription_pb2.EventSubscription(
                key=key, action=event_subscription_pb2.EventSubscription.SUBSCRIBE)
            answerer = profile_pb2.CanAccessFile(profile_id=key, subscribe=True)
            channel = grpc.secure_channel(
                host.addresses[0].replace("127.0.0.1", "localhost"), credentials,
                options=[("grpc.use_local_subchannel_pool", 1)])
            self.addCleanup(channel.close)
            stub = profile_pb2_grpc.ProfileStub(channel)
            for open_stream, first in ((stub.WhenNetworkChanged, subscription),
                                       (stub.OnCanAccessFile, answerer)):
                outgoing = queue.SimpleQueue()
                outgoing.put(first)
                self.addCleanup(outgoing.put, None)
                self.addCleanup(open_stream(iter(outgoing.get, None)).cancel)
            stub.Path(identifiers_pb2.ProfileId(), timeout=programs.PATIENCE_SECONDS)

        page = self.wait_for_metrics(host, "varnic_subscriptions 10\n")

        self.assertIn("varnic_connections_open 5\n", page)
        self.assertEqual(programs.threads(host), programs.HOST_THREADS)

    def start_host_with_everything(self):
        certificates.Authority(self.folder).certify("server", "DNS:localhost,IP:127.0.0.1")
        streams = ("WhenNetworkChanged", "OnCanAccessFile")
        (self.folder / "policy.json").write_text(json.dumps({
            "roles": {"guest": {"anyone": True}},
            "methods": {f"/rpc.Profile/{name}": ["guest"] for name in ("Path", *streams)},
        }))
        return self.start_host("--listen", "127.0.0.1:0", "--metrics", "127.0.0.1:0",
                               "--policy", str(self.folder / "policy.json"),
                               "--tls-cert", str(self.folder / "server.pem"),
                               "--tls-key", str(self.folder / "server.key"))

    def wait_for_metrics(self, host, line):
        deadline = time.monotonic() + programs.PATIENCE_SECONDS
        while line not in (page := programs.metrics(host)):
            self.assertLess(time.monotonic(), deadline, page)
        return page

    def test_sigterm_and_sigint_end_it_cleanly(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            host = self.start_host()
            host.process.send_signal(number)
            self.assertEqual(host.process.wait(programs.PATIENCE_SECONDS), 0)
            self.assertNotRegex(host.stderr(), "WARNING|ERROR|FATAL")
            self.assertFalse((self.folder / "run" / "varnic" / "host.sock").exists())

    def test_signal_before_it_serves_ends_it_cleanly(self):
        certificates.Authority(self.folder).certify("server", "IP:127.0.0.1")
        first = self.folder / "first.sock"
        # Every other address takes time, because the certificate is read for each.
        process = subprocess.Popen(
            [programs.HOST, "--listen", f"unix:{first}", *["--listen", "127.0.0.1:0"] * 100,
             "--tls-cert", str(self.folder / "server.pem"),
             "--tls-key", str(self.folder / "server.key")],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=self.environment)
        while not first.exists():
            self.assertIsNone(process.poll())

        process.terminate()

        self.assertEqual(process.wait(programs.PATIENCE_SECONDS), 0)
        self.assertFalse(first.exists())

    def test_nothing_takes_the_place_of_a_closed_standard_file(self):
        address = self.folder / "closed.sock"
        process = subprocess.Popen(
            ["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", programs.HOST, "--listen",
             f"unix:{address}"], env=self.environment)
        self.addCleanup(process.wait, programs.PATIENCE_SECONDS)
        self.addCleanup(process.terminate)

        deadline = time.monotonic() + programs.PATIENCE_SECONDS
        while not address.exists():
            self.assertIsNone(process.poll())
            self.assertLess(time.monotonic(), deadline)

        for descriptor in range(3):
            self.assertEqual(os.readlink(f"/proc/{process.pid}/fd/{descriptor}"), "/")

    def test_host_that_was_killed_is_followed_by_another(self):
        first = self.start_host()
        first.process.kill()
        first.process.wait()

        second = self.start_host()

        self.assertEqual(second.addresses, first.addresses)
        self.assertEqual(programs.ctl("path", env=self.environment).returncode, 0)

    def test_second_host_on_a_directory_is_refused(self):
        self.start_host()
        self.assert_refuses(
            1, str(self.folder / "data" / "varnic" / "profiles"), ["--listen", "127.0.0.1:0"]
        )

    def test_socket_of_a_living_process_is_left_alone(self):
        path = self.folder / "taken.sock"
        with socket.socket(socket.AF_UNIX) as other:
            other.bind(str(path))
            other.listen()
            self.assert_refuses(1, "--listen", str(path), ["--listen", f"unix:{path}"])
            with socket.socket(socket.AF_UNIX) as client:
                client.connect(str(path))

    def test_runtime_folder_that_others_can_enter_is_refused(self):
        (self.folder / "run" / "varnic").mkdir()
        (self.folder / "run" / "varnic").chmod(0o755)
        self.assert_refuses(1, str(self.folder / "run" / "varnic"), "0700", [])
        result = programs.ctl("path", env=self.environment)
        self.assertEqual(result.returncode, 19)
        self.assertIn("0700", result.stderr)

    def test_directory_that_is_not_there_is_named(self):
        missing = str(self.folder / "missing")
        self.assert_refuses(1, "--user-data-dir", missing, ["--user-data-dir", missing])

    def test_bad_options_are_usage_errors_that_name_them(self):
        self.assert_refuses(2, "--nonsense", "--help", ["--nonsense"])
        self.assert_refuses(2, "--listen", ["--listen"])
        self.assert_refuses(2, "surprise", ["surprise"])
        self.assert_refuses(2, "--user-agent", ["--user-agent", "two\nlines"])
        self.assert_refuses(2, "--profiles-dir", ["--profiles-dir", "a", "--user-data-dir", "b"])
        self.assert_refuses(2, "--no-sandbox", ["--no-sandbox", "--user-data-dir", "b"])
        self.assert_refuses(2, "--file-default", ["--file-default", "perhaps"])
        for time in ("0", "-1", "nan", "inf", "soon", "86401"):
            self.assert_refuses(2, "--question-timeout", [f"--question-timeout={time}"])
        for time in ("-1", "nan", "inf", "soon", "121"):
            self.assert_refuses(2, "--restart-delay", [f"--restart-delay={time}"])
        for number in ("0", "-1", "1.5", "101"):
            self.assert_refuses(2, "--login-attempts", [f"--login-attempts={number}"])

    def test_bad_addresses_are_usage_errors_before_anything_is_made(self):
        for option in ("--listen", "--metrics"):
            for address in ("nonsense", "unix:", "127.0.0.1", "127.0.0.1:99999"):
                self.assert_refuses(2, option, address, [option, address])
        self.assert_refuses(2, "nonsense", ["--listen", "nonsense", "--listen", "127.0.0.1:0"])
        self.assertEqual([path.name for path in self.folder.rglob("*")], ["run"])

    def test_address_that_cannot_be_listened_on_is_named(self):
        self.assert_refuses(1, "--listen", "/nonexistent/host.sock",
                            ["--listen", "unix:/nonexistent/host.sock"])

    def test_plain_tcp_is_refused_off_loopback(self):
        self.assert_refuses(1, "0.0.0.0:0", "loopback", ["--listen", "0.0.0.0:0"])

    def test_host_survives_bytes_that_are_not_http2(self):
        host = self.start_host("--listen", "127.0.0.1:0")
        name, port = host.addresses[0].rsplit(":", 1)
        for garbage in (b"GET / HTTP/1.1\r\nHost: x\r\n\r\n", bytes(range(256)) * 16,
                        b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + b"\xff" * 64):
            with socket.create_connection((name, int(port))) as peer:
                peer.sendall(garbage)
                # The host says goodbye and closes; it must not wait for more.
                while peer.recv(4096):
                    pass

        result = programs.ctl("--target", host.addresses[0], "--json", "path")

        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertTrue(json.loads(result.stdout).endswith("/Default"))

    def test_help_names_every_option(self):
        result = subprocess.run([programs.HOST, "--help"], capture_output=True, text=True,
                                env=self.environment, timeout=programs.PATIENCE_SECONDS)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        for option in ("--listen", "--profiles-dir", "--user-data-dir", "--no-sandbox",
                       "--restart-delay", "--file-default", "--question-timeout", "--login-attempts", "--user-agent", "--browser",
                       "--allow-user", "--allow-group", "--tls-cert", "--tls-key",
                       "--tls-client-ca", "--tls-crl", "--policy",
                       "--log-format", "--log-level", "--no-reflection"):
            self.assertIn(option, result.stdout)


if __name__ == "__main__":
    unittest.main()
