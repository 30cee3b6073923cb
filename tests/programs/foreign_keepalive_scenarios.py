"""Clients that are not ours send keepalive pings much more often than gRPC lets them: a host bears
that on a Unix-domain socket, and ends the connection on TCP. Which client, says
$VARNIC_FOREIGN_CLIENT."""

import os
import unittest

import foreign
from foreign import Code

import programs
from ping_counter import PingCounter
from profile_peer import Peer, subscription

# As often as each client does it, whether there are calls or not, and no other pings.
OPTIONS = {
    "grpc.keepalive_time_ms": 50,
    "grpc.keepalive_timeout_ms": programs.PATIENCE_SECONDS * 1000,
    "grpc.keepalive_permit_without_calls": 1,
    "grpc.http2.max_pings_without_data": 0,
    "grpc.http2.min_time_between_pings_ms": 1,
    "grpc.http2.bdp_probe": 0,
}
# On TCP, that many end a connection. grpc++ and grpcio let a second pass between them.
PINGS = 4

ENHANCE_YOUR_CALM = 11


class KeepaliveScenarios(foreign.Scenarios):
    host_program = os.environ["VARNIC_STREAM_HOST"]

    def pinging_peer(self, **connection):
        channel = self.connect(self.shared_host, options=OPTIONS, **connection)
        self.addCleanup(channel.close)
        return Peer(channel)

    def count_pings(self):
        return self.enterContext(PingCounter(self.shared_host.addresses[0], self.folder))


class KeepaliveOverUnixSockets(KeepaliveScenarios):
    transport_type = foreign.UnixSockets

    def test_pings_over_a_quiet_stream_do_it_no_harm(self):
        counter = self.count_pings()
        peer = self.pinging_peer(target=counter.target)
        stream = peer.subscribe_to_network("P")

        counter.wait_for_pings(PINGS)

        self.assertEqual(peer.publish("P"), 1)
        self.assertTrue(stream.receive().online)
        stream.half_close()
        self.assert_ends(stream, Code.OK)
        self.assertEqual((counter.connections, counter.goaways), (1, []))

    @unittest.skipIf(foreign.Scenarios.client_name == "grpcio",
                     "it looks after a connection without calls every five seconds only")
    def test_pings_without_a_stream_do_the_connection_no_harm(self):
        counter = self.count_pings()
        peer = self.pinging_peer(target=counter.target)
        self.assertEqual(peer.publish("P"), 0)

        counter.wait_for_pings(PINGS)

        self.assertEqual(peer.publish("P"), 0)
        self.assertEqual((counter.connections, counter.goaways), (1, []))


class KeepaliveOverNetwork(KeepaliveScenarios):
    def assert_is_ended(self, peer):
        """The connection of a peer that opens a stream and then says nothing but pings."""
        stream = peer.open("WhenNetworkChanged")
        stream.send(subscription("P"))

        # What the code of the GOAWAY is to grpc-js, and the end of the connection to the others.
        self.assertIn(stream.end().code, (Code.RESOURCE_EXHAUSTED, Code.UNAVAILABLE))
        calm = Peer(self.channel)
        calm.wait_for("streams", 0)
        self.assertEqual(calm.publish("P"), 0)


class KeepaliveOverTcp(KeepaliveOverNetwork):
    transport_type = foreign.Tcp

    def test_pings_that_come_too_soon_end_their_connection_and_it_is_told_why(self):
        counter = self.count_pings()

        self.assert_is_ended(self.pinging_peer(target=counter.target))

        self.assertEqual(counter.goaways, [(ENHANCE_YOUR_CALM, "too_many_pings")])


class KeepaliveOverMtls(KeepaliveOverNetwork):
    transport_type = foreign.Mtls

    def test_pings_that_come_too_soon_end_their_connection(self):
        self.assert_is_ended(self.pinging_peer())


def load_tests(loader, *_):
    """The classes with a transport."""
    classes = (KeepaliveOverUnixSockets, KeepaliveOverTcp, KeepaliveOverMtls)
    return unittest.TestSuite(map(loader.loadTestsFromTestCase, classes))


if __name__ == "__main__":
    unittest.main()
