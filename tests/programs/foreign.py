"""gRPC clients that are not ours, each a process of its own that does what it is told.

A client reads commands from its standard input, one JSON object in each line:

  {"do": "connect", "channel": N, "target": ..., "ca": FILE, "certificate": FILE, "key": FILE,
   "gzip": bool, "options": {NAME: N, ...}}
                              a connection of its own; without TLS if "ca" is null; the options
                              are gRPC's channel arguments
  {"do": "close", "channel": N}
  {"do": "open", "channel": N, "call": N, "method": "/package.Service/Method", "unary": bool,
   "raw": bool, "seconds": deadline, "metadata": [[key, value], ...], "read": bool,
   "first": message to send at once, or null}
  {"do": "send", "call": N, "message": ...}
  {"do": "half_close", "call": N}
  {"do": "cancel", "call": N}
  {"do": "read", "call": N}   begins to read, if "open" has said not to

and writes what comes of its calls:

  {"call": N, "metadata": [[key, value], ...]}   the response's headers
  {"call": N, "message": ...}
  {"call": N, "code": N, "text": ..., "metadata": [[key, value], ...]}   the end, with the trailers

Messages stand in base64, and so do the values of keys in "-bin". A client parses each message with
the stub that its own plugin has made of our proto files, and lets that stub send it; "raw" ones are
bytes that it takes as they are. It ends with its standard input.
"""

import base64
import collections
import contextlib
import enum
import itertools
import json
import os
import pathlib
import queue
import subprocess
import sys
import tempfile
import threading
import unittest

from google.protobuf import descriptor_pb2, descriptor_pool

import certificates
import programs

sys.path.insert(0, os.environ["VARNIC_PYTHON_STUBS"])

FOLDER = pathlib.Path(__file__).parent

# How to start each client.
COMMANDS = {
    "grpcpp": [os.environ["VARNIC_GRPCPP_CLIENT"]],
    "grpcio": [sys.executable, str(FOLDER / "grpcio_client.py")],
    "grpcjs": ["node", str(FOLDER.parent / "js" / "grpcjs_client.js")],
}


Code = enum.IntEnum("Code", """OK CANCELLED UNKNOWN INVALID_ARGUMENT DEADLINE_EXCEEDED NOT_FOUND
    ALREADY_EXISTS PERMISSION_DENIED RESOURCE_EXHAUSTED FAILED_PRECONDITION ABORTED OUT_OF_RANGE
    UNIMPLEMENTED INTERNAL UNAVAILABLE DATA_LOSS UNAUTHENTICATED""", start=0)

# How a call has ended, with the messages that nobody had received before.
End = collections.namedtuple("End", "code text metadata messages")


class Failed(AssertionError):
    """A call has ended without the message that was wanted."""

    def __init__(self, end):
        super().__init__(f"{end.code.name}: {end.text}")
        self.end = end


class Call:
    """One call of a client, unary or a stream; what takes too long has failed."""

    def __init__(self, process, number, response_type):
        self._process = process
        self._number = number
        self._parse = response_type.FromString if response_type else bytes
        self._events = queue.SimpleQueue()
        self._end = None
        self.headers = None  # Of the response, once they are there.

    def on_event(self, event):
        """On the thread that reads what the client writes; None at its end."""
        self._events.put(event)

    def send(self, message):
        self._do("send", message=message_text(message))

    def half_close(self):
        self._do("half_close")

    def cancel(self):
        self._do("cancel")

    def read(self):
        self._do("read")

    def receive(self):
        """The next message."""
        message = self._next_message()
        if message is None:
            raise Failed(self._end)
        return message

    def end(self):
        """Waits for the end."""
        messages = list(iter(self._next_message, None))
        return self._end._replace(messages=messages)

    def result(self):
        """The one response of a call that succeeds."""
        end = self.end()
        if end.code != Code.OK:
            raise Failed(end)
        (response,) = end.messages
        return response

    def _do(self, what, **arguments):
        self._process.do(what, call=self._number, **arguments)

    def _next_message(self):
        while self._end is None:
            try:
                event = self._events.get(timeout=programs.PATIENCE_SECONDS)
            except queue.Empty:
                raise AssertionError("the client says nothing") from None
            if event is None:
                raise AssertionError("the client has ended")
            if "message" in event:
                return self._parse(base64.b64decode(event["message"]))
            metadata = [(key, decoded(key, value)) for key, value in event["metadata"]]
            if "code" in event:
                self._end = End(Code(event["code"]), event["text"], metadata, [])
            else:
                self.headers = metadata
        return None


def message_text(message):
    data = message if isinstance(message, bytes) else message.SerializeToString()
    return base64.b64encode(data).decode()


def encoded(key, value):
    return base64.b64encode(value).decode() if key.endswith("-bin") else value


def decoded(key, value):
    return base64.b64decode(value) if key.endswith("-bin") else value


class Channel:
    """One connection of a client."""

    def __init__(self, process, number):
        self._process = process
        self._number = number

    def open(self, method, seconds=programs.PATIENCE_SECONDS, metadata=(), read=True, raw=False,
             unary=None, first=None):
        """Opens a call of "/package.Service/Method". `unary` has to be said of one that no proto
        file knows. The message `first` is sent before anything of the host's can have come in."""
        response_type = None
        if unary is None:
            descriptor = method_descriptor(method)
            response_type = descriptor.output_type._concrete_class
            unary = not is_stream(descriptor)
        return self._process.open(
            None if raw else response_type,
            channel=self._number,
            method=method,
            unary=unary,
            raw=raw,
            seconds=seconds,
            metadata=[[key, encoded(key, value)] for key, value in metadata],
            read=read,
            first=None if first is None else message_text(first),
        )

    def call(self, method, request, **options):
        """Begins a unary call."""
        call = self.open(method, **options)
        call.send(request)
        call.half_close()
        return call

    def close(self):
        self._process.do("close", channel=self._number)


class Client:
    """A running client."""

    def __init__(self, name):
        self.process = subprocess.Popen(
            COMMANDS[name], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )
        self._numbers = itertools.count(1)
        self._calls = {}
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def connect(self, target, ca=None, certificate=None, key=None, gzip=False, options=None):
        number = next(self._numbers)
        self.do("connect", channel=number, target=target, ca=ca, certificate=certificate, key=key,
                gzip=gzip, options=options or {})
        return Channel(self, number)

    def open(self, response_type, **arguments):
        number = next(self._numbers)
        call = self._calls[number] = Call(self, number, response_type)
        self.do("open", call=number, **arguments)
        return call

    def do(self, what, **arguments):
        json.dump({"do": what, **arguments}, self.process.stdin)
        self.process.stdin.write("\n")
        self.process.stdin.flush()

    def _read(self):
        for line in self.process.stdout:
            event = json.loads(line)
            self._calls[event["call"]].on_event(event)
        for call in list(self._calls.values()):
            call.on_event(None)

    def kill(self):
        self.process.kill()
        self._finish()

    def close(self):
        """Lets the client end; its exit status."""
        self._close_input()
        try:
            self.process.wait(programs.PATIENCE_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
        self._finish()
        return self.process.returncode

    def _close_input(self):
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()

    def _finish(self):
        self.process.wait()
        self._reader.join()
        self.process.stdout.close()
        self._close_input()


def method_descriptor(path):
    _, service, method = path.split("/")
    return descriptor_pool.Default().FindServiceByName(service).methods_by_name[method]


def is_stream(method):
    proto = descriptor_pb2.MethodDescriptorProto()
    method.CopyToProto(proto)
    return proto.client_streaming or proto.server_streaming


class UnixSockets:
    """A Unix-domain socket in a folder that is the test's own."""

    def __init__(self, folder):
        self._numbers = itertools.count(1)
        self._folder = folder

    def host_arguments(self):
        return [f"unix:{self._folder}/{next(self._numbers)}.sock"]

    def connection(self, address):
        return {"target": address}


class Tcp:
    def __init__(self, folder):
        del folder

    def host_arguments(self):
        return ["127.0.0.1:0"]

    def connection(self, address):
        return {"target": address}


class Mtls:
    """TLS, with a certificate on each side."""

    def __init__(self, folder):
        self._folder = pathlib.Path(folder)
        authority = certificates.Authority(folder)
        authority.certify("server", "DNS:localhost")
        authority.certify("client", "URI:spiffe://example.org/client")

    def file(self, name):
        return str(self._folder / name)

    def host_arguments(self):
        return ["--tls", self.file("server.pem"), self.file("server.key"), self.file("ca.pem"),
                "127.0.0.1:0"]

    def connection(self, address):
        return {
            "target": address.replace("127.0.0.1", "localhost"),
            "ca": self.file("ca.pem"),
            "certificate": self.file("client.pem"),
            "key": self.file("client.key"),
        }


TRANSPORTS = {"Unix": UnixSockets, "Tcp": Tcp, "Mtls": Mtls}


class Scenarios(unittest.TestCase):
    """What clients do with a host, over one transport. The host, the client and its connection serve
    all the tests of a class; none of them may be worse for it."""

    transport_type = None
    client_name = os.environ.get("VARNIC_FOREIGN_CLIENT", "grpcio")
    host_program = None

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = folder.name
        cls.transport = cls.transport_type(cls.folder)
        cls.shared_host = cls.start_host(cls.addClassCleanup)
        cls.client = Client(cls.client_name)
        cls.addClassCleanup(cls.client.close)
        cls.channel = cls.connect(cls.shared_host)

    @classmethod
    def tearDownClass(cls):
        client_status = cls.client.close()
        host_status = cls.shared_host.stop()
        if (client_status, host_status) != (0, 0):
            raise AssertionError(
                f"the client ended with {client_status}, the host with {host_status}: "
                + cls.shared_host.stderr()
            )

    @classmethod
    def start_host(cls, add_cleanup):
        host = programs.Host(*cls.transport.host_arguments(), program=cls.host_program)
        add_cleanup(host.__exit__)
        if not host.addresses:
            raise AssertionError(host.stderr())
        return host

    @classmethod
    def connect(cls, host, **options):
        return cls.client.connect(**{**cls.transport.connection(host.addresses[0]), **options})

    def new_channel(self, **options):
        channel = self.connect(self.shared_host, **options)
        self.addCleanup(channel.close)
        return channel

    def assert_ends(self, call, code, text=""):
        end = call.end()
        self.assertEqual(end.code, code, end.text)
        self.assertIn(text, end.text)
        return end


def over_each_transport(scenarios, namespace):
    """Puts the scenarios into a test module, as a class for each transport."""
    for name, transport in TRANSPORTS.items():
        namespace[name] = type(name, (scenarios,), {"transport_type": transport,
                                                    "__module__": scenarios.__module__})
