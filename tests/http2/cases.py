"""Cases of the HTTP/2 tests, and how one is run: each is a few bytes to a running host, and what
the host has to make of them. README.md lists them all."""

import os
import pathlib
import re
import sys
import tempfile
import unittest

from hyperframe import frame as hyperframe

import raw_peer
from raw_peer import Peer, Setting

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "programs"))
# pylint: disable=wrong-import-position
import programs  # noqa: E402

# The stream of the call that has to be served after whatever a case did.
LATER_STREAM = 0x10001


class Outcome:
    """What the host has to do. `text` is how the list of cases says it."""

    # Whether the connection goes on.
    survives = True

    def __init__(self, text):
        self.text = text

    def check(self, test, peer):
        raise NotImplementedError


class ConnectionError_(Outcome):
    survives = False

    def __init__(self, *errors):
        super().__init__("connection error " + " or ".join(error.name for error in errors))
        self._errors = errors

    def check(self, test, peer):
        peer.read_to_the_end()
        test.assertIsNotNone(peer.goaway, f"closed without a GOAWAY: {peer.describe()}")
        test.assertIn(peer.goaway.error_code, self._errors, peer.goaway)


class Closes(Outcome):
    survives = False

    def __init__(self):
        super().__init__("closes the connection")

    def check(self, test, peer):
        peer.read_to_the_end()


class StreamError(Outcome):
    def __init__(self, *errors, stream=1):
        super().__init__("stream error " + " or ".join(error.name for error in errors))
        self._errors = errors
        self._stream = stream

    def check(self, test, peer):
        answer = peer.answer(self._stream)
        peer.read_until(lambda: answer.reset is not None, f"stream {self._stream} was reset")
        test.assertIn(answer.reset, self._errors)
        test.assertIsNone(peer.goaway, peer.goaway)


class Ignored(Outcome):
    """Nothing is reset, and nothing ends."""

    def __init__(self):
        super().__init__("ignores it")

    def check(self, test, peer):
        peer.round_trip()
        test.assertIsNone(peer.goaway, peer.goaway)
        test.assertEqual(peer.of(hyperframe.RstStreamFrame), [])


class Serves(Outcome):
    """The call on a stream is answered, with a gRPC status."""

    def __init__(self, stream=1, grpc_status=0):
        super().__init__(
            "serves the call" if grpc_status == 0 else f"answers with grpc-status {grpc_status}")
        self._stream = stream
        self._grpc_status = str(grpc_status)

    def check(self, test, peer):
        answer = peer.finish(self._stream)
        test.assertIsNone(peer.goaway, peer.goaway)
        test.assertEqual(answer.headers.get(":status"), "200", answer)
        test.assertEqual(answer.grpc_status, self._grpc_status, answer)


class HttpStatus(Outcome):
    """The request on stream 1 is understood, and is no call."""

    def __init__(self, status):
        super().__init__(f"answers with HTTP status {status}")
        self._status = status

    def check(self, test, peer):
        answer = peer.finish(1)
        test.assertEqual(answer.headers.get(":status"), self._status, answer)


class Then(Outcome):
    """Whatever a function (test, peer) asserts."""

    def __init__(self, text, function):
        super().__init__(text)
        self._function = function

    def check(self, test, peer):
        self._function(test, peer)


class Ends(Then):
    """The same, of a connection that ends."""

    survives = False


class Case:
    """`section` is one of the RFC that the file is about, `name` a sentence. `sent` are bytes, or
    functions of the peer that send and read. The connection begins with `greeting`; if it survives,
    a proper call is made on it, unless `calls_later` says that no such call is possible, and a PING
    has to do. A `deviation` says why the outcome is not what the section asks for."""

    def __init__(self, section, name, sent, outcome, greeting=raw_peer.GREETING, calls_later=True,
                 deviation=None):
        self.section = section
        self.name = name
        self.sent = sent if isinstance(sent, (list, tuple)) else [sent]
        self.outcome = outcome
        self.greeting = greeting
        self.calls_later = calls_later
        self.deviation = deviation

    @property
    def test_name(self):
        return "test_" + re.sub(r"\W+", "_", self.name).strip("_")

    def run(self, test):
        with Peer(test.address, self.greeting) as peer:
            for part in self.sent:
                if callable(part):
                    part(peer)
                else:
                    peer.send(part)
            self.outcome.check(test, peer)
            if self.outcome.survives:
                self._check_connection(test, peer)

    def _check_connection(self, test, peer):
        peer.round_trip()
        if not self.calls_later:
            return
        # A case may have left it without a window.
        peer.send(raw_peer.settings((Setting.INITIAL_WINDOW_SIZE, raw_peer.DEFAULT_WINDOW)))
        answer = peer.call(LATER_STREAM)
        test.assertEqual(answer.grpc_status, "0", answer)


class Http2Test(unittest.TestCase):
    """A class of cases: CASES becomes one test method for each. One host serves all of them, and
    has to serve a new connection after each."""

    CASES = ()

    def __init_subclass__(cls):
        super().__init_subclass__()
        for case in cls.__dict__.get("CASES", ()):
            if hasattr(cls, case.test_name):
                raise ValueError(f"two cases of {cls.__name__} are called {case.name!r}")
            setattr(cls, case.test_name, lambda self, case=case: case.run(self))

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.host = cls.enterClassContext(
            programs.Host(
                f"unix:{folder.name}/host.sock",
                "127.0.0.1:0",
                program=os.environ["VARNIC_STREAM_HOST"],
            ))
        cls.address = cls.host.addresses[0]
        cls.tcp_address = cls.host.addresses[1]

    @classmethod
    def tearDownClass(cls):
        # Also where a sanitizer says what it has found.
        if cls.host.stop() != 0:
            raise AssertionError(f"the host did not end well: {cls.host.stderr()}")

    def tearDown(self):
        with Peer(self.address) as honest:
            self.assertEqual(honest.call(1).grpc_status, "0", "a new connection is not served")
