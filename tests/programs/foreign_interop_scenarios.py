"""gRPC's own interoperability tests, those of unary calls and of full-duplex streams: a client that is
not ours against interop_host, over each transport. Which client, says $VARNIC_FOREIGN_CLIENT. Each
test has the name of its case."""

import os
import time
import unittest

import foreign
from foreign import Code

# pylint: disable=wrong-import-order
from interop import empty_pb2, messages_pb2, test_pb2

SERVICE = "/" + test_pb2.DESCRIPTOR.services_by_name["TestService"].full_name
INITIAL = ("x-grpc-test-echo-initial", "test_initial_metadata_value")
TRAILING = ("x-grpc-test-echo-trailing-bin", b"\x0a\x0b\x0a\x0b\x0a\x0b")
# Sizes of the requests and of the responses that they ask for.
PING_PONG = ((27182, 31415), (8, 9), (1828, 2653), (45904, 58979))
SOAK_CALLS = 200
SOAK_CHANNELS = 30
SOAK_SECONDS_PER_CALL = 5


def payload(size):
    return messages_pb2.Payload(body=bytes(size))


def large_request():
    return messages_pb2.SimpleRequest(response_size=314159, payload=payload(271828))


def stream_request(size, response_size=None):
    request = messages_pb2.StreamingOutputCallRequest(payload=payload(size))
    if response_size is not None:
        request.response_parameters.add(size=response_size)
    return request


class InteropScenarios(foreign.Scenarios):
    host_program = os.environ["VARNIC_INTEROP_HOST"]

    def unary(self, request, **options):
        return self.channel.call(f"{SERVICE}/UnaryCall", request, **options)

    def full_duplex(self, **options):
        return self.channel.open(f"{SERVICE}/FullDuplexCall", **options)

    def assert_large_response(self, response):
        self.assertEqual(response.payload.type, messages_pb2.COMPRESSABLE)
        self.assertTrue(response.payload.body == bytes(314159))

    def test_empty_unary(self):
        response = self.channel.call(f"{SERVICE}/EmptyCall", empty_pb2.Empty()).result()

        self.assertEqual(response, empty_pb2.Empty())

    def test_large_unary(self):
        self.assert_large_response(self.unary(large_request()).result())

    def test_ping_pong(self):
        stream = self.full_duplex()

        for size, response_size in PING_PONG:
            stream.send(stream_request(size, response_size))
            self.assertEqual(len(stream.receive().payload.body), response_size)

        stream.half_close()
        self.assertEqual(self.assert_ends(stream, Code.OK).messages, [])

    def test_empty_stream(self):
        stream = self.full_duplex()

        stream.half_close()

        self.assertEqual(self.assert_ends(stream, Code.OK).messages, [])

    def test_timeout_on_sleeping_server(self):
        stream = self.full_duplex(seconds=0.001)

        stream.send(stream_request(27182))

        self.assert_ends(stream, Code.DEADLINE_EXCEEDED)

    def test_cancel_after_begin(self):
        # The case has a client-streaming call, which the server has not.
        stream = self.full_duplex()

        stream.cancel()

        self.assert_ends(stream, Code.CANCELLED)

    def test_cancel_after_first_response(self):
        stream = self.full_duplex()
        stream.send(stream_request(27182, 31415))
        self.assertEqual(len(stream.receive().payload.body), 31415)

        stream.cancel()

        self.assert_ends(stream, Code.CANCELLED)

    def assert_ends_as_told(self, code, text):
        status = messages_pb2.EchoStatus(code=code, message=text)

        end = self.unary(messages_pb2.SimpleRequest(response_status=status)).end()

        self.assertEqual((end.code, end.text), (code, text))

    def test_status_code_and_message(self):
        # The case's other half, the same on a stream, is left out: a host ends its streams with OK.
        self.assert_ends_as_told(Code.UNKNOWN, "test status message")

    def test_special_status_message(self):
        self.assert_ends_as_told(
            Code.UNKNOWN, "\t\ntest with whitespace\r\nand Unicode BMP ☺ and non-BMP 😈\t\n"
        )

    def test_custom_metadata(self):
        # The case's other half, the same on a stream, is left out: a stream class of a host sees no
        # metadata.
        call = self.unary(large_request(), metadata=(INITIAL, TRAILING))

        self.assert_large_response(call.result())
        self.assertIn(INITIAL, call.headers)
        self.assertIn(TRAILING, call.end().metadata)

    def test_unimplemented_method(self):
        call = self.channel.call(f"{SERVICE}/UnimplementedCall", empty_pb2.Empty())

        self.assert_ends(call, Code.UNIMPLEMENTED)

    def test_unimplemented_service(self):
        path = "/grpc.testing.UnimplementedService/UnimplementedCall"

        self.assert_ends(self.channel.call(path, empty_pb2.Empty()), Code.UNIMPLEMENTED)

    def test_rpc_soak(self):
        for _ in range(SOAK_CALLS):
            begin = time.monotonic()
            self.assert_large_response(self.unary(large_request()).result())
            self.assertLess(time.monotonic() - begin, SOAK_SECONDS_PER_CALL)

    def test_channel_soak(self):
        for _ in range(SOAK_CHANNELS):
            begin = time.monotonic()
            channel = self.connect(self.shared_host)
            call = channel.call(f"{SERVICE}/UnaryCall", large_request())
            self.assert_large_response(call.result())
            self.assertLess(time.monotonic() - begin, SOAK_SECONDS_PER_CALL)
            channel.close()

    # No cases of gRPC's, but of the same server.

    def test_stream_that_the_host_does_not_open_is_unimplemented(self):
        stream = self.channel.open(f"{SERVICE}/HalfDuplexCall")

        self.assert_ends(stream, Code.UNIMPLEMENTED)

    def test_stream_that_the_host_completes_ends_with_ok(self):
        stream = self.full_duplex(raw=True)

        stream.send(b"\xff")

        self.assert_ends(stream, Code.OK)


foreign.over_each_transport(InteropScenarios, globals())


def load_tests(loader, *_):
    """The classes with a transport."""
    classes = [globals()[name] for name in foreign.TRANSPORTS]
    return unittest.TestSuite(map(loader.loadTestsFromTestCase, classes))


if __name__ == "__main__":
    unittest.main()
