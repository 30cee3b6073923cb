"""RFC 9113, section 6: what each frame type may look like, and what it does; and section 7, error
codes."""

import struct
import unittest

from hyperframe import frame as hyperframe

import raw_peer
from cases import (
    Case, ConnectionError_, Ends, Http2Test, Ignored, Serves, StreamError, Then,
)
from raw_peer import (
    ACK, END_HEADERS, END_STREAM, EVENTS, HAS_PRIORITY, MAX_FRAME_BYTES, MAX_WINDOW, NO_FIELDS,
    PADDED, REQUEST_BLOCK, Error, Kind, Setting, continuation, data, frame, goaway, grpc_message,
    headers, open_call, ping, priority, rst_stream, settings, whole_call, window_update,
)

UNKNOWN_ERROR = 0xABCD
FIRST, SECOND = REQUEST_BLOCK[:10], REQUEST_BLOCK[10:]
DATA_THAT_ENDS = data(1, NO_FIELDS, END_STREAM)


def padded(payload, padding):
    return bytes([padding]) + payload + bytes(padding)


class Data(Http2Test):
    CASES = (
        Case("6.1", "DATA with padding",
             [open_call(1), data(1, padded(NO_FIELDS, 255), END_STREAM | PADDED)], Serves()),
        Case("6.1", "DATA with a padding of no bytes",
             [open_call(1), data(1, padded(NO_FIELDS, 0), END_STREAM | PADDED)], Serves()),
        Case("6.1", "DATA that is nothing but padding",
             [open_call(1), data(1, padded(b"", 255), PADDED), DATA_THAT_ENDS], Serves()),
        Case("6.1", "DATA whose padding is not zero",
             [open_call(1), data(1, b"\x03" + NO_FIELDS + b"abc", END_STREAM | PADDED)], Serves()),
        Case("6.1", "DATA whose padding is as long as the frame",
             [open_call(1), data(1, b"\x05" + bytes(4), PADDED)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.1", "DATA whose padding is longer than the frame",
             [open_call(1), data(1, b"\xff" + bytes(4), PADDED)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.1", "DATA that is too short for the length of its padding",
             [open_call(1), data(1, b"", PADDED)],
             ConnectionError_(Error.FRAME_SIZE_ERROR, Error.PROTOCOL_ERROR)),
        Case("6.1", "DATA on stream 0", data(0, b"x"), ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.1", "DATA without content that ends the stream",
             [open_call(1), data(1, NO_FIELDS), data(1, flags=END_STREAM)], Serves()),
        Case("6.1", "A message in many pieces",
             [open_call(1), *(data(1, bytes([byte])) for byte in NO_FIELDS),
              data(1, flags=END_STREAM)],
             Serves()),
    )


class Headers(Http2Test):
    CASES = (
        Case("6.2", "HEADERS with padding",
             [headers(1, padded(REQUEST_BLOCK, 255), END_HEADERS | PADDED), DATA_THAT_ENDS],
             Serves()),
        Case("6.2", "HEADERS with a priority",
             [headers(1, struct.pack(">LB", 0x80000003, 255) + REQUEST_BLOCK,
                      END_HEADERS | HAS_PRIORITY),
              DATA_THAT_ENDS],
             Serves()),
        Case("6.2", "HEADERS with padding and a priority",
             [headers(1, padded(struct.pack(">LB", 0, 0) + REQUEST_BLOCK, 10),
                      END_HEADERS | HAS_PRIORITY | PADDED),
              DATA_THAT_ENDS],
             Serves()),
        Case("6.2", "HEADERS on stream 0", headers(0, REQUEST_BLOCK),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.2", "HEADERS whose padding is longer than the frame",
             headers(1, b"\xff" + REQUEST_BLOCK, END_HEADERS | PADDED),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.2", "HEADERS whose padding is as long as the rest of the frame",
             headers(1, bytes([len(REQUEST_BLOCK) + 1]) + REQUEST_BLOCK, END_HEADERS | PADDED),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.2", "HEADERS that are too short for the length of their padding",
             headers(1, b"", END_HEADERS | PADDED),
             ConnectionError_(Error.FRAME_SIZE_ERROR, Error.PROTOCOL_ERROR)),
        Case("6.2", "HEADERS that are too short for their priority",
             headers(1, b"\x00\x00\x00\x00", END_HEADERS | HAS_PRIORITY),
             ConnectionError_(Error.FRAME_SIZE_ERROR, Error.PROTOCOL_ERROR)),
        Case("6.2", "HEADERS that end the stream and the call",
             headers(1, REQUEST_BLOCK, END_HEADERS | END_STREAM),
             Then("answers with a gRPC status", lambda test, peer: test.assertIsNotNone(
                 peer.finish(1).grpc_status))),
    )


class Priority(Http2Test):
    CASES = (
        Case("6.3", "PRIORITY on stream 0", priority(0), ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.3", "PRIORITY that is too short",
             [open_call(1), frame(Kind.PRIORITY, 1, bytes(4))],
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("6.3", "PRIORITY that is too long",
             [open_call(1), frame(Kind.PRIORITY, 1, bytes(6))],
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("6.3", "PRIORITY on a stream that is never opened",
             [priority(99, depends_on=97), whole_call(1)], Serves()),
    )


class RstStream(Http2Test):
    CASES = (
        Case("6.4", "RST_STREAM on stream 0", rst_stream(0),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.4", "RST_STREAM that is too short",
             [open_call(1), frame(Kind.RST_STREAM, 1, bytes(3))],
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("6.4", "RST_STREAM that is too long",
             [open_call(1), frame(Kind.RST_STREAM, 1, bytes(5))],
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("7", "RST_STREAM with a code that nobody knows",
             [open_call(1), rst_stream(1, UNKNOWN_ERROR)], Ignored()),
    )


NO_WINDOW = settings((Setting.INITIAL_WINDOW_SIZE, 0))


def table_of_server_is_emptied(test, peer):
    """From the acknowledgement on, header blocks come without the table that they could use
    before."""
    peer.call(1)
    peer.send(settings((Setting.HEADER_TABLE_SIZE, 0)))
    peer.round_trip()
    peer.decoder.max_allowed_table_size = 0
    peer.call(3)
    block = peer.answer(3)
    test.assertEqual(block.grpc_status, "0")
    first = [f for f in peer.of(hyperframe.HeadersFrame) if f.stream_id == 3][0]
    test.assertEqual(first.data[0], 0x20)  # RFC 7541, section 6.3: to no bytes.


def acknowledges(count):
    def check(test, peer):
        peer.round_trip()
        acks = [f for f in peer.of(hyperframe.SettingsFrame) if "ACK" in f.flags]
        test.assertEqual(len(acks), 1 + count)  # One is for the greeting.

    return Then("acknowledges it", check)


def settings_case(name, identifier, value, outcome):
    return Case("6.5.2", name, settings((identifier, value)), outcome)


class Settings(Http2Test):
    CASES = (
        Case("6.5", "Every SETTINGS is acknowledged",
             [settings(), settings((Setting.ENABLE_PUSH, 0)), settings()], acknowledges(3)),
        Case("6.5", "SETTINGS that acknowledge, and have content",
             frame(Kind.SETTINGS, 0, settings((Setting.ENABLE_PUSH, 0))[9:], flags=ACK),
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("6.5", "SETTINGS on a stream", frame(Kind.SETTINGS, 1),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.5", "SETTINGS whose length is not a multiple of 6",
             frame(Kind.SETTINGS, 0, bytes(7)), ConnectionError_(Error.FRAME_SIZE_ERROR)),
        settings_case("HEADER_TABLE_SIZE of 0", Setting.HEADER_TABLE_SIZE, 0, Ignored()),
        settings_case("HEADER_TABLE_SIZE of the largest number", Setting.HEADER_TABLE_SIZE,
                      (1 << 32) - 1, Ignored()),
        settings_case("ENABLE_PUSH of 0", Setting.ENABLE_PUSH, 0, Ignored()),
        settings_case("ENABLE_PUSH of 1", Setting.ENABLE_PUSH, 1, Ignored()),
        settings_case("ENABLE_PUSH of 2", Setting.ENABLE_PUSH, 2,
                      ConnectionError_(Error.PROTOCOL_ERROR)),
        settings_case("MAX_CONCURRENT_STREAMS of 0", Setting.MAX_CONCURRENT_STREAMS, 0, Ignored()),
        settings_case("INITIAL_WINDOW_SIZE of the largest window", Setting.INITIAL_WINDOW_SIZE,
                      MAX_WINDOW, Ignored()),
        settings_case("INITIAL_WINDOW_SIZE of more than the largest window",
                      Setting.INITIAL_WINDOW_SIZE, MAX_WINDOW + 1,
                      ConnectionError_(Error.FLOW_CONTROL_ERROR)),
        settings_case("INITIAL_WINDOW_SIZE of the largest number", Setting.INITIAL_WINDOW_SIZE,
                      (1 << 32) - 1, ConnectionError_(Error.FLOW_CONTROL_ERROR)),
        settings_case("MAX_FRAME_SIZE of the smallest size", Setting.MAX_FRAME_SIZE,
                      MAX_FRAME_BYTES, Ignored()),
        settings_case("MAX_FRAME_SIZE of the largest size", Setting.MAX_FRAME_SIZE,
                      (1 << 24) - 1, Ignored()),
        settings_case("MAX_FRAME_SIZE that is too small", Setting.MAX_FRAME_SIZE,
                      MAX_FRAME_BYTES - 1, ConnectionError_(Error.PROTOCOL_ERROR)),
        settings_case("MAX_FRAME_SIZE that is too large", Setting.MAX_FRAME_SIZE,
                      1 << 24, ConnectionError_(Error.PROTOCOL_ERROR)),
        settings_case("MAX_HEADER_LIST_SIZE of the largest number", Setting.MAX_HEADER_LIST_SIZE,
                      (1 << 32) - 1, Ignored()),
        settings_case("A setting that nobody knows", 0xABCD, 1, Ignored()),
        Case("6.5.3", "A setting that comes twice in a frame counts as it came last",
             [settings((Setting.INITIAL_WINDOW_SIZE, 0), (Setting.INITIAL_WINDOW_SIZE, 1000)),
              whole_call(1)],
             Serves()),
        Case("6.5.3", "A setting of a frame that has a wrong one later",
             settings((Setting.INITIAL_WINDOW_SIZE, 1), (Setting.MAX_FRAME_SIZE, 1)),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.5.3", "The server's header blocks keep to the client's table", b"",
             Then("empties its table", table_of_server_is_emptied)),
    )


class PushPromise(Http2Test):
    CASES = (
        Case("6.6", "PUSH_PROMISE by a client on its own stream",
             [open_call(1),
              frame(Kind.PUSH_PROMISE, 1, struct.pack(">L", 2) + REQUEST_BLOCK, END_HEADERS)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.6", "PUSH_PROMISE on stream 0",
             frame(Kind.PUSH_PROMISE, 0, struct.pack(">L", 2) + REQUEST_BLOCK, END_HEADERS),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.6", "PUSH_PROMISE on an idle stream",
             frame(Kind.PUSH_PROMISE, 1, struct.pack(">L", 2) + REQUEST_BLOCK, END_HEADERS),
             ConnectionError_(Error.PROTOCOL_ERROR)),
    )


def pongs(*payloads):
    def check(test, peer):
        peer.round_trip()
        test.assertEqual(peer.pongs[:-1], list(payloads))

    return Then("answers with the same content" if payloads else "ignores it", check)


class Ping(Http2Test):
    CASES = (
        Case("6.7", "PING is answered with its own content",
             [ping(b"01234567"), ping(b"\xff" * 8), ping(bytes(8))],
             pongs(b"01234567", b"\xff" * 8, bytes(8))),
        Case("6.7", "An acknowledgement of a PING that nobody sent", ping(flags=ACK), pongs()),
        Case("6.7", "PING on a stream", [open_call(1), frame(Kind.PING, 1, bytes(8))],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.7", "PING that is too short", frame(Kind.PING, 0, bytes(7)),
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("6.7", "PING that is too long", frame(Kind.PING, 0, bytes(9)),
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("6.7", "PING without content", frame(Kind.PING, 0),
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
    )


def served_to_the_end(test, peer):
    answer = peer.finish(1)
    test.assertEqual(answer.grpc_status, "0")
    peer.read_to_the_end()


class Goaway(Http2Test):
    CASES = (
        Case("6.8", "GOAWAY on a stream",
             [open_call(1), frame(Kind.GOAWAY, 1, bytes(8))],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.8", "GOAWAY that is too short", frame(Kind.GOAWAY, 0, bytes(7)),
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("6.8", "A call that is open when the client says GOAWAY",
             [open_call(1), goaway(), DATA_THAT_ENDS],
             Ends("serves the call, then closes", served_to_the_end)),
        Case("6.8", "GOAWAY with an explanation", [open_call(1), goaway(text=b"so long"),
                                                    DATA_THAT_ENDS],
             Ends("serves the call, then closes", served_to_the_end)),
        Case("6.8", "GOAWAY twice", [open_call(1), goaway(), goaway(), DATA_THAT_ENDS],
             Ends("serves the call, then closes", served_to_the_end)),
        Case("6.8", "GOAWAY that names the largest stream",
             [open_call(1), goaway(MAX_WINDOW), DATA_THAT_ENDS],
             ConnectionError_(Error.PROTOCOL_ERROR),
             deviation="the section lets a client end in two steps as a server does, and a number"
                       " of no stream of the server's says so; nghttp2 wants a real one. Clients"
                       " name 0, since servers open no streams"),
        Case("6.8", "GOAWAY without open calls", goaway(),
             Ends("closes", lambda test, peer: peer.read_to_the_end())),
        Case("7", "GOAWAY with a code that nobody knows",
             [open_call(1), goaway(error=UNKNOWN_ERROR), DATA_THAT_ENDS],
             Ends("serves the call, then closes", served_to_the_end)),
    )


def data_bytes(peer, stream_id=1):
    return len(peer.answer(stream_id).data)


def comes_byte_by_byte(test, peer):
    """Each byte of window lets one byte through, and no more."""
    for size in range(1, 6):
        peer.send(window_update(1, 1))
        peer.settle()
        test.assertEqual(data_bytes(peer), size)


def waits_for_the_window(test, peer):
    peer.settle()
    test.assertEqual(data_bytes(peer), 0)
    peer.send(settings((Setting.INITIAL_WINDOW_SIZE, 3)))
    peer.settle()
    test.assertEqual(data_bytes(peer), 3)
    peer.send(window_update(1, 100))
    test.assertEqual(peer.finish(1).grpc_status, "0")


# EventSubscription { action: SUBSCRIBE }
SUBSCRIBE = grpc_message(b"\x10\x01")


def publish(peer, stream_id, size):
    """Makes the host send an event of a little more than that many bytes to all subscribers."""
    length = bytes([size & 0x7F | 0x80, size >> 7 & 0x7F | 0x80, size >> 14])
    # SetAcceptLanguageRequest { accept_language }
    message = grpc_message(b"\x12" + length + b"x" * size)
    peer.send(open_call(stream_id, "/rpc.Profile/SetAcceptLanguage"),
              *(data(stream_id, message[at:at + MAX_FRAME_BYTES])
                for at in range(0, len(message), MAX_FRAME_BYTES)),
              data(stream_id, flags=END_STREAM))


def subscribe_and_publish(size):
    def run(peer):
        peer.send(open_call(1, EVENTS), data(1, SUBSCRIBE))
        peer.settle()
        publish(peer, 3, size)
        peer.finish(3)
        peer.settle()

    return run


def keeps_to_the_connections_window(test, peer):
    """Which all streams share, and no setting changes."""
    test.assertEqual(sum(len(f.data) for f in peer.of(hyperframe.DataFrame)),
                     raw_peer.DEFAULT_WINDOW)
    peer.send(window_update(0, 1000))
    peer.settle()
    test.assertEqual(sum(len(f.data) for f in peer.of(hyperframe.DataFrame)),
                     raw_peer.DEFAULT_WINDOW + 1000)
    peer.send(window_update(0, 1 << 20))


def window_below_zero(test, peer):
    """1,000 bytes came, and the window shrinks by 900: what is granted first has to fill it."""
    test.assertEqual(data_bytes(peer), 1000)
    peer.send(settings((Setting.INITIAL_WINDOW_SIZE, 100)), window_update(1, 900))
    peer.settle()
    test.assertEqual(data_bytes(peer), 1000)
    peer.send(window_update(1, 10))
    peer.settle()
    test.assertEqual(data_bytes(peer), 1010)


def fill_the_servers_output(peer):
    """Lets the server have more to say than the socket holds, so that it can grant no window."""
    peer.send(settings((Setting.INITIAL_WINDOW_SIZE, MAX_WINDOW)),
              window_update(0, MAX_WINDOW - raw_peer.DEFAULT_WINDOW))
    peer.send(open_call(1, EVENTS), data(1, SUBSCRIBE))
    peer.round_trip()
    publish(peer, 3, 1_000_000)


def overrun_a_stream(peer):
    peer.wait_for(hyperframe.SettingsFrame)
    window = peer.frames[0].settings[Setting.INITIAL_WINDOW_SIZE]
    fill_the_servers_output(peer)
    # A message of 4 MB, which never ends. The server opens the window again early, and can say so
    # only later; never twice.
    peer.send(open_call(101), data(101, b"\x00\x00\x3f\xff\xff"))
    peer.send(*(data(101, bytes(MAX_FRAME_BYTES)) for _ in range(2 * window // MAX_FRAME_BYTES)))


class FlowControl(Http2Test):
    CASES = (
        Case("6.9", "WINDOW_UPDATE of 0 on the connection", window_update(0, 0),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.9", "WINDOW_UPDATE of 0 on a stream", [open_call(1), window_update(1, 0)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.9", "WINDOW_UPDATE that is too short", frame(Kind.WINDOW_UPDATE, 0, bytes(3)),
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("6.9", "WINDOW_UPDATE that is too long",
             [open_call(1), frame(Kind.WINDOW_UPDATE, 1, bytes(5))],
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("6.9", "The reserved bit of WINDOW_UPDATE",
             [NO_WINDOW, whole_call(1), window_update(1, 1 << 31 | 1000)], Serves()),
        Case("6.9.1", "The server sends no more than the stream's window",
             [NO_WINDOW, whole_call(1)],
             Then("sends a byte of DATA for each byte of window", comes_byte_by_byte)),
        Case("6.9.1", "The server sends no more than the connection's window",
             [settings((Setting.INITIAL_WINDOW_SIZE, 1 << 20)), subscribe_and_publish(100_000)],
             Then("stops at 65,535 bytes", keeps_to_the_connections_window)),
        Case("6.9.1", "A connection's window of more than the largest",
             [window_update(0, MAX_WINDOW)], ConnectionError_(Error.FLOW_CONTROL_ERROR)),
        Case("6.9.1", "A connection's window of more than the largest, in two steps",
             [window_update(0, MAX_WINDOW // 2), window_update(0, MAX_WINDOW // 2 + 1)],
             ConnectionError_(Error.FLOW_CONTROL_ERROR)),
        Case("6.9.1", "A stream's window of more than the largest",
             [open_call(1), window_update(1, MAX_WINDOW)],
             StreamError(Error.FLOW_CONTROL_ERROR)),
        Case("6.9.1", "The largest connection's window",
             [window_update(0, MAX_WINDOW - raw_peer.DEFAULT_WINDOW), whole_call(1)], Serves()),
        Case("6.9.1", "DATA of more than the stream's window", overrun_a_stream,
             StreamError(Error.FLOW_CONTROL_ERROR, stream=101), calls_later=False),
        Case("6.9.2", "A window of 0 holds DATA back until it grows",
             [NO_WINDOW, whole_call(1)], Then("waits", waits_for_the_window)),
        Case("6.9.2", "A setting may take a stream's window below zero",
             [settings((Setting.INITIAL_WINDOW_SIZE, 1000)), subscribe_and_publish(20_000)],
             Then("waits until it is above", window_below_zero)),
        Case("6.9.2", "A setting may not take a stream's window above the largest",
             [open_call(1), window_update(1, 1),
              settings((Setting.INITIAL_WINDOW_SIZE, MAX_WINDOW))],
             StreamError(Error.FLOW_CONTROL_ERROR),
             deviation="it should be a connection error; nghttp2 resets the streams whose windows"
                       " are too large, and goes on with the others"),
    )


class Continuation(Http2Test):
    CASES = (
        Case("6.10", "A header block in two frames",
             [headers(1, FIRST, 0), continuation(1, SECOND, END_HEADERS), DATA_THAT_ENDS],
             Serves()),
        Case("6.10", "A header block in five frames",
             [headers(1, b"", 0), continuation(1, FIRST), continuation(1, b""),
              continuation(1, SECOND), continuation(1, b"", END_HEADERS), DATA_THAT_ENDS],
             Serves()),
        Case("6.10", "The flag that ends the stream stands in HEADERS",
             [open_call(1, flags=END_HEADERS), data(1, NO_FIELDS),
              headers(1, b"", END_STREAM), continuation(1, b"", END_HEADERS)],
             Serves()),
        Case("6.10", "CONTINUATION on stream 0",
             [headers(1, FIRST, 0), continuation(0, SECOND, END_HEADERS)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.10", "CONTINUATION on another stream",
             [headers(1, FIRST, 0), continuation(3, SECOND, END_HEADERS)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.10", "CONTINUATION after the end of the header block",
             [open_call(1), continuation(1, SECOND, END_HEADERS)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.10", "CONTINUATION after the last CONTINUATION",
             [headers(1, FIRST, 0), continuation(1, SECOND, END_HEADERS),
              continuation(1, SECOND, END_HEADERS)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.10", "CONTINUATION after DATA",
             [open_call(1), data(1, b""), continuation(1, SECOND, END_HEADERS)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.10", "DATA before the header block has ended",
             [headers(1, FIRST, 0), DATA_THAT_ENDS], ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("6.10", "RST_STREAM before the header block has ended",
             [headers(1, FIRST, 0), rst_stream(1)], ConnectionError_(Error.PROTOCOL_ERROR)),
    )


if __name__ == "__main__":
    unittest.main()
