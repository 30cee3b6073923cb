"""How hosts end on SIGTERM, as a client that is not ours sees it: python3-grpcio."""

import asyncio
import contextlib
import os
import signal
import sys
import time
import unittest

import grpc

import programs

sys.path.insert(0, os.environ["VARNIC_PYTHON_STUBS"])
from rpc import event_subscription_pb2, identifiers_pb2
from rpc.profile import profile_pb2, profile_pb2_grpc

STREAMS = 1000
CHANNELS = 10
ENDED = (grpc.StatusCode.UNAVAILABLE, "The host is shutting down")


def profile_id(value=""):
    return identifiers_pb2.ProfileId(value=value)


class DrainTest(programs.HostTestCase, unittest.IsolatedAsyncioTestCase):
    def start_varnic_host(self):
        return self.start_host("--listen", "127.0.0.1:0", "--metrics", "127.0.0.1:0")

    def start_stream_host(self):
        return self.start_host("127.0.0.1:0", program=os.environ["VARNIC_STREAM_HOST"])

    def connect(self, host):
        channel = grpc.aio.insecure_channel(
            host.addresses[0], options=[("grpc.use_local_subchannel_pool", 1)])
        self.addAsyncCleanup(channel.close)
        return channel

    async def open_streams(self, host):
        """Half of them of events, and half of answers."""
        stubs = [profile_pb2_grpc.ProfileStub(self.connect(host)) for _ in range(CHANNELS)]
        streams = []
        for i in range(STREAMS // 2):
            stub = stubs[i % CHANNELS]
            events, answers = stub.WhenNetworkChanged(), stub.OnCanAccessFile()
            await events.write(event_subscription_pb2.EventSubscription(
                key=profile_id("P"), action=event_subscription_pb2.EventSubscription.SUBSCRIBE))
            await answers.write(
                profile_pb2.CanAccessFile(profile_id=profile_id(str(i)), subscribe=True))
            streams += [events, answers]
        return streams

    async def wait_until(self, holds, host):
        deadline = time.monotonic() + programs.PATIENCE_SECONDS
        while not await holds():
            self.assertLess(time.monotonic(), deadline, host.stderr())

    async def end(self, host):
        return await asyncio.to_thread(host.process.wait, programs.PATIENCE_SECONDS)

    async def assert_streams_end_with_the_host(self, host, streams):
        host.process.send_signal(signal.SIGTERM)

        for stream in streams:
            # The end comes behind what the host has told before.
            with contextlib.suppress(grpc.aio.AioRpcError):
                while await stream.read() is not grpc.aio.EOF:
                    pass
            self.assertEqual((await stream.code(), await stream.details()), ENDED)
        self.assertEqual(await self.end(host), 0, host.stderr())

    async def test_varnic_host_ends_a_thousand_streams_with_a_status(self):
        host = self.start_varnic_host()
        streams = await self.open_streams(host)

        async def are_all_there():
            return f"varnic_subscriptions {STREAMS}\n" in programs.metrics(host)
        await self.wait_until(are_all_there, host)

        await self.assert_streams_end_with_the_host(host, streams)
        self.assertIn('reason="nothing is left"', host.stderr())

    async def test_host_of_the_library_ends_a_thousand_streams_with_a_status(self):
        host = self.start_stream_host()
        streams = await self.open_streams(host)
        stub = profile_pb2_grpc.ProfileStub(self.connect(host))

        async def are_all_there():
            counts = await stub.GetUserAgentMetadata(profile_id("P"))
            return {"streams": str(STREAMS), "subscribers": str(STREAMS // 2)}.items() <= {
                count.brand: count.version for count in counts.brands}.items()
        await self.wait_until(are_all_there, host)

        await self.assert_streams_end_with_the_host(host, streams)

    async def test_second_signal_ends_a_host_at_once_though_a_call_is_in_flight(self):
        for host in (self.start_varnic_host(), self.start_stream_host()):
            channel = self.connect(host)
            # A unary call for whose request the host waits in vain.
            call = channel.stream_unary("/rpc.Profile/Path")()
            await call.write(profile_id().SerializeToString())
            await profile_pb2_grpc.ProfileStub(channel).IsDefault(profile_id())

            async def is_draining():
                return "Draining connections=1" in host.stderr()
            host.process.send_signal(signal.SIGTERM)
            await self.wait_until(is_draining, host)
            self.assertNotIn("Drained", host.stderr())
            host.process.send_signal(signal.SIGTERM)

            self.assertEqual(await self.end(host), 0, host.stderr())
            self.assertIn('Drained connections_left=1 reason="told to stop again"', host.stderr())
            self.assertEqual(await call.code(), grpc.StatusCode.UNAVAILABLE)


if __name__ == "__main__":
    unittest.main()
