"""RFC 9113, section 4: frames, their sizes, and header blocks as wholes; and section 5.5, what
extensions may do."""

import unittest

from hyperframe import frame as hyperframe

import raw_peer
from cases import Case, ConnectionError_, Http2Test, Ignored, Serves, Then
from raw_peer import (
    END_HEADERS, END_STREAM, MAX_FRAME_BYTES, NO_FIELDS, REQUEST, REQUEST_BLOCK, Error, Kind,
    Setting, continuation, data, frame, header_block, headers, open_call, ping, whole_call,
)

UNKNOWN_KIND = 0x16
RESERVED_BIT = 1 << 31
CUT = len(REQUEST_BLOCK) // 2
LARGE_BLOCK = header_block((*REQUEST, ("x-long", "x" * MAX_FRAME_BYTES)))


def ask_for_a_large_event(peer):
    """An event of 100 kB on stream 1, to a client with room for it."""
    peer.send(raw_peer.settings((Setting.INITIAL_WINDOW_SIZE, 1 << 20)),
              raw_peer.window_update(0, 1 << 20),
              open_call(1, raw_peer.EVENTS),
              # EventSubscription { action: SUBSCRIBE }
              data(1, raw_peer.grpc_message(b"\x10\x01")))
    peer.round_trip()
    # SetAcceptLanguageRequest { accept_language }
    languages = b"\x12\xa0\x8d\x06" + b"x" * 100_000
    message = raw_peer.grpc_message(languages)
    peer.send(open_call(3, "/rpc.Profile/SetAcceptLanguage"),
              *(data(3, message[i:i + MAX_FRAME_BYTES])
                for i in range(0, len(message), MAX_FRAME_BYTES)),
              data(3, flags=END_STREAM))


def event_came_in_small_frames(test, peer):
    answer = peer.answer(1)
    peer.read_until(lambda: len(answer.data) > 100_000, "the event came")
    sizes = [len(f.data) for f in peer.of(hyperframe.DataFrame)]
    test.assertLessEqual(max(sizes), MAX_FRAME_BYTES)


class FrameFormat(Http2Test):
    CASES = (
        Case("4.1", "A frame of an unknown type", frame(UNKNOWN_KIND, 0, b"what?"), Ignored()),
        Case("4.1", "A frame of an unknown type on a stream",
             [open_call(1), frame(UNKNOWN_KIND, 1, b"what?", flags=0xFF),
              data(1, NO_FIELDS, END_STREAM)],
             Serves()),
        Case("4.1", "Flags that a PING does not have", ping(flags=0xFE), Ignored()),
        Case("4.1", "Flags that a DATA frame does not have",
             [open_call(1), data(1, NO_FIELDS, END_STREAM | 0xF6)], Serves()),
        Case("4.1", "Flags that a SETTINGS frame does not have",
             frame(Kind.SETTINGS, 0, flags=0xFE), Ignored()),
        Case("4.1", "The reserved bit of a PING's stream identifier",
             frame(Kind.PING, RESERVED_BIT, b"are you?"), Ignored()),
        Case("4.1", "The reserved bit of a stream identifier",
             [headers(1 | RESERVED_BIT, REQUEST_BLOCK),
              data(1 | RESERVED_BIT, NO_FIELDS, END_STREAM)],
             Serves()),
    )


class FrameSize(Http2Test):
    CASES = (
        Case("4.2", "A DATA frame of the largest size",
             [open_call(1), data(1, raw_peer.grpc_message(b"\x0a\xf8\x7f" + b"x" * 16376)),
              data(1, flags=END_STREAM)],
             Serves()),
        Case("4.2", "A HEADERS frame of the largest size",
             [headers(1, LARGE_BLOCK[:MAX_FRAME_BYTES], 0),
              continuation(1, LARGE_BLOCK[MAX_FRAME_BYTES:], END_HEADERS),
              data(1, NO_FIELDS, END_STREAM)],
             # RESOURCE_EXHAUSTED: the frame is fine, and what it says is too much.
             Serves(grpc_status=8)),
        Case("4.2", "A DATA frame that is too large",
             [open_call(1), data(1, bytes(MAX_FRAME_BYTES + 1))],
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("4.2", "A HEADERS frame that is too large",
             headers(1, LARGE_BLOCK),
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("4.2", "A CONTINUATION frame that is too large",
             [headers(1, b"", 0), continuation(1, LARGE_BLOCK, END_HEADERS),
              data(1, NO_FIELDS, END_STREAM)],
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("4.2", "A SETTINGS frame that is too large",
             raw_peer.settings(*[(Setting.ENABLE_PUSH, 0)] * (MAX_FRAME_BYTES // 6 + 1)),
             # It is also a flood of settings, and that is seen first.
             ConnectionError_(Error.ENHANCE_YOUR_CALM)),
        Case("4.2", "A GOAWAY frame that is too large",
             raw_peer.goaway(text=b"x" * (MAX_FRAME_BYTES - 7)),
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("4.2", "A PING frame that is too large",
             frame(Kind.PING, 0, bytes(MAX_FRAME_BYTES + 1)),
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("4.2", "A frame of an unknown type that is too large",
             frame(UNKNOWN_KIND, 0, bytes(MAX_FRAME_BYTES + 1)),
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("4.2", "A frame header that names the largest length of all",
             frame(Kind.DATA, 1, length=(1 << 24) - 1),
             ConnectionError_(Error.FRAME_SIZE_ERROR)),
        Case("4.2", "The server's frames are no larger than the client takes",
             ask_for_a_large_event,
             Then("sends a large message in frames of 16,384 bytes", event_came_in_small_frames)),
    )


class HeaderBlocks(Http2Test):
    CASES = (
        Case("4.3", "A header block that does not decode", headers(1, b"\xff\xff\xff"),
             ConnectionError_(Error.COMPRESSION_ERROR)),
        Case("4.3", "A header block that is cut short", headers(1, REQUEST_BLOCK[:-1]),
             ConnectionError_(Error.COMPRESSION_ERROR)),
        Case("4.3", "A PRIORITY frame in the middle of a header block",
             [headers(1, REQUEST_BLOCK[:CUT], 0), raw_peer.priority(1),
              continuation(1, REQUEST_BLOCK[CUT:], END_HEADERS)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("4.3", "A PING in the middle of a header block",
             [headers(1, REQUEST_BLOCK[:CUT], 0), ping()],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("4.3", "A DATA frame of another stream in the middle of a header block",
             [open_call(1), headers(3, REQUEST_BLOCK[:CUT], 0), data(1, NO_FIELDS, END_STREAM)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("4.3", "HEADERS of another stream in the middle of a header block",
             [headers(1, REQUEST_BLOCK[:CUT], 0), headers(3, REQUEST_BLOCK)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("4.3", "HEADERS of the same stream in the middle of a header block",
             [headers(1, REQUEST_BLOCK[:CUT], 0), headers(1, REQUEST_BLOCK[CUT:])],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("4.3", "The server decodes the header block of a stream that it has reset",
             [
                 # A malformed request that puts a field into the table...
                 headers(1, header_block(REQUEST) + header_block([("te", "gzip")])
                         + b"\x40\x06x-kept\x03yes"),
                 # ... which the next request names, as index 62, and then is a call.
                 headers(3, REQUEST_BLOCK + b"\xbe"), data(3, NO_FIELDS, END_STREAM)],
             Serves(stream=3)),
        Case("4.3", "The server decodes the trailers of a stream that it has closed",
             [open_call(1, "/rpc.Profile/Nothing"),
              lambda peer: peer.finish(1),
              headers(1, b"\x40\x06x-kept\x03yes", END_HEADERS | END_STREAM),
              headers(3, REQUEST_BLOCK + b"\xbe"), data(3, NO_FIELDS, END_STREAM)],
             Serves(stream=3)),
    )


class Extensions(Http2Test):
    CASES = (
        Case("5.5", "A frame of an unknown type in the middle of a header block",
             [headers(1, REQUEST_BLOCK[:CUT], 0), frame(UNKNOWN_KIND, 1, b"what?"),
              continuation(1, REQUEST_BLOCK[CUT:], END_HEADERS)],
             ConnectionError_(Error.PROTOCOL_ERROR)),
        Case("5.5", "A frame of an unknown type on an idle stream",
             [frame(UNKNOWN_KIND, 5, b"what?"), whole_call(1)], Serves()),
        Case("5.5", "Every frame type that this RFC does not define",
             [frame(kind, 0, b"what?") for kind in (0xA, 0xC, 0x10, 0xF0, 0xFF)], Ignored()),
        Case("5.5", "Settings that nobody knows",
             raw_peer.settings((0x7777, 1), (0xFFFF, raw_peer.MAX_WINDOW)), Ignored()),
    )


if __name__ == "__main__":
    unittest.main()
