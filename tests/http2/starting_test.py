"""RFC 9113, section 3: how a connection begins. Over TCP as over a Unix-domain socket."""

import unittest

from hyperframe import frame as hyperframe

import raw_peer
from cases import Case, Closes, ConnectionError_, Http2Test, Serves, Then
from raw_peer import ACK, GREETING, PREFACE, Error, Kind, Setting


def begins_with_settings(test, peer):
    peer.round_trip()
    test.assertIsInstance(peer.frames[0], hyperframe.SettingsFrame)
    test.assertNotIn("ACK", peer.frames[0].flags)


def settings_are_in_bounds(test, peer):
    peer.round_trip()
    values = peer.frames[0].settings
    test.assertEqual(values.get(Setting.ENABLE_PUSH, 0), 0)
    test.assertLessEqual(values.get(Setting.INITIAL_WINDOW_SIZE, 0), raw_peer.MAX_WINDOW)
    frame_bytes = values.get(Setting.MAX_FRAME_SIZE, raw_peer.MAX_FRAME_BYTES)
    test.assertTrue(1 << 14 <= frame_bytes < 1 << 24)


def acknowledged_once(test, peer):
    peer.round_trip()
    acks = [f for f in peer.of(hyperframe.SettingsFrame) if "ACK" in f.flags]
    test.assertEqual(len(acks), 1)


def one_byte_at_a_time(peer):
    for byte in GREETING + raw_peer.whole_call(1):
        peer.send(bytes([byte]))


def upgrade_request(*lines):
    return "\r\n".join(["GET / HTTP/1.1", "Host: localhost", *lines, "", ""]).encode()


class ConnectionPreface(Http2Test):
    CASES = (
        Case("3.4", "The server begins with a SETTINGS frame", b"",
             Then("begins with SETTINGS", begins_with_settings)),
        Case("6.5.2", "The server's settings are within their bounds", b"",
             Then("announces no push, and sizes within their bounds", settings_are_in_bounds)),
        Case("3.4", "The client's first SETTINGS is acknowledged", b"",
             Then("acknowledges it once", acknowledged_once)),
        Case("3.4", "A call may follow the preface before the server's SETTINGS is read",
             raw_peer.whole_call(1), Serves()),
        Case("3.4", "A preface may arrive byte by byte", one_byte_at_a_time, Serves(),
             greeting=b""),
        Case("3.4", "A preface that is spelt wrongly", b"",
             Closes(), greeting=PREFACE.replace(b"SM", b"XX") + raw_peer.settings()),
        Case("3.4", "A preface that goes wrong in its last byte", b"",
             Closes(), greeting=PREFACE[:-1] + b"x" + raw_peer.settings()),
        Case("3.4", "Frames without a preface", b"",
             Closes(), greeting=raw_peer.settings() + raw_peer.whole_call(1)),
        Case("3.4", "A preface that is followed by a PING", raw_peer.ping(),
             ConnectionError_(Error.PROTOCOL_ERROR), greeting=PREFACE),
        Case("3.4", "A preface that is followed by a call", raw_peer.whole_call(1),
             ConnectionError_(Error.PROTOCOL_ERROR), greeting=PREFACE),
        Case("3.4", "A preface that is followed by an acknowledgement of settings", b"",
             ConnectionError_(Error.PROTOCOL_ERROR),
             greeting=PREFACE + raw_peer.frame(Kind.SETTINGS, 0, flags=ACK)),
        Case("3.4", "A second preface in the middle of a connection", PREFACE,
             ConnectionError_(Error.FRAME_SIZE_ERROR, Error.PROTOCOL_ERROR)),
        Case("3.1", "A request of HTTP/1.1", b"", Closes(), greeting=upgrade_request()),
        Case("3.1", "An upgrade from HTTP/1.1, which RFC 9113 no longer has", b"", Closes(),
             greeting=upgrade_request(
                 "Connection: Upgrade, HTTP2-Settings", "Upgrade: h2c", "HTTP2-Settings: ")),
        Case("3.3", "A TLS handshake to an address without TLS", b"", Closes(),
             greeting=b"\x16\x03\x01\x00\xa5\x01\x00\x00\xa1\x03\x03" + bytes(161)),
    )


class ConnectionPrefaceOverTcp(ConnectionPreface):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.address = cls.tcp_address


if __name__ == "__main__":
    unittest.main()
