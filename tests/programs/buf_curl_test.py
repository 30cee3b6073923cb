"""`buf curl` calls a stream_host over each transport, with the proto files and with the server's own
reflection. See stream_host.cc for what the host does when it is called."""

import glob
import json
import os
import subprocess
import unittest

import foreign
from foreign import Code

# pylint: disable=wrong-import-order
from rpc import identifiers_pb2
from rpc.profile import profile_pb2  # noqa: F401  Of the calls.

import programs

PROTO_ROOT = os.environ["VARNIC_PROTO_ROOTS"].split(":")[0]
(BUF,) = glob.glob(os.environ["VARNIC_JS_DIR"] + "/node_modules/@bufbuild/buf-linux-*/bin/buf")

# How buf learns what the methods look like.
SCHEMAS = {
    "files": ("--schema", PROTO_ROOT),
    "reflection v1": ("--reflect-protocol", "grpc-v1"),
    "reflection v1alpha": ("--reflect-protocol", "grpc-v1alpha"),
}


class BufCurl(foreign.Scenarios):
    host_program = os.environ["VARNIC_STREAM_HOST"]

    def command(self, schema, method, *arguments):
        connection = self.transport.connection(self.shared_host.addresses[0])
        target = connection["target"]
        url, options = f"http://{target}", []
        if target.startswith("unix:"):
            url = "http://localhost"
            options = ["--unix-socket", target.removeprefix("unix://").removeprefix("unix:")]
        if "ca" in connection:
            url = f"https://{target}"
            options = ["--cacert", connection["ca"], "--cert", connection["certificate"],
                       "--key", connection["key"]]
        return [BUF, "curl", "--protocol", "grpc", "--http2-prior-knowledge", *options,
                *SCHEMAS[schema], *arguments, f"{url}/rpc.Profile/{method}"]

    def environment(self):
        # buf keeps nothing that outlives the test.
        return dict(os.environ, HOME=self.folder, BUF_CACHE_DIR=self.folder)

    def run_buf(self, schema, method, request, *arguments):
        return subprocess.run(
            self.command(schema, method, "--data", json.dumps(request), *arguments),
            capture_output=True, text=True, env=self.environment(),
            timeout=programs.PATIENCE_SECONDS,
        )

    def assert_answers(self, schema, method, request, response, *arguments):
        result = self.run_buf(schema, method, request, *arguments)

        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(json.loads(result.stdout), response)

    def assert_fails(self, method, request, code, text):
        result = self.run_buf("files", method, request)

        # What buf makes of a status.
        self.assertEqual(result.returncode, code << 3, result.stderr)
        self.assertIn(text, result.stderr)

    def test_unary_methods_are_answered(self):
        for schema in SCHEMAS:
            with self.subTest(schema=schema):
                self.assert_answers(schema, "Name", {"value": "P"}, "0")
                self.assert_answers(schema, "IsDefault", {}, True)
                self.assert_answers(schema, "SetAcceptLanguage", {"acceptLanguage": "de"}, {})

    def test_metadata_reaches_the_host(self):
        self.assert_answers("files", "IsIncognito", {}, True, "-H", "x-incognito: yes")

    def test_status_of_a_failed_call_is_told(self):
        self.assert_fails("Path", {"value": "P"}, Code.NOT_FOUND, "not_found")
        self.assert_fails("OnCanAccessFile", {}, Code.INVALID_ARGUMENT, "rpc.CanAccessFile")

    def test_subscriber_gets_its_event(self):
        for schema in SCHEMAS:
            with self.subTest(schema=schema):
                self.assertEqual(self.events_of_subscriber(schema), ["P"])

    def events_of_subscriber(self, schema):
        """The profiles of the events that a subscriber of "P" gets of one that is published."""
        with subprocess.Popen(
            self.command(schema, "WhenNetworkChanged", "--data", "@-"),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env=self.environment(),
        ) as buf:
            self.addCleanup(buf.kill)
            buf.stdin.write('{"key": {"value": "P"}, "action": "SUBSCRIBE"}\n')
            buf.stdin.flush()
            profile = identifiers_pb2.ProfileId(value="P")
            while self.channel.call("/rpc.Profile/Name", profile).result().value == "0":
                self.assertIsNone(buf.poll())
            buf.stdin.close()
            decoder, text, events = json.JSONDecoder(), buf.stdout.read(), []
            while text := text.strip():
                event, end = decoder.raw_decode(text)
                events.append(event["profileId"]["value"])
                text = text[end:]
        self.assertEqual(buf.returncode, 0)
        return events


foreign.over_each_transport(BufCurl, globals())


def load_tests(loader, *_):
    """The classes with a transport."""
    classes = [globals()[name] for name in foreign.TRANSPORTS]
    return unittest.TestSuite(map(loader.loadTestsFromTestCase, classes))


if __name__ == "__main__":
    unittest.main()
