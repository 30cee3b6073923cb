"""`buf curl` calls a stream_host over each transport, with the proto files and with the server's own
reflection. See stream_host.cc for what the host does when it is called."""

import glob
import json
import os
import pathlib
import select
import signal
import subprocess
import tempfile
import unittest

import foreign
from foreign import Code

import programs
from profile_peer import Peer

PROTO_ROOT = os.environ["VARNIC_PROTO_ROOTS"].split(":")[0]
(BUF,) = glob.glob(os.environ["VARNIC_JS_DIR"] + "/node_modules/@bufbuild/buf-linux-*/bin/buf")

# How buf learns what the methods look like.
FILES = ("--schema", PROTO_ROOT)
SCHEMAS = {
    "files": FILES,
    "reflection v1": ("--reflect-protocol", "grpc-v1"),
    "reflection v1alpha": ("--reflect-protocol", "grpc-v1alpha"),
}
# Of a method that the host does not have.
NEWER_PROFILE = """syntax = "proto3";
package rpc;
message Song {}
service Profile { rpc Sing(Song) returns (Song); }
"""


def text_of(size):
    return "0123456789abcdef" * (size // 16)


def profile(value):
    return {"profileId": {"value": value}}


def answer(question, **response):
    return {"profileId": question["profileId"], "callId": question["callId"], "response": response}


class Buf:
    """A running `buf curl`, which sends what it is told and writes what comes."""

    def __init__(self, arguments, folder):
        # buf keeps nothing that outlives the test.
        environment = dict(os.environ, HOME=folder, BUF_CACHE_DIR=folder)
        self._errors = tempfile.TemporaryFile(mode="w+")
        self.process = subprocess.Popen(
            [BUF, "curl", "--protocol", "grpc", "--http2-prior-knowledge", "--data", "@-",
             *arguments],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._errors, env=environment,
        )
        self._text = ""

    def send(self, message):
        self.process.stdin.write(json.dumps(message).encode() + b"\n")
        self.process.stdin.flush()

    def half_close(self):
        self.process.stdin.close()

    def receive(self):
        """The next message."""
        message = self._next_message()
        if message is None:
            raise AssertionError(f"buf has ended: {self.errors()}")
        return message

    def end(self):
        """Sends no more; the messages that are still to come, and the exit status."""
        self.half_close()
        messages = list(iter(self._next_message, None))
        return messages, self.process.wait(programs.PATIENCE_SECONDS)

    def interrupt(self):
        self.process.send_signal(signal.SIGINT)

    def errors(self):
        self._errors.seek(0)
        return self._errors.read()

    def close(self):
        self.process.kill()
        with self.process:
            self._errors.close()

    def _next_message(self):
        while True:
            text = self._text.lstrip()
            try:
                message, end = json.JSONDecoder().raw_decode(text)
            except json.JSONDecodeError:
                chunk = self._read()
                if not chunk:
                    return None
                self._text = text + chunk
            else:
                self._text = text[end:]
                return message

    def _read(self):
        stdout = self.process.stdout.fileno()
        if not select.select([stdout], [], [], programs.PATIENCE_SECONDS)[0]:
            raise AssertionError("buf says nothing")
        return os.read(stdout, 1 << 20).decode()


class BufCurl(foreign.Scenarios):
    host_program = os.environ["VARNIC_STREAM_HOST"]

    def setUp(self):
        # Another client, which has a connection of its own.
        self.peer = Peer(self.channel)
        self.addCleanup(self.peer.wait_for, "streams", 0)

    def open(self, method, *options, schema=FILES, host=None):
        connection = self.transport.connection((host or self.shared_host).addresses[0])
        target = connection["target"]
        url = f"http://{target}"
        if target.startswith("unix:"):
            url = "http://localhost"
            options += ("--unix-socket", target.removeprefix("unix:"))
        if "ca" in connection:
            url = f"https://{target}"
            options += ("--cacert", connection["ca"], "--cert", connection["certificate"],
                        "--key", connection["key"])
        buf = Buf([*schema, *options, f"{url}/rpc.Profile/{method}"], self.folder)
        self.addCleanup(buf.close)
        return buf

    def call(self, method, request, *options, schema=FILES):
        """Begins a unary call."""
        buf = self.open(method, *options, schema=schema)
        buf.send(request)
        buf.half_close()
        return buf

    def subscribe(self, profile_id, schema=FILES):
        buf = self.open("WhenNetworkChanged", schema=schema)
        buf.send({"key": {"value": profile_id}, "action": "SUBSCRIBE"})
        self.peer.wait_for("subscribers", 1, profile_id)
        return buf

    def answer_questions(self, method, what, profile_id):
        buf = self.open(method)
        buf.send(profile(profile_id) | {"subscribe": True})
        self.peer.wait_for(what, 1, profile_id)
        return buf

    def answer_for_files(self, profile_id):
        return self.answer_questions("OnCanAccessFile", "file answerers", profile_id)

    def answer_for_credentials(self, profile_id):
        return self.answer_questions("OnAuthenticate", "credentials answerers", profile_id)

    def assert_ends(self, buf, messages):
        self.assertEqual(buf.end(), (messages, 0), buf.errors())

    def assert_fails(self, buf, code, text):
        # What buf makes of a status.
        self.assertEqual(buf.end(), ([], code << 3), buf.errors())
        self.assertIn(text, buf.errors())

    def each_schema(self):
        for name, schema in SCHEMAS.items():
            with self.subTest(schema=name):
                yield schema

    # Unary calls.

    def test_unary_methods_are_answered(self):
        counted = ("subscribers", "file answerers", "credentials answerers", "streams", "questions")
        counts = {"brands": [{"brand": what, "version": "0"} for what in counted]}
        for schema in self.each_schema():
            for method, request, response in (
                ("Name", {"value": "P"}, "0"),
                ("IsDefault", {}, True),
                ("IsIncognito", {"value": "P"}, False),
                ("SetAcceptLanguage", {"acceptLanguage": "de"}, {}),
                ("GetUserAgentMetadata", {"value": "P"}, counts),
            ):
                self.assert_ends(self.call(method, request, schema=schema), [response])

    def test_unary_methods_that_ask_are_answered(self):
        files = self.answer_for_files("P")
        credentials = self.answer_for_credentials("P")
        motd = {"path": "/etc/motd", "access": "READ"}
        challenge = {"scheme": "basic", "realm": "Realm1", "firstAttempt": True}
        for method, request, stream, question, reply, response in (
            ("Path", {"value": "P"}, files, motd, {"allow": True}, "allowed"),
            ("Path", {"value": "P"}, files, motd, {"allow": False}, "refused"),
            ("CreateBrowser", profile("P") | {"url": "/x"}, files, motd | {"path": "/x"},
             {"allow": True}, {"value": "1"}),
            ("GetUserAgent", {"value": "P"}, credentials, challenge,
             {"username": "zoë", "password": "pass"}, "zoë:pass"),
            ("GetUserAgent", {"value": "P"}, credentials, challenge, {"cancel": True},
             "cancel"),
        ):
            call = self.call(method, request)

            asked = stream.receive()
            stream.send(answer(asked, **reply))

            self.assertEqual(asked["request"], question)
            self.assert_ends(call, [response])
        self.assert_ends(files, [])
        self.assert_ends(credentials, [])

    def test_unary_methods_that_find_nobody_to_ask_are_not_found(self):
        for method in ("Path", "GetAcceptLanguage", "GetUserAgent", "CreateBrowser"):
            self.assert_fails(self.call(method, {}), Code.NOT_FOUND, "not_found")

    def test_metadata_reaches_the_host(self):
        self.assert_ends(self.call("IsIncognito", {}, "-H", "x-incognito: yes"), [True])

    def test_unknown_method_is_unimplemented_by_name(self):
        folder = pathlib.Path(self.folder) / "newer" / "rpc"
        folder.mkdir(parents=True)
        (folder / "profile.proto").write_text(NEWER_PROFILE)

        call = self.call("Sing", {}, schema=("--schema", str(folder.parent)))

        self.assert_fails(call, Code.UNIMPLEMENTED, "Unknown method Sing of service rpc.Profile")

    def test_request_past_the_limit_is_refused_with_both_sizes(self):
        call = self.call("CreateBrowser", {"url": text_of(5 << 20)})

        self.assert_fails(call, Code.RESOURCE_EXHAUSTED, str(4 << 20))

    def test_interrupted_call_is_cancelled_and_an_answer_does_no_harm(self):
        stream = self.answer_for_files("P")
        call = self.call("Path", {"value": "P"})
        question = stream.receive()

        call.interrupt()

        self.assert_fails(call, Code.CANCELLED, "canceled")
        stream.send(answer(question, allow=True))
        call = self.call("Path", {"value": "P"})
        stream.send(answer(stream.receive(), allow=False))
        self.assert_ends(call, ["refused"])

    # Streams.

    def test_subscriber_gets_its_events(self):
        for schema in self.each_schema():
            stream = self.subscribe("P", schema)

            self.peer.publish("P")
            self.peer.publish_text("P", "eth0")

            self.assertEqual(stream.receive(), profile("P") | {"online": True})
            event = profile("P") | {"interfaces": [{"name": "eth0"}]}
            self.assertEqual(stream.receive(), event)
            self.assert_ends(stream, [])
            self.peer.wait_for("subscribers", 0, "P")

    def test_subscriber_may_leave_one_of_two_profiles(self):
        stream = self.subscribe("P")
        stream.send({"key": {"value": "Q"}, "action": "SUBSCRIBE"})
        stream.send({"key": {"value": "P"}, "action": "UNSUBSCRIBE"})
        self.peer.wait_for("subscribers", 1, "Q")
        self.peer.wait_for("subscribers", 0, "P")

        self.peer.publish("P")
        self.peer.publish("Q")

        self.assertEqual(stream.receive(), profile("Q") | {"online": True})
        self.assert_ends(stream, [])

    def test_error_of_the_client_fails_the_question(self):
        stream = self.answer_for_files("P")
        call = self.call("Path", {"value": "P"})
        question = stream.receive()

        stream.send(profile("P") | {"callId": question["callId"], "error": "no such page"})

        self.assert_fails(call, Code.ABORTED, "aborted")
        self.assert_ends(stream, [])

    def test_question_whose_time_is_up_is_withdrawn(self):
        stream = self.answer_for_files("P")

        call = self.call("GetAcceptLanguage", {"value": "P"})

        question = stream.receive()
        withdrawal = profile("P") | {"callId": question["callId"], "error": "withdrawn"}
        self.assertEqual(stream.receive(), withdrawal)
        self.assert_fails(call, Code.DEADLINE_EXCEEDED, "deadline_exceeded")
        self.assert_ends(stream, [])

    def test_message_without_a_meaning_ends_its_stream(self):
        stream = self.open("OnCanAccessFile")

        stream.send({})

        self.assert_fails(stream, Code.INVALID_ARGUMENT, "rpc.CanAccessFile")

    def test_long_messages_arrive_whole_both_ways(self):
        files = self.answer_for_files("P")
        credentials = self.answer_for_credentials("P")
        events = self.subscribe("P")
        for size in (64 << 10, 3 << 20):
            text = text_of(size)

            call = self.call("CreateBrowser", profile("P") | {"url": text})
            question = files.receive()
            self.assertTrue(question["request"]["path"] == text, size)
            files.send(answer(question, allow=True))
            self.assert_ends(call, [{"value": "1"}])

            call = self.call("GetUserAgent", {"value": "P"})
            credentials.send(answer(credentials.receive(), username=text, password="p"))
            self.assertTrue(call.end() == ([text + ":p"], 0), size)

            self.assert_ends(
                self.call("SetAcceptLanguage", profile("P") | {"acceptLanguage": text}), [{}])
            self.assertTrue(events.receive()["interfaces"] == [{"name": text}], size)

    def test_drain_ends_a_subscription_as_unavailable(self):
        host = self.start_host(self.addCleanup)
        stream = self.open("WhenNetworkChanged", host=host)
        stream.send({"key": {"value": "P"}, "action": "SUBSCRIBE"})
        Peer(self.connect(host)).wait_for("subscribers", 1, "P")

        self.assertEqual(host.stop(), 0, host.stderr())

        self.assert_fails(stream, Code.UNAVAILABLE, "unavailable")


foreign.over_each_transport(BufCurl, globals())


def load_tests(loader, *_):
    """The classes with a transport."""
    classes = [globals()[name] for name in foreign.TRANSPORTS]
    return unittest.TestSuite(map(loader.loadTestsFromTestCase, classes))


if __name__ == "__main__":
    unittest.main()
