"""RFC 7541: header compression, with header blocks that are spelt out."""

import unittest

from hyperframe import frame as hyperframe

from cases import Case, ConnectionError_, Http2Test, Serves, StreamError, Then
from raw_peer import (
    END_HEADERS, END_STREAM, NO_FIELDS, REQUEST, REQUEST_BLOCK, Error, Setting, continuation, data,
    header_block, headers, settings,
)

COMPRESSION_ERROR = ConnectionError_(Error.COMPRESSION_ERROR)
DATA_THAT_ENDS = data(1, NO_FIELDS, END_STREAM)

# Entries of the static table (appendix A).
AUTHORITY, METHOD_POST, PATH, SCHEME_HTTP, CONTENT_TYPE, LAST_STATIC = 1, 3, 4, 6, 31, 61
FIRST_DYNAMIC = LAST_STATIC + 1


def integer(value, prefix_bits, first_byte=0):
    """Section 5.1."""
    limit = (1 << prefix_bits) - 1
    if value < limit:
        return bytes([first_byte | value])
    encoded = [first_byte | limit]
    value -= limit
    while value >= 0x80:
        encoded.append(value & 0x7F | 0x80)
        value >>= 7
    return bytes([*encoded, value])


def text(value):
    """Section 5.2, without a Huffman code."""
    return integer(len(value), 7) + value


def huffman(code):
    """The same, of what is said to be a Huffman code."""
    return integer(len(code), 7, 0x80) + code


def indexed(index):
    return integer(index, 7, 0x80)


def indexing(name, value):
    """A literal that goes into the table; `name` is an index or bytes."""
    return literal(name, value, 6, 0x40)


def not_indexed(name, value):
    return literal(name, value, 4, 0x00)


def never_indexed(name, value):
    return literal(name, value, 4, 0x10)


def literal(name, value, prefix_bits, first_byte):
    if isinstance(name, int):
        return integer(name, prefix_bits, first_byte) + value
    return bytes([first_byte]) + text(name) + value


def table_size(size):
    return integer(size, 5, 0x20)


def request(block, stream_id=1):
    return headers(stream_id, block)


def call(block, stream_id=1):
    return request(block, stream_id) + data(stream_id, NO_FIELDS, END_STREAM)


def two_calls(first, second):
    return [call(first), call(second, 3)]


REST = (indexed(METHOD_POST) + indexed(SCHEME_HTTP) + not_indexed(AUTHORITY, text(b"localhost"))
        + not_indexed(PATH, text(b"/rpc.Profile/Name")))
GRPC = text(b"application/grpc")
# RFC 7541, appendix B: "application/grpc" as its Huffman code.
HUFFMAN_GRPC = huffman(bytes.fromhex("1d75d0620d263d4c4d6564"))


def kept(name=b"x-kept", value=b"yes"):
    return indexing(name, text(value))


def too_many_entries():
    """Each of 33 + 4 bytes, as section 4.1 counts: 4,096 bytes hold 110."""
    return b"".join(kept(b"x", b"%04d" % i) for i in range(200))


class Representations(Http2Test):
    CASES = (
        Case("6.1", "Indexed fields of the static table", call(REST + not_indexed(
            CONTENT_TYPE, GRPC)), Serves()),
        Case("6.2.1", "A literal that goes into the table",
             call(REST + indexing(CONTENT_TYPE, GRPC)), Serves()),
        Case("6.2.1", "A field of the table of an earlier block",
             two_calls(REST + indexing(CONTENT_TYPE, GRPC), REST + indexed(FIRST_DYNAMIC)),
             Serves(stream=3)),
        Case("6.2.1", "A field of the table of the same block",
             call(REST + not_indexed(CONTENT_TYPE, GRPC) + kept() + indexed(FIRST_DYNAMIC)),
             Serves()),
        Case("6.2.1", "A literal with a new name", call(REST + indexing(b"content-type", GRPC)),
             Serves()),
        Case("6.2.2", "A literal that does not go into the table",
             [call(REST + not_indexed(b"content-type", GRPC)), request(
                 REST + indexed(FIRST_DYNAMIC), 3)],
             COMPRESSION_ERROR),
        Case("6.2.3", "A literal that never goes into the table",
             call(REST + never_indexed(b"content-type", GRPC)), Serves()),
        Case("6.2.3", "A literal that never goes into the table is not there later",
             [call(REST + never_indexed(b"content-type", GRPC)), request(
                 REST + indexed(FIRST_DYNAMIC), 3)],
             COMPRESSION_ERROR),
        Case("6.2", "A literal whose name is in the dynamic table",
             two_calls(REST + indexing(b"content-type", GRPC),
                       REST + not_indexed(FIRST_DYNAMIC, GRPC)),
             Serves(stream=3)),
        Case("5.2", "A value in Huffman's code",
             call(REST + not_indexed(CONTENT_TYPE, HUFFMAN_GRPC)), Serves()),
        Case("5.2", "An empty name is no name of a field",
             call(REST + not_indexed(CONTENT_TYPE, GRPC) + not_indexed(b"", text(b"x"))),
             StreamError(Error.PROTOCOL_ERROR)),
        Case("5.2", "An empty value",
             call(REST + not_indexed(CONTENT_TYPE, GRPC) + not_indexed(b"x-empty", text(b""))),
             Serves()),
        Case("5.1", "An integer in more bytes than it needs",
             call(REST + b"\x0f\x90\x80\x80\x00" + GRPC), Serves()),
        Case("3.2", "A header block is decoded across frames",
             [headers(1, (REST + not_indexed(CONTENT_TYPE, HUFFMAN_GRPC))[:-3], 0),
              continuation(1, HUFFMAN_GRPC[-3:-1]), continuation(1, HUFFMAN_GRPC[-1:], END_HEADERS),
              DATA_THAT_ENDS],
             Serves()),
        Case("2.3.2", "Every connection has a table of its own",
             request(REST + indexed(FIRST_DYNAMIC)), COMPRESSION_ERROR),
        Case("3.1", "Fields keep their order",
             call(indexed(METHOD_POST) + not_indexed(CONTENT_TYPE, GRPC) + indexed(SCHEME_HTTP)),
             StreamError(Error.PROTOCOL_ERROR)),
    )


class Indexes(Http2Test):
    CASES = (
        Case("6.1", "An indexed field with the index 0", request(REST + b"\x80"),
             COMPRESSION_ERROR),
        Case("2.3.3", "An indexed field beyond both tables", request(REST + indexed(FIRST_DYNAMIC)),
             COMPRESSION_ERROR),
        Case("2.3.3", "An indexed field far beyond both tables", request(REST + indexed(100_000)),
             COMPRESSION_ERROR),
        Case("2.3.3", "An indexed field just beyond the dynamic table",
             request(REST + kept() + indexed(FIRST_DYNAMIC + 1)), COMPRESSION_ERROR),
        Case("2.3.3", "A literal whose name is beyond both tables, for the table",
             request(REST + indexing(FIRST_DYNAMIC, GRPC)), COMPRESSION_ERROR),
        Case("2.3.3", "A literal whose name is beyond both tables",
             request(REST + not_indexed(FIRST_DYNAMIC, GRPC)), COMPRESSION_ERROR),
        Case("2.3.3", "A literal whose name is beyond both tables, never for the table",
             request(REST + never_indexed(FIRST_DYNAMIC, GRPC)), COMPRESSION_ERROR),
    )


class Integers(Http2Test):
    CASES = (
        Case("5.1", "An index that overflows", request(REST + b"\xff" + b"\xff" * 10 + b"\x01"),
             COMPRESSION_ERROR),
        Case("5.1", "An index that overflows 32 bits by a little",
             request(REST + b"\xff\x80\xff\xff\xff\x7f"), COMPRESSION_ERROR),
        Case("5.1", "A length of a name that overflows",
             request(REST + b"\x00\x7f" + b"\xff" * 10 + b"\x01"), COMPRESSION_ERROR),
        Case("5.1", "A length of a value that overflows",
             request(REST + b"\x00\x01x\x7f" + b"\xff" * 10 + b"\x01"), COMPRESSION_ERROR),
        Case("5.1", "An integer of zeros without end", request(REST + b"\xff" + b"\x80" * 100),
             COMPRESSION_ERROR),
        Case("5.1", "An integer that the block ends in", request(REST + b"\xff\x80"),
             COMPRESSION_ERROR),
        Case("6.3", "A size of the table that overflows",
             request(b"\x3f" + b"\xff" * 10 + b"\x01" + REST), COMPRESSION_ERROR),
    )


class Strings(Http2Test):
    CASES = (
        Case("5.2", "A name that is longer than the block", request(REST + b"\x00\x7f\x00abc"),
             COMPRESSION_ERROR),
        Case("5.2", "A value that is longer than the block",
             request(REST + b"\x00\x01x\x05abcd"), COMPRESSION_ERROR),
        Case("5.2", "A literal without its value", request(REST + b"\x00\x01x"),
             COMPRESSION_ERROR),
        Case("5.2", "A Huffman code whose padding is longer than 7 bits",
             request(REST + not_indexed(CONTENT_TYPE, huffman(
                 bytes.fromhex("1d75d0620d263d4c4d6564ff")))),
             COMPRESSION_ERROR),
        Case("5.2", "A Huffman code whose padding is zeros",
             # "0" has five bits, all of them 0.
             request(REST + not_indexed(b"x", huffman(b"\x00"))), COMPRESSION_ERROR),
        Case("5.2", "A Huffman code with the end of string in it",
             request(REST + not_indexed(b"x", huffman(b"\x07\xff\xff\xff\xff"))),
             COMPRESSION_ERROR),
        Case("5.2", "A Huffman code that is nothing but the end of string",
             request(REST + not_indexed(b"x", huffman(b"\xff\xff\xff\xff"))), COMPRESSION_ERROR),
        Case("5.2", "A Huffman code that is cut short",
             request(REST + not_indexed(b"x", huffman(b"\xff\xff"))), COMPRESSION_ERROR),
        Case("5.2", "A name in a Huffman code whose padding is zeros",
             request(REST + b"\x00" + huffman(b"\x00") + text(b"1")), COMPRESSION_ERROR),
    )


def server_says_its_new_table_size(size):
    """Section 4.2: in its next header block; and what it does then fits into that table."""
    def check(test, peer):
        peer.send(settings((Setting.HEADER_TABLE_SIZE, size)))
        peer.round_trip()
        peer.decoder.max_allowed_table_size = size
        test.assertEqual(peer.call(3).grpc_status, "0")
        first = [f for f in peer.of(hyperframe.HeadersFrame) if f.stream_id == 3][0]
        test.assertEqual(first.data[0] & 0xE0, 0x20)
        test.assertLessEqual(peer.decoder.header_table_size, size)
        for stream_id in (5, 7):
            test.assertEqual(peer.call(stream_id).grpc_status, "0")

    return Then("says so in its next header block", check)


def server_says_the_smallest_size_too(test, peer):
    peer.send(settings((Setting.HEADER_TABLE_SIZE, 0)), settings((Setting.HEADER_TABLE_SIZE, 1000)))
    peer.round_trip()
    test.assertEqual(peer.call(3).grpc_status, "0")
    first = [f for f in peer.of(hyperframe.HeadersFrame) if f.stream_id == 3][0]
    test.assertEqual(first.data[:1], b"\x20")
    test.assertEqual(first.data[1] & 0xE0, 0x20)


class TableSizes(Http2Test):
    CASES = (
        Case("6.3", "A size of the table at the start of a block",
             call(table_size(1000) + REQUEST_BLOCK), Serves()),
        Case("6.3", "The largest size of the table", call(table_size(4096) + REQUEST_BLOCK),
             Serves()),
        Case("6.3", "A size of the table of more than the server allows",
             request(table_size(4097) + REQUEST_BLOCK), COMPRESSION_ERROR),
        Case("4.2", "Two sizes of the table at the start of a block",
             call(table_size(0) + table_size(4096) + REQUEST_BLOCK), Serves()),
        Case("4.2", "A size of the table in the middle of a block",
             request(REST + table_size(1000) + not_indexed(CONTENT_TYPE, GRPC)),
             COMPRESSION_ERROR),
        Case("4.2", "A size of the table at the end of a block",
             request(REQUEST_BLOCK + table_size(1000)), COMPRESSION_ERROR),
        Case("4.3", "A table of no bytes has forgotten its fields",
             [call(REQUEST_BLOCK + kept()),
              request(table_size(0) + REQUEST_BLOCK + indexed(FIRST_DYNAMIC), 3)],
             COMPRESSION_ERROR),
        Case("4.3", "A smaller table forgets the oldest fields",
             [call(REQUEST_BLOCK + kept(b"a", b"1") + kept(b"b", b"2")),
              call(table_size(40) + REQUEST_BLOCK + indexed(FIRST_DYNAMIC), 3),
              request(REQUEST_BLOCK + indexed(FIRST_DYNAMIC + 1), 5)],
             COMPRESSION_ERROR),
        Case("4.3", "A smaller table keeps the newest fields",
             [call(REQUEST_BLOCK + kept(b"a", b"1") + kept(b"b", b"2")),
              call(table_size(40) + REQUEST_BLOCK + indexed(FIRST_DYNAMIC), 3)],
             Serves(stream=3)),
        Case("4.4", "A field that is larger than the table empties it",
             call(table_size(40) + REQUEST_BLOCK + kept(b"a", b"1") + kept(b"b", b"x" * 100)),
             Serves()),
        Case("4.4", "The table is empty after a field that is larger than it",
             [call(table_size(40) + REQUEST_BLOCK + kept(b"a", b"1") + kept(b"b", b"x" * 100)),
              request(REQUEST_BLOCK + indexed(FIRST_DYNAMIC), 3)],
             COMPRESSION_ERROR),
        Case("4.4", "New fields take the place of the oldest",
             [call(REQUEST_BLOCK + too_many_entries()),
              call(REQUEST_BLOCK + indexed(FIRST_DYNAMIC + 109), 3)],
             Serves(stream=3)),
        Case("4.4", "The oldest fields are gone",
             [call(REQUEST_BLOCK + too_many_entries()),
              request(REQUEST_BLOCK + indexed(FIRST_DYNAMIC + 110), 3)],
             COMPRESSION_ERROR),
        Case("4.4", "A name of a field that its own entry pushes out",
             call(table_size(70) + REQUEST_BLOCK + kept(b"x-name", b"1" * 30)
                  + indexing(FIRST_DYNAMIC, text(b"2" * 30))),
             Serves()),
        Case("4.2", "The server is given a table of no bytes", lambda peer: peer.call(1),
             server_says_its_new_table_size(0)),
        Case("4.2", "The server is given a small table", lambda peer: peer.call(1),
             server_says_its_new_table_size(100)),
        Case("4.2", "The server is given a table of no bytes, and then of more",
             lambda peer: peer.call(1),
             Then("says both in its next header block", server_says_the_smallest_size_too)),
        Case("9113/6.5.2", "The server is given a large table",
             [settings((Setting.HEADER_TABLE_SIZE, 1 << 20)), call(REQUEST_BLOCK)], Serves()),
    )


def call_with_a_header_list_of(more):
    """So much more than the server has said that it takes, counted as section 6.5.2 does."""
    def send(peer):
        peer.wait_for(hyperframe.SettingsFrame)
        size = peer.frames[0].settings[Setting.MAX_HEADER_LIST_SIZE] + more
        size -= sum(len(name) + len(value) + 32 for name, value in REQUEST) + len("x-long") + 32
        peer.send(call(header_block((*REQUEST, ("x-long", "x" * size)))))

    return send


class Limits(Http2Test):
    """RFC 9113, sections 6.5.2 and 10.5.1: what a server may refuse."""

    CASES = (
        Case("9113/10.5.1", "A header list that is as large as the server takes",
             call_with_a_header_list_of(0), Serves()),
        Case("9113/10.5.1", "A header list that is a byte larger than the server takes",
             # RESOURCE_EXHAUSTED.
             call_with_a_header_list_of(1), Serves(grpc_status=8)),
        Case("9113/10.5.1", "A header list that is very much larger than its block",
             [headers(1, REQUEST_BLOCK + kept(b"x", b"y" * 4000) + indexed(FIRST_DYNAMIC) * 100)],
             StreamError(Error.ENHANCE_YOUR_CALM)),
        Case("9113/10.5.1", "The table is right after a header list that is too large",
             [headers(1, REQUEST_BLOCK + kept(b"x", b"y" * 3000) + indexed(FIRST_DYNAMIC) * 100
                         + kept(b"a", b"1")),
              call(REQUEST_BLOCK + indexed(FIRST_DYNAMIC) + indexed(FIRST_DYNAMIC + 1), 3)],
             Serves(stream=3)),
    )


if __name__ == "__main__":
    unittest.main()
