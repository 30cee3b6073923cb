"""RFC 9113, section 5: the states of a stream, identifiers, how many there may be, and errors."""

import unittest

from hyperframe import frame as hyperframe

import raw_peer
from cases import (
    Case, ConnectionError_, Ends, Http2Test, Ignored, Serves, StreamError, Then,
)
from raw_peer import (
    END_HEADERS, END_STREAM, EVENTS, NO_FIELDS, REQUEST_BLOCK, Error, Kind, Setting, continuation,
    data, frame, headers, open_call, ping, priority, rst_stream, settings, whole_call,
    window_update,
)

# Without a window the answer waits, and the stream stays half-closed.
NO_WINDOW = settings((Setting.INITIAL_WINDOW_SIZE, 0))
HALF_CLOSED = NO_WINDOW + whole_call(1)
# The client has reset the stream.
RESET = open_call(1) + rst_stream(1)


def finished(peer):
    """A stream that both ends have closed."""
    peer.call(1)


def reset_by_server(peer):
    """A call that fails at once, whose client has more to say."""
    peer.send(open_call(1, "/rpc.Profile/Nothing"))
    peer.finish(1)
    peer.wait_for(hyperframe.RstStreamFrame)


class IdleStreams(Http2Test):
    CASES = (
        Case("5.1", "DATA on an idle stream", data(1, b"x"),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.1", "RST_STREAM on an idle stream", rst_stream(1),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.1", "WINDOW_UPDATE on an idle stream", window_update(1, 100),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.1", "CONTINUATION on an idle stream",
             continuation(1, REQUEST_BLOCK, END_HEADERS),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.1", "PRIORITY on an idle stream", [priority(1), whole_call(1)], Serves()),
        Case("5.1", "DATA on an idle stream of the server's own", data(2, b"x"),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.1", "WINDOW_UPDATE on an idle stream of the server's own", window_update(2, 1),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.1", "RST_STREAM on an idle stream of the server's own", rst_stream(2),
             ConnectionError_(Error.PROTOCOL_ERROR)),
    )


class OpenStreams(Http2Test):
    CASES = (
        Case("5.1", "Every frame that an open stream may have",
             [open_call(1), priority(1), window_update(1, 1), data(1), data(1, NO_FIELDS),
              data(1, flags=END_STREAM)],
             Serves()),
        Case("5.1", "RST_STREAM on an open stream", RESET, Ignored()),
        Case("5.1", "RST_STREAM on an open stream of events",
             [open_call(1, EVENTS), ping(), rst_stream(1)], Ignored()),
    )


class HalfClosedStreams(Http2Test):
    CASES = (
        Case("5.1", "DATA on a half-closed stream", [HALF_CLOSED, data(1, b"x")],
             ConnectionError_(Error.STREAM_CLOSED)),
        Case("5.1", "HEADERS on a half-closed stream",
             [HALF_CLOSED, headers(1, REQUEST_BLOCK, END_HEADERS | END_STREAM)],
             ConnectionError_(Error.STREAM_CLOSED)),
        Case("5.1", "CONTINUATION on a half-closed stream",
             [HALF_CLOSED, continuation(1, REQUEST_BLOCK, END_HEADERS)],
             ConnectionError_(Error.PROTOCOL_ERROR, Error.STREAM_CLOSED)),
        Case("5.1", "WINDOW_UPDATE on a half-closed stream",
             [HALF_CLOSED, window_update(1, 1000)], Serves()),
        Case("5.1", "PRIORITY on a half-closed stream",
             [HALF_CLOSED, priority(1), window_update(1, 1000)], Serves()),
        Case("5.1", "RST_STREAM on a half-closed stream", [HALF_CLOSED, rst_stream(1)], Ignored()),
    )


class ClosedStreams(Http2Test):
    CASES = (
        Case("5.1", "DATA on a stream that the client has reset", [RESET, data(1, b"x")],
             ConnectionError_(Error.STREAM_CLOSED)),
        Case("5.1", "HEADERS on a stream that the client has reset",
             [RESET, headers(1, REQUEST_BLOCK)],
             ConnectionError_(Error.STREAM_CLOSED)),
        Case("5.1", "CONTINUATION on a stream that the client has reset",
             [RESET, continuation(1, REQUEST_BLOCK, END_HEADERS)],
             ConnectionError_(Error.PROTOCOL_ERROR, Error.STREAM_CLOSED)),
        Case("5.1", "DATA on a stream that has ended", [finished, data(1, b"x")],
             ConnectionError_(Error.STREAM_CLOSED)),
        Case("5.1", "HEADERS on a stream that has ended", [finished, headers(1, REQUEST_BLOCK)],
             ConnectionError_(Error.STREAM_CLOSED)),
        Case("5.1", "CONTINUATION on a stream that has ended",
             [finished, continuation(1, REQUEST_BLOCK, END_HEADERS)],
             ConnectionError_(Error.PROTOCOL_ERROR, Error.STREAM_CLOSED)),
        Case("5.1", "PRIORITY on a stream that has ended", [finished, priority(1)], Ignored()),
        Case("5.1", "WINDOW_UPDATE on a stream that has ended",
             [finished, window_update(1, 1)], Ignored()),
        Case("5.1", "RST_STREAM on a stream that has ended",
             [finished, rst_stream(1)], Ignored()),
        Case("5.1", "WINDOW_UPDATE on a stream that the client has reset",
             [RESET, window_update(1, 1)], Ignored()),
        Case("5.1", "RST_STREAM twice", [RESET, rst_stream(1)], Ignored()),
    )


def nothing_new_is_reset(test, peer):
    before = len(peer.of(hyperframe.RstStreamFrame))
    peer.round_trip()
    test.assertEqual(len(peer.of(hyperframe.RstStreamFrame)), before)
    test.assertIsNone(peer.goaway, peer.goaway)


# What was on its way when the server closed the stream.
LATE = Then("ignores it", nothing_new_is_reset)


def send_more_than_the_connection_takes(peer):
    """On a stream that the server has reset: only if it counts, can so much be sent."""
    reset_by_server(peer)
    room = [raw_peer.DEFAULT_WINDOW]
    piece = bytes(1 << 14)
    for _ in range(6 << 20 >> 14):
        def granted():
            updates = [f for f in peer.of(hyperframe.WindowUpdateFrame) if f.stream_id == 0]
            return sum(f.window_increment for f in updates)

        peer.read_until(lambda: room[0] + granted() >= len(piece), "the window was opened")
        peer.send(data(1, piece))
        room[0] -= len(piece)


class StreamsThatTheServerReset(Http2Test):
    CASES = (
        Case("5.1", "DATA on a stream that the server has reset",
             [reset_by_server, data(1, NO_FIELDS)], LATE),
        Case("5.1", "The end of a stream that the server has reset",
             [reset_by_server, data(1, NO_FIELDS, END_STREAM)], LATE),
        Case("5.1", "Trailers on a stream that the server has reset",
             [reset_by_server, headers(1, raw_peer.header_block([("x-last", "1")]),
                                       END_HEADERS | END_STREAM)], LATE),
        Case("5.1", "WINDOW_UPDATE on a stream that the server has reset",
             [reset_by_server, window_update(1, 1)], LATE),
        Case("5.1", "RST_STREAM on a stream that the server has reset",
             [reset_by_server, rst_stream(1)], LATE),
        Case("5.1", "DATA on a stream that the server has reset counts for the connection's window",
             send_more_than_the_connection_takes,
             Then("opens the connection's window again", nothing_new_is_reset)),
    )


class Identifiers(Http2Test):
    CASES = (
        Case("5.1.1", "A stream with an even identifier", whole_call(2),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.1.1", "A stream with the identifier 0", headers(0, REQUEST_BLOCK),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.1.1", "A stream with a smaller identifier than one before it",
             [open_call(5), open_call(3)], ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.1.1", "A new stream with the identifier of one that has ended",
             [finished, whole_call(1)],
             ConnectionError_(Error.PROTOCOL_ERROR, Error.STREAM_CLOSED)),
        Case("5.1.1", "Identifiers may be left out", [whole_call(101)], Serves(stream=101)),
        Case("5.1.1", "DATA on an identifier that was left out",
             [open_call(5), data(3, b"x")],
             ConnectionError_(Error.PROTOCOL_ERROR, Error.STREAM_CLOSED)),
        Case("5.1.1", "The largest identifier", whole_call((1 << 31) - 1),
             Serves(stream=(1 << 31) - 1), calls_later=False),
    )


def announced_limit(peer):
    peer.wait_for(hyperframe.SettingsFrame)
    return peer.frames[0].settings[Setting.MAX_CONCURRENT_STREAMS]


def one_stream_too_many(peer):
    peer.acknowledges_settings = False
    limit = announced_limit(peer)
    peer.send(*(open_call(1 + 2 * i) for i in range(limit + 1)))


def one_stream_too_many_once_settings_count(peer):
    limit = announced_limit(peer)
    peer.send(*(open_call(1 + 2 * i) for i in range(limit + 1)))


def as_many_as_there_may_be(peer):
    limit = announced_limit(peer)
    peer.send(*(open_call(1 + 2 * i) for i in range(limit)))
    peer.send(*(data(1 + 2 * i, NO_FIELDS, END_STREAM) for i in range(limit)))


def all_are_served(test, peer):
    for i in range(announced_limit(peer)):
        test.assertEqual(peer.finish(1 + 2 * i).grpc_status, "0")


class Concurrency(Http2Test):
    CASES = (
        Case("5.1.2", "As many streams as the server allows", as_many_as_there_may_be,
             Then("serves all calls", all_are_served)),
        Case("5.1.2", "One stream more than the server allows", one_stream_too_many,
             StreamError(Error.REFUSED_STREAM, Error.PROTOCOL_ERROR, stream=1 + 2 * 1024),
             calls_later=False),
        Case("5.1.2", "One stream more than the server allows, whose client has acknowledged it",
             one_stream_too_many_once_settings_count,
             ConnectionError_(Error.PROTOCOL_ERROR)),
    )


def names_the_last_stream(test, peer):
    peer.read_to_the_end()
    test.assertEqual(peer.goaway.last_stream_id, 3)


def closes_at_once(test, peer):
    peer.read_to_the_end()
    test.assertIsInstance(peer.frames[-1], hyperframe.GoAwayFrame)


class Errors(Http2Test):
    CASES = (
        Case("5.3.1", "A stream that depends on itself by PRIORITY", priority(1, depends_on=1),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.3.1", "A stream that depends on itself by HEADERS",
             headers(1, b"\x00\x00\x00\x01\x0f" + REQUEST_BLOCK,
                     END_HEADERS | raw_peer.HAS_PRIORITY),
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.4.1", "A GOAWAY names the last stream that was processed",
             [lambda peer: peer.call(1), lambda peer: peer.call(3), ping(b"short")],
             Ends("connection error with last stream 3", names_the_last_stream)),
        Case("5.4.1", "A GOAWAY for an error is the last frame",
             [open_call(1, EVENTS), frame(Kind.PING, 0, b"short"), whole_call(3)],
             Ends("connection error, and says no more", closes_at_once)),
        Case("5.4.2", "RST_STREAM is not answered with RST_STREAM",
             [open_call(1), rst_stream(1, Error.PROTOCOL_ERROR)], Ignored()),
        Case("5.4.3", "The connection is cut in the middle of a call", open_call(1),
             Ends("serves others", lambda test, peer: peer.socket.close())),
        Case("5.4.3", "The connection is cut in the middle of a frame", data(1, b"x")[:-1],
             Ends("serves others", lambda test, peer: peer.socket.close())),
    )


if __name__ == "__main__":
    unittest.main()
