"""A client of HTTP/2 frame by frame, as well or as badly behaved as a test wants. What is sent is
bytes; what comes back is parsed by python3-hyperframe and python3-hpack."""

import enum
import select
import socket
import struct

import hpack
from hyperframe import frame as hyperframe

# More than any step takes on a slow machine; a test that runs into it has failed.
PATIENCE_SECONDS = 60

PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"


class Kind(enum.IntEnum):
    """The frame types of RFC 9113, section 6."""

    DATA = 0
    HEADERS = 1
    PRIORITY = 2
    RST_STREAM = 3
    SETTINGS = 4
    PUSH_PROMISE = 5
    PING = 6
    GOAWAY = 7
    WINDOW_UPDATE = 8
    CONTINUATION = 9


class Setting(enum.IntEnum):
    """RFC 9113, section 6.5.2."""

    HEADER_TABLE_SIZE = 1
    ENABLE_PUSH = 2
    MAX_CONCURRENT_STREAMS = 3
    INITIAL_WINDOW_SIZE = 4
    MAX_FRAME_SIZE = 5
    MAX_HEADER_LIST_SIZE = 6


class Error(enum.IntEnum):
    """RFC 9113, section 7."""

    NO_ERROR = 0
    PROTOCOL_ERROR = 1
    INTERNAL_ERROR = 2
    FLOW_CONTROL_ERROR = 3
    SETTINGS_TIMEOUT = 4
    STREAM_CLOSED = 5
    FRAME_SIZE_ERROR = 6
    REFUSED_STREAM = 7
    CANCEL = 8
    COMPRESSION_ERROR = 9
    CONNECT_ERROR = 10
    ENHANCE_YOUR_CALM = 11
    INADEQUATE_SECURITY = 12
    HTTP_1_1_REQUIRED = 13


ACK = 0x1
END_STREAM = 0x1
END_HEADERS = 0x4
PADDED = 0x8
HAS_PRIORITY = 0x20

MAX_FRAME_BYTES = 1 << 14  # What every peer takes (RFC 9113, section 4.2).
MAX_WINDOW = (1 << 31) - 1
DEFAULT_WINDOW = (1 << 16) - 1


def frame(kind, stream_id, payload=b"", flags=0, length=None):
    """The bytes of one frame. `length` is what its header says, if not the truth."""
    length = len(payload) if length is None else length
    return struct.pack(">BHBBL", length >> 16, length & 0xFFFF, kind, flags, stream_id) + payload


def data(stream_id, payload=b"", flags=0):
    return frame(Kind.DATA, stream_id, payload, flags)


def headers(stream_id, block, flags=END_HEADERS):
    return frame(Kind.HEADERS, stream_id, block, flags)


def continuation(stream_id, fragment=b"", flags=0):
    return frame(Kind.CONTINUATION, stream_id, fragment, flags)


def priority(stream_id, depends_on=0, weight=15):
    return frame(Kind.PRIORITY, stream_id, struct.pack(">LB", depends_on, weight))


def rst_stream(stream_id, error=Error.CANCEL):
    return frame(Kind.RST_STREAM, stream_id, struct.pack(">L", error))


def settings(*pairs):
    return frame(Kind.SETTINGS, 0, b"".join(struct.pack(">HL", *pair) for pair in pairs))


def ping(payload=b"are you?", flags=0):
    return frame(Kind.PING, 0, payload, flags)


def goaway(last_stream_id=0, error=Error.NO_ERROR, text=b""):
    return frame(Kind.GOAWAY, 0, struct.pack(">LL", last_stream_id, error) + text)


def window_update(stream_id, increment):
    return frame(Kind.WINDOW_UPDATE, stream_id, struct.pack(">L", increment))


GREETING = PREFACE + settings()


def header_block(fields):
    """A header block that needs no earlier one and changes no table, so that tests can send it
    anywhere in a connection."""
    return hpack.Encoder().encode(
        [hpack.NeverIndexedHeaderTuple(name, value) for name, value in fields], huffman=False
    )


def grpc_message(payload):
    return struct.pack(">BL", 0, len(payload)) + payload


# An empty message: of ProfileId, the default profile.
NO_FIELDS = grpc_message(b"")

# The fields of a proper call, in their order.
REQUEST = (
    (":method", "POST"),
    (":scheme", "http"),
    (":path", "/rpc.Profile/Name"),
    (":authority", "localhost"),
    ("content-type", "application/grpc"),
    ("te", "trailers"),
)

# To be followed by data that ends the stream.
REQUEST_BLOCK = header_block(REQUEST)


def open_call(stream_id, path="/rpc.Profile/Name", flags=END_HEADERS):
    """The HEADERS of a proper call."""
    fields = [(name, path if name == ":path" else value) for name, value in REQUEST]
    return headers(stream_id, header_block(fields), flags)


def whole_call(stream_id, path="/rpc.Profile/Name"):
    """A proper call about the default profile."""
    return open_call(stream_id, path) + data(stream_id, NO_FIELDS, END_STREAM)


# A stream of events, which stays open until one end has enough of it.
EVENTS = "/rpc.Profile/WhenNetworkChanged"


def connect(address):
    """A socket to an address as the host prints it: "unix:PATH" or "HOST:PORT"."""
    if address.startswith("unix:"):
        sock = socket.socket(socket.AF_UNIX)
        sock.settimeout(PATIENCE_SECONDS)
        sock.connect(address[len("unix:"):])
        return sock
    host, _, port = address.rpartition(":")
    sock = socket.create_connection((host.strip("[]"), int(port)), PATIENCE_SECONDS)
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return sock


# The flags that each type has; all others are unset by who sends the frame.
FLAGS = {
    Kind.DATA: END_STREAM | PADDED,
    Kind.HEADERS: END_STREAM | END_HEADERS | PADDED | HAS_PRIORITY,
    Kind.SETTINGS: ACK,
    Kind.PING: ACK,
    Kind.CONTINUATION: END_HEADERS,
}


def check_head(head):
    """What RFC 9113, sections 4.1 and 4.2, asks of every frame that a server sends."""
    length = int.from_bytes(head[:3], "big")
    kind, flags, first_of_stream_id = head[3], head[4], head[5]
    if kind not in Kind.__members__.values():
        raise AssertionError(f"the server sent a frame of type {kind}")
    if length > MAX_FRAME_BYTES:
        raise AssertionError(f"the server sent a frame of {length} bytes")
    if flags & ~FLAGS.get(kind, 0):
        raise AssertionError(f"the server set the flags {flags:#x} of a {Kind(kind).name} frame")
    if first_of_stream_id & 0x80:
        raise AssertionError("the server set the reserved bit of a stream identifier")


class Answer:
    """What has come back on one stream."""

    def __init__(self):
        self.headers = {}
        self.data = b""
        self.trailers = {}
        self.ended = False  # By END_STREAM.
        self.reset = None  # The code of the RST_STREAM.

    @property
    def over(self):
        return self.ended or self.reset is not None

    @property
    def grpc_status(self):
        return {**self.headers, **self.trailers}.get("grpc-status")

    def __repr__(self):
        return str(vars(self))


class Peer:
    """One connection. Use it as a context manager."""

    def __init__(self, address, greeting=GREETING):
        self.socket = connect(address)
        self.decoder = hpack.Decoder()
        self.frames = []  # All that came, in its order.
        self.answers = {}  # By stream id.
        self.goaway = None  # The frame.
        self.closed = False
        # Without it the server has to go on as if its settings were on their way.
        self.acknowledges_settings = True
        self._unparsed = b""
        self._block = b""
        self._pings = 0
        self.send(greeting)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, *parts):
        """Sends bytes; the host may close the connection before it has read all of them. False if
        it has."""
        try:
            for part in parts:
                self.socket.sendall(part)
        except (BrokenPipeError, ConnectionResetError):
            return False
        return True

    def answer(self, stream_id):
        return self.answers.setdefault(stream_id, Answer())

    def read_until(self, condition, what):
        """Reads frames until the condition holds. The end of the connection, and silence, are
        failures, which say what was waited for."""
        while not condition():
            if not self.read_frame():
                raise AssertionError(f"the connection ended before {what}: {self.describe()}")

    def read_to_the_end(self):
        while self.read_frame():
            pass

    def read_frame(self):
        """One more frame; None if the connection has ended."""
        head = self._take(9)
        if head is None:
            self.closed = True
            return None
        check_head(head)
        received, length = hyperframe.Frame.parse_frame_header(memoryview(head))
        received.parse_body(memoryview(self._take(length) or b""))
        self.frames.append(received)
        self._note(received)
        return received

    def read_what_is_there(self):
        """Reads as much as can be read without waiting."""
        while not self.closed and select.select([self.socket], [], [], 0)[0]:
            self.read_frame()

    def forget(self):
        """Of a connection that is used for long."""
        self.frames.clear()
        self.answers.clear()

    def call(self, stream_id, path="/rpc.Profile/Name"):
        """Makes a proper call and waits for all of its answer."""
        self.send(whole_call(stream_id, path))
        return self.finish(stream_id)

    def finish(self, stream_id):
        answer = self.answer(stream_id)
        self.read_until(lambda: answer.over, f"stream {stream_id} did")
        return answer

    def round_trip(self):
        """Waits until the host has seen all that was sent, and has said what it says at once; but
        for DATA, which a PING may overtake."""
        self._pings += 1
        payload = struct.pack(">Q", self._pings)
        self.send(ping(payload))
        self.read_until(lambda: payload in self.pongs, "it answered a PING")

    def settle(self):
        """The same, with the DATA."""
        self.round_trip()
        self.round_trip()

    @property
    def pongs(self):
        return [f.opaque_data for f in self.of(hyperframe.PingFrame) if "ACK" in f.flags]

    def of(self, frame_type):
        return [f for f in self.frames if isinstance(f, frame_type)]

    def wait_for(self, frame_type, stream_id=None):
        """The first frame of that type, on that stream if one is given."""
        def found():
            return [f for f in self.of(frame_type) if stream_id in (None, f.stream_id)]

        self.read_until(found, f"a {frame_type.__name__}")
        return found()[0]

    def describe(self):
        return "\n".join(map(repr, self.frames)) or "nothing came"

    def _take(self, size):
        while len(self._unparsed) < size:
            try:
                more = self.socket.recv(1 << 16)
            except ConnectionResetError:
                more = b""
            except TimeoutError as error:
                raise AssertionError(f"nothing more comes: {self.describe()}") from error
            if not more:
                return None
            self._unparsed += more
        taken, self._unparsed = self._unparsed[:size], self._unparsed[size:]
        return taken

    def _note(self, received):
        self._check_stream(received)
        if isinstance(received, hyperframe.SettingsFrame):
            if self.acknowledges_settings and "ACK" not in received.flags:
                self.send(frame(Kind.SETTINGS, 0, flags=ACK))
        elif isinstance(received, hyperframe.GoAwayFrame):
            self.goaway = received
        elif isinstance(received, hyperframe.RstStreamFrame):
            self.answer(received.stream_id).reset = received.error_code
        elif isinstance(received, hyperframe.DataFrame):
            self.answer(received.stream_id).data += received.data
        elif isinstance(received, (hyperframe.HeadersFrame, hyperframe.ContinuationFrame)):
            self._note_block(received)
        if "END_STREAM" in received.flags:
            self.answer(received.stream_id).ended = True

    def _check_stream(self, received):
        """RFC 9113, sections 5.1, 5.4.2 and 8.4: what may come on a stream that the server has
        ended; and nothing is pushed."""
        if isinstance(received, hyperframe.PushPromiseFrame):
            raise AssertionError("a server for gRPC pushes nothing")
        answer = self.answers.get(received.stream_id)
        if answer is None or not answer.over:
            return
        may_follow = (hyperframe.RstStreamFrame, hyperframe.WindowUpdateFrame)
        if answer.reset is not None or not isinstance(received, may_follow):
            raise AssertionError(f"{received} on a stream that the server has ended")

    def _note_block(self, received):
        self._block += received.data
        if "END_HEADERS" not in received.flags:
            return
        fields = dict(self.decoder.decode(self._block))
        self._block = b""
        answer = self.answer(received.stream_id)
        if answer.headers:
            answer.trailers = fields
        else:
            answer.headers = fields
