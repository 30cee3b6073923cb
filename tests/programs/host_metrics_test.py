"""What varnic-host tells Prometheus, held against what clients have done to it."""

import http.client
import json
import math
import os
import queue
import re
import socket
import stat
import sys
import time
import unittest

import grpc

import programs

sys.path.insert(0, os.environ["VARNIC_PYTHON_STUBS"])
from rpc import event_subscription_pb2, identifiers_pb2
from rpc.profile import profile_pb2_grpc

PATIENCE = programs.PATIENCE_SECONDS
EVENTS = "/rpc.Profile/WhenNetworkChanged"
# As many as the host serves at a time.
MAX_CONNECTIONS = 16

NAME = r"[a-zA-Z_:][a-zA-Z0-9_:]*"
SAMPLE = re.compile(rf"({NAME})(?:\{{(.*)\}})? (\S+)")
LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\\n]|\\["\\n])*)"(?:,|$)')


class Page:
    """A page in Prometheus' text format 0.0.4, read by a parser that forgives nothing."""

    def __init__(self, text):
        self.types = {}
        self.samples = {}
        lines = text.split("\n")
        if lines.pop() != "":
            raise ValueError("the last line does not end")
        family = None
        for number, line in enumerate(lines):
            if line.startswith("# HELP "):
                family = line.split(" ")[2]
                if family in self.types or not line.split(" ", 3)[3]:
                    raise ValueError(f"a second or empty help: {line}")
                kind = re.fullmatch(rf"# TYPE {family} (counter|gauge|histogram)",
                                    lines[number + 1])
                self.types[family] = kind[1]
            elif not line.startswith("# TYPE "):
                self._add(family, line)
        for family, kind in self.types.items():
            if kind == "histogram":
                self._check_histogram(family)

    def _add(self, family, line):
        name, labels, value = SAMPLE.fullmatch(line).groups()
        suffixes = ("_bucket", "_sum", "_count") if self.types[family] == "histogram" else ("",)
        if name not in {family + suffix for suffix in suffixes}:
            raise ValueError(f"stands with {family}: {line}")
        if LABEL.sub("", labels or ""):
            raise ValueError(f"labels: {line}")
        key = (name, *sorted(LABEL.findall(labels or "")))
        if key in self.samples:
            raise ValueError(f"twice: {line}")
        self.samples[key] = float(value)
        if self.types[family] != "gauge" and not self.samples[key] >= 0:
            raise ValueError(f"negative: {line}")

    def _check_histogram(self, family):
        series = {}
        for (name, *labels), value in self.samples.items():
            if name == f"{family}_bucket":
                bound = float(dict(labels)["le"])
                others = tuple(label for label in labels if label[0] != "le")
                series.setdefault(others, []).append((bound, value))
        for labels, buckets in series.items():
            counts = [count for _, count in buckets]
            if buckets != sorted(buckets) or counts != sorted(counts):
                raise ValueError(f"buckets of {labels}: {buckets}")
            if buckets[-1] != (math.inf, self.samples[(f"{family}_count", *labels)]):
                raise ValueError(f"last bucket of {labels}: {buckets}")

    def get(self, name, **labels):
        return self.samples.get((name, *sorted(labels.items())))

    def calls(self, method, code):
        return self.get("varnic_calls_total", method=method, code=code)

    def durations(self, method, code):
        return self.get("varnic_call_duration_seconds_count", method=method, code=code)


class UnixConnection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("metrics", timeout=PATIENCE)
        self._path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(PATIENCE)
        self.sock.connect(self._path)


class HostMetricsTest(programs.HostTestCase):
    def start_host(self, *arguments):
        host = super().start_host(*arguments)
        self.channel = grpc.insecure_channel(host.addresses[0].replace("unix://", "unix:"))
        self.addCleanup(self.channel.close)
        self.stub = profile_pb2_grpc.ProfileStub(self.channel)
        return host

    def start_host_on_tcp(self, *arguments):
        host = self.start_host("--metrics", "127.0.0.1:0", *arguments)
        self.address = self.metrics_address(host).rsplit(":", 1)
        return host

    def metrics_address(self, host):
        prefix = "Metrics on "
        return next(line[len(prefix):] for line in host.announcement if line.startswith(prefix))

    def connect(self):
        return http.client.HTTPConnection(*self.address, timeout=PATIENCE)

    def ask(self, connection, method, target, **headers):
        connection.request(method, target, headers=headers)
        response = connection.getresponse()
        body = response.read().decode()
        connection.close()
        return response, body

    def page(self):
        response, body = self.ask(self.connect(), "GET", "/metrics")
        self.assertEqual(response.status, 200)
        return Page(body)

    def wait_for(self, holds):
        deadline = time.monotonic() + PATIENCE
        while not holds(page := self.page()):
            self.assertLess(time.monotonic(), deadline)
        return page

    def assert_fails(self, code, call):
        with self.assertRaises(grpc.RpcError) as failure:
            call()
        self.assertEqual(failure.exception.code(), code)

    def path(self, profile=""):
        return self.stub.Path(identifiers_pb2.ProfileId(value=profile), timeout=PATIENCE)

    def test_numbers_are_those_of_what_clients_did(self):
        (self.folder / "policy.json").write_text(json.dumps({
            "roles": {"guest": {"anyone": True}},
            "methods": {"/rpc.Profile/Path": ["guest"], EVENTS: ["guest"]},
        }))
        self.start_host_on_tcp("--policy", str(self.folder / "policy.json"))

        for _ in range(3):
            self.path()
        self.assert_fails(grpc.StatusCode.NOT_FOUND, lambda: self.path("nobody"))
        profile = identifiers_pb2.ProfileId()
        self.assert_fails(grpc.StatusCode.PERMISSION_DENIED, lambda: self.stub.Name(profile))
        nothing = self.channel.unary_unary("/no.Service/Method")
        self.assert_fails(grpc.StatusCode.PERMISSION_DENIED, lambda: nothing(b""))

        page = self.page()
        self.assertEqual(page.calls("/rpc.Profile/Path", "OK"), 3)
        self.assertEqual(page.calls("/rpc.Profile/Path", "NOT_FOUND"), 1)
        self.assertEqual(page.calls("/rpc.Profile/Name", "PERMISSION_DENIED"), 1)
        self.assertEqual(page.calls("unknown", "PERMISSION_DENIED"), 1)
        self.assertEqual(page.get("varnic_calls_denied_total"), 2)
        self.assertEqual(page.durations("/rpc.Profile/Path", "OK"), 3)
        self.assertEqual(page.durations("/rpc.Profile/Path", "NOT_FOUND"), 1)
        self.assertEqual(page.durations("/rpc.Profile/Name", "PERMISSION_DENIED"), 1)
        self.assertIsNone(page.durations("/rpc.Profile/Path", "PERMISSION_DENIED"))
        self.assertEqual(page.get("varnic_connections_open"), 1)
        self.assertEqual(page.get("varnic_connections_accepted_total"), 1)
        self.assertGreater(page.get("varnic_sent_bytes_total"), 100)
        self.assertNotIn("Service", str(page.samples))

    def test_stream_is_there_until_it_ends(self):
        self.start_host_on_tcp()
        outgoing = queue.SimpleQueue()
        outgoing.put(event_subscription_pb2.EventSubscription(
            key=identifiers_pb2.ProfileId(value="P"),
            action=event_subscription_pb2.EventSubscription.SUBSCRIBE))

        stream = self.stub.WhenNetworkChanged(iter(outgoing.get, None))
        page = self.wait_for(lambda page: page.get("varnic_subscriptions") == 1)
        self.assertEqual(page.get("varnic_streams_open", method=EVENTS), 1)
        stream.cancel()
        outgoing.put(None)

        page = self.wait_for(lambda page: page.get("varnic_streams_open", method=EVENTS) == 0)
        self.assertEqual(page.get("varnic_streams_opened_total", method=EVENTS), 1)
        self.assertEqual(
            page.get("varnic_streams_ended_total", method=EVENTS, code="CANCELLED"), 1)
        self.assertEqual(page.get("varnic_subscriptions"), 0)

    def test_process_is_described_as_by_convention(self):
        host = self.start_host_on_tcp()

        page = self.page()

        threads = len(os.listdir(f"/proc/{host.process.pid}/task"))
        self.assertEqual(page.get("process_threads"), threads)
        self.assertGreater(page.get("process_resident_memory_bytes"), 1 << 20)
        self.assertGreater(page.get("process_open_fds"), 3)
        self.assertAlmostEqual(page.get("process_start_time_seconds"), time.time(), delta=3600)
        self.assertEqual(page.types["process_cpu_seconds_total"], "counter")

    def test_unix_socket_serves_the_same_to_its_user_alone(self):
        socket_path = str(self.folder / "metrics.sock")
        host = self.start_host("--metrics", f"unix:{socket_path}")
        self.path()

        response, body = self.ask(UnixConnection(socket_path), "GET", "/metrics")

        self.assertEqual(self.metrics_address(host), f"unix://{socket_path}")
        self.assertEqual(stat.S_IMODE(os.stat(socket_path).st_mode), 0o600)
        self.assertEqual(response.status, 200)
        self.assertEqual(response.headers["Content-Type"],
                         "text/plain; version=0.0.4; charset=utf-8")
        self.assertEqual(Page(body).calls("/rpc.Profile/Path", "OK"), 1)
        self.assertEqual(host.stop(), 0)
        self.assertFalse(os.path.exists(socket_path))

    def test_other_requests_hear_what_is_wrong(self):
        self.start_host_on_tcp()
        status = lambda *request, **headers: self.ask(self.connect(), *request, **headers)[0].status

        head, body = self.ask(self.connect(), "HEAD", "/metrics")
        self.assertEqual((head.status, body), (200, ""))
        self.assertGreater(int(head.headers["Content-Length"]), 1000)
        self.assertEqual(status("GET", "/"), 404)
        self.assertEqual(status("POST", "/metrics"), 405)
        self.assertEqual(status("GET", "/metrics", Host="example.org"), 421)
        self.assertEqual(status("GET", "/metrics", Cookie="x" * 9000), 431)
        with socket.create_connection(self.address, PATIENCE) as raw:
            raw.sendall(b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n")
            self.assertTrue(raw.recv(1000).startswith(b"HTTP/1.1 400 "))

    def test_clients_that_stall_cost_nothing_but_their_places(self):
        host = self.start_host_on_tcp()
        stalled = []
        for _ in range(MAX_CONNECTIONS):
            connection = socket.create_connection(self.address, PATIENCE)
            self.addCleanup(connection.close)
            connection.sendall(b"GET /metr")
            stalled.append(connection)

        with socket.create_connection(self.address, PATIENCE) as refused:
            self.assertEqual(refused.recv(1), b"")
        self.path()
        self.assertIn("Too many connections for metrics", host.stderr())
        stalled[0].sendall(b"ics HTTP/1.1\r\n\r\n")
        self.assertTrue(stalled[0].recv(1000).startswith(b"HTTP/1.1 200 "))

    def test_address_that_cannot_be_served_is_named_with_its_option(self):
        refuses = lambda status, texts, arguments: programs.assert_host_refuses(
            self, status, texts, arguments, self.environment)

        refuses(2, ["--metrics", "needs an address"], ["--metrics="])
        refuses(2, ["--metrics: ", "nonsense"], ["--metrics", "nonsense"])
        refuses(1, ["--metrics: ", "0.0.0.0:0", "loopback"], ["--metrics", "0.0.0.0:0"])
        refuses(1, ["--metrics: ", "/nowhere"], ["--metrics", "unix:/nowhere/metrics.sock"])


if __name__ == "__main__":
    unittest.main()
