"""RFC 9113, section 8: requests, as fields and as messages. What gRPC adds is in
tests/grpc_wire_test.cc."""

import unittest

import hpack
from hyperframe import frame as hyperframe

import raw_peer
from cases import Case, Http2Test, HttpStatus, Serves, StreamError, Then
from raw_peer import (
    END_HEADERS, END_STREAM, EVENTS, NO_FIELDS, REQUEST, Error, data, headers, open_call,
    rst_stream,
)

MALFORMED = StreamError(Error.PROTOCOL_ERROR)
DATA_THAT_ENDS = data(1, NO_FIELDS, END_STREAM)


def spelt(fields):
    """A header block of literals, since an encoder may refuse what is wrong, or correct it."""
    block = bytearray()
    for name, value in fields:
        block.append(0)
        for text in (name.encode("latin-1"), value.encode("latin-1")):
            assert len(text) < 127
            block.append(len(text))
            block += text
    return bytes(block)


def request(fields):
    return headers(1, spelt(fields)) + DATA_THAT_ENDS


def request_with(*more):
    """A proper call with more fields."""
    return request((*REQUEST, *more))


def request_but(**changed):
    """A proper call with pseudo-header fields that have other values, or none."""
    fields = []
    for name, value in REQUEST:
        value = changed.get(name[1:], value) if name.startswith(":") else value
        if value is not None:
            fields.append((name, value))
    return request(fields)


def request_before(*fields):
    """A proper call, with fields before all others."""
    return request((*fields, *REQUEST))


def trailers(*fields):
    return headers(1, spelt(fields), END_HEADERS | END_STREAM)


class Messages(Http2Test):
    CASES = (
        Case("8.1", "A call with trailers",
             [open_call(1), data(1, NO_FIELDS), trailers(("x-last", "1"))], Serves()),
        Case("8.1", "A call with trailers that have no fields",
             [open_call(1), data(1, NO_FIELDS), trailers()], Serves()),
        Case("8.1", "HEADERS in the middle of a call that do not end the stream",
             [open_call(1), data(1, NO_FIELDS), headers(1, spelt([("x-last", "1")]))], MALFORMED),
        Case("8.1", "A second request in the middle of a call",
             [open_call(1), headers(1, spelt(REQUEST), END_HEADERS | END_STREAM)], MALFORMED),
        Case("8.1", "Trailers with a pseudo-header field",
             [open_call(1), data(1, NO_FIELDS), trailers((":method", "POST"))], MALFORMED),
        Case("8.1", "Trailers with a response's pseudo-header field",
             [open_call(1), data(1, NO_FIELDS), trailers((":status", "200"))], MALFORMED),
        Case("8.1", "Trailers with a name in upper case",
             [open_call(1), data(1, NO_FIELDS), trailers(("X-Last", "1"))], MALFORMED),
        Case("8.1", "A message that is cut by the end of the stream",
             [open_call(1), data(1, NO_FIELDS[:-1], END_STREAM)],
             Then("answers with a gRPC status", lambda test, peer: test.assertNotIn(
                 peer.finish(1).grpc_status, (None, "0")))),
        Case("8.1.1", "A malformed request does not end the connection's other calls",
             [open_call(1), headers(3, spelt((("X", "1"), *REQUEST))), DATA_THAT_ENDS], Serves()),
        Case("8.1.1", "A content-length that is right",
             request_with(("content-length", str(len(NO_FIELDS)))), Serves()),
        Case("8.1.1", "A content-length that is right over many frames",
             [headers(1, spelt((*REQUEST, ("content-length", "5")))), data(1, NO_FIELDS[:2]),
              data(1, b"\x03" + NO_FIELDS[2:] + bytes(3), END_STREAM | raw_peer.PADDED)],
             Serves()),
        Case("8.1.1", "A content-length that is too large",
             request_with(("content-length", "6")), MALFORMED),
        Case("8.1.1", "A content-length that is too small",
             request_with(("content-length", "4")), MALFORMED),
        Case("8.1.1", "A content-length that is too small over many frames",
             [headers(1, spelt((*REQUEST, ("content-length", "5")))), data(1, NO_FIELDS),
              data(1, NO_FIELDS, END_STREAM)],
             MALFORMED),
        Case("8.1.1", "A content-length of a request without content",
             headers(1, spelt((*REQUEST, ("content-length", "1"))), END_HEADERS | END_STREAM),
             MALFORMED),
        Case("8.1.1", "A content-length, and trailers before so much came",
             [headers(1, spelt((*REQUEST, ("content-length", "6")))), data(1, NO_FIELDS),
              trailers(("x-last", "1"))],
             MALFORMED),
        Case("8.1.1", "A content-length that is no number",
             request_with(("content-length", "five")), MALFORMED),
        Case("8.1.1", "A content-length with a sign",
             request_with(("content-length", "+5")), MALFORMED),
        Case("8.1.1", "A content-length below zero",
             request_with(("content-length", "-5")), MALFORMED),
        Case("8.1.1", "A content-length of more than any number",
             request_with(("content-length", "9" * 30)), MALFORMED),
        Case("8.1.1", "An empty content-length", request_with(("content-length", "")), MALFORMED),
        Case("8.1.1", "Two values of content-length",
             request_with(("content-length", "5"), ("content-length", "6")), MALFORMED),
        Case("8.1.1", "A content-length twice",
             request_with(("content-length", "5"), ("content-length", "5")), MALFORMED),
        Case("8.1.1", "A list of content-lengths", request_with(("content-length", "5, 5")),
             MALFORMED),
    )


def name_case(what, name):
    return Case("8.2.1", f"A name with {what}", request_with((name, "1")), MALFORMED)


def value_case(what, value):
    return Case("8.2.1", f"A value with {what}", request_with(("x-value", value)), MALFORMED)


class Fields(Http2Test):
    CASES = (
        Case("8.2", "A name in upper case", request_with(("X-Upper", "1")), MALFORMED),
        Case("8.2", "A name with one letter in upper case", request_with(("x-uppeR", "1")),
             MALFORMED),
        Case("8.2", "A pseudo-header field in upper case", request_before((":Path", "/")),
             MALFORMED),
        name_case("a space", "x name"),
        name_case("a space at its end", "x-name "),
        name_case("a tab", "x\tname"),
        name_case("a NUL", "x\0name"),
        name_case("a line feed", "x\nname"),
        name_case("a carriage return", "x\rname"),
        name_case("a DEL", "x\x7fname"),
        name_case("a byte above 0x7f", "x\xe4name"),
        name_case("a colon in it", "x:name"),
        name_case("a parenthesis", "x(name)"),
        name_case("no letters", ""),
        value_case("a NUL", "a\0b"),
        value_case("a line feed", "a\nb"),
        value_case("a carriage return", "a\rb"),
        value_case("a header of its own in it", "a\r\nx-smuggled: b"),
        value_case("a space before it", " a"),
        value_case("a space after it", "a "),
        value_case("a tab before it", "\ta"),
        value_case("a tab after it", "a\t"),
        Case("8.2.1", "A value with bytes above 0x7f", request_with(("x-value", "\xe4\xff")),
             Serves()),
        Case("8.2.1", "A value with spaces in it", request_with(("x-value", "a  b\tc")), Serves()),
        Case("8.2.1", "A name with every other character of a token",
             request_with(("!#$%&'*+-.^_`|~09az", "1")), Serves()),
        Case("8.2.2", "A connection field", request_with(("connection", "close")), MALFORMED),
        Case("8.2.2", "A connection field that names another",
             request_with(("connection", "x-name"), ("x-name", "1")), MALFORMED),
        Case("8.2.2", "A keep-alive field", request_with(("keep-alive", "timeout=5")), MALFORMED),
        Case("8.2.2", "A proxy-connection field", request_with(("proxy-connection", "close")),
             MALFORMED),
        Case("8.2.2", "A transfer-encoding field", request_with(("transfer-encoding", "chunked")),
             MALFORMED),
        Case("8.2.2", "An upgrade field", request_with(("upgrade", "h2c")), MALFORMED),
        Case("8.2.2", "A te field of trailers", request_with(("te", "trailers")), Serves()),
        Case("8.2.2", "A te field of anything else", request_with(("te", "gzip")), MALFORMED),
        Case("8.2.2", "A te field of trailers and more", request_with(("te", "trailers, gzip")),
             MALFORMED),
        Case("8.2.2", "A connection field in trailers",
             [open_call(1), data(1, NO_FIELDS), trailers(("connection", "close"))], MALFORMED),
        Case("8.2.3", "Cookies in pieces",
             request_with(("cookie", "a=1"), ("cookie", "b=2"), ("cookie", "c=3")), Serves()),
    )


class PseudoHeaderFields(Http2Test):
    CASES = (
        Case("8.3", "A pseudo-header field that nobody knows", request_before((":test", "1")),
             MALFORMED),
        Case("8.3", "A pseudo-header field of a response", request_before((":status", "200")),
             MALFORMED),
        Case("8.3", "A pseudo-header field without a name", request_before((":", "1")), MALFORMED),
        Case("8.3", "A pseudo-header field behind another field",
             request((REQUEST[0], ("x-name", "1"), *REQUEST[1:])), MALFORMED),
        Case("8.3", "A pseudo-header field at the end", request((*REQUEST[1:], REQUEST[0])),
             MALFORMED),
        *(Case("8.3.1", f"A request without :{name}", request_but(**{name: None}), MALFORMED)
          for name in ("method", "scheme", "path")),
        *(Case("8.3.1", f"A request with two of :{name[1:]}", request_before((name, value)),
               MALFORMED)
          for name, value in REQUEST[:4]),
        Case("8.3.1", "A request with two values of a pseudo-header field",
             request_before((":path", "/other")), MALFORMED),
        Case("8.3.1", "An empty :path", request_but(path=""), MALFORMED),
        Case("8.3.1", "A :path that does not begin with a slash",
             request_but(path="rpc.Profile/Name"), MALFORMED),
        Case("8.3.1", "A :path of * that is no request for options", request_but(path="*"),
             MALFORMED),
        Case("8.3.1", "A :path of a whole address",
             request_but(path="http://localhost/rpc.Profile/Name"), MALFORMED),
        Case("8.3.1", "A :path with a space", request_but(path="/rpc.Profile/Name x"), MALFORMED),
        Case("8.3.1", "A :path with a line feed", request_but(path="/rpc.Profile/Name\n"),
             MALFORMED),
        Case("8.3.1", "An empty :method", request_but(method=""), MALFORMED),
        Case("8.3.1", "A :method with a space", request_but(method="PO ST"), MALFORMED),
        Case("8.3.1", "An empty :scheme", request_but(scheme=""), MALFORMED),
        Case("8.3.1", "A :scheme that is no scheme", request_but(scheme="ht tp"), MALFORMED),
        Case("8.3.1", "A :scheme of https, as behind a proxy", request_but(scheme="https"),
             Serves()),
        Case("8.3.1", "An :authority with a NUL", request_but(authority="local\0host"), MALFORMED),
        Case("8.3.1", "An :authority with a space", request_but(authority="local host"),
             MALFORMED),
        Case("8.3.1", "A host field instead of :authority",
             request([field for field in REQUEST if field[0] != ":authority"]
                     + [("host", "localhost")]),
             Serves()),
        Case("8.3.1", "Neither :authority nor host", request_but(authority=None), MALFORMED),
        Case("8.3.1", "A host field of the same value", request_with(("host", "localhost")),
             Serves()),
        Case("8.3.1", "A host field of another value", request_with(("host", "example.org")),
             Serves(),
             deviation="a server SHOULD take such a request for malformed; this one has no hosts to"
                       " tell apart, and looks at neither field"),
        Case("8.3.1", "Two host fields",
             request_with(("host", "localhost"), ("host", "localhost")), MALFORMED),
        Case("8.3.1", "A request for options of the whole server",
             request_but(method="OPTIONS", path="*"), HttpStatus("405")),
        Case("8.3.1", "A request that is no call", request_but(method="GET"), HttpStatus("405")),
        Case("8.3.1", "A method that nobody knows", request_but(method="BREW"), HttpStatus("405")),
    )


def connect(*fields):
    """A request to be a tunnel, which this server never is."""
    return headers(1, spelt(((":method", "CONNECT"), *fields)))


class Connect(Http2Test):
    CASES = (
        Case("8.5", "CONNECT as it should be", connect((":authority", "localhost:80")),
             HttpStatus("405")),
        Case("8.5", "CONNECT with a :scheme",
             connect((":authority", "localhost:80"), (":scheme", "http")), MALFORMED),
        Case("8.5", "CONNECT with a :path",
             connect((":authority", "localhost:80"), (":path", "/")), MALFORMED),
        Case("8.5", "CONNECT with a :scheme and a :path",
             connect((":authority", "localhost:80"), (":scheme", "http"), (":path", "/")),
             MALFORMED),
        Case("8.5", "CONNECT without :authority", connect(), MALFORMED),
        Case("8.5", "CONNECT with a :protocol, which the server does not offer",
             connect((":authority", "localhost:80"), (":scheme", "http"), (":path", "/"),
                     (":protocol", "websocket")),
             MALFORMED),
    )


def answer_is_well_formed(test, peer):
    """Read with a decoder of its own, since the peer's own has put them into a dictionary."""
    peer.finish(1)
    decoder = hpack.Decoder()
    blocks = [decoder.decode(f.data) for f in peer.of(hyperframe.HeadersFrame)]
    test.assertEqual(blocks[0][0], (":status", "200"))
    connection_fields = {
        "connection", "keep-alive", "proxy-connection", "transfer-encoding", "upgrade", "te"}
    for block in blocks:
        for position, (name, value) in enumerate(block):
            test.assertEqual(name, name.lower())
            test.assertEqual(value, value.strip())
            test.assertNotIn(name, connection_fields)
            test.assertEqual(name.startswith(":"), block is blocks[0] and position == 0)


def resets_the_rest(test, peer):
    answer = peer.finish(1)
    test.assertTrue(answer.ended)
    peer.wait_for(hyperframe.RstStreamFrame, 1)
    test.assertEqual(answer.reset, Error.NO_ERROR)


class Answers(Http2Test):
    CASES = (
        Case("8.2", "The server's own header blocks are well-formed",
             raw_peer.whole_call(1),
             Then("names in lower case, :status first, no connection fields",
                  answer_is_well_formed)),
        Case("8.1", "An answer before the end of the request",
             open_call(1, "/rpc.Profile/Nothing"),
             Then("answers, then stream error NO_ERROR", resets_the_rest)),
        Case("8.7", "A call that was reset by the client is not answered",
             [open_call(1, EVENTS), rst_stream(1), raw_peer.ping()],
             Then("sends nothing more of it", lambda test, peer: (
                 peer.settle(), test.assertFalse(peer.answer(1).ended)))),
        Case("8.1", "Calls whose frames are mixed",
             [open_call(1), open_call(3), open_call(5), data(3, NO_FIELDS[:2]),
              data(1, NO_FIELDS[:3]), data(5, NO_FIELDS, END_STREAM), data(3, NO_FIELDS[2:]),
              data(1, NO_FIELDS[3:], END_STREAM), data(3, flags=END_STREAM)],
             Then("serves all calls", lambda test, peer: [
                 test.assertEqual(peer.finish(stream_id).grpc_status, "0")
                 for stream_id in (1, 3, 5)])),
    )


if __name__ == "__main__":
    unittest.main()
