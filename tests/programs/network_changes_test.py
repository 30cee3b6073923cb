"""What varnic-host tells of the machine's network, to a client that is not ours. The host runs in a
network of its own, in which the tests may plug and unplug as they like."""

import contextlib
import os
import platform
import queue
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

import grpc

import programs

sys.path.insert(0, os.environ["VARNIC_PYTHON_STUBS"])
from rpc import event_subscription_pb2, identifiers_pb2
from rpc.profile import profile_pb2, profile_pb2_grpc

NetworkChanged = profile_pb2.NetworkChanged
IP = shutil.which("ip", path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
# Runs what follows in a user and a network namespace of its own, as the root of both.
OWN_NETWORK = ["unshare", "--user", "--map-root-user", "--net"]
# To ip: two interfaces with a cable between them.
CABLE = ["link", "add", "here", "type", "veth", "peer", "name", "there"]


def why_no_own_network():
    """A text where the tests of this file cannot run, or None."""
    if IP is None:
        return "there is no ip (iproute2)"
    probe = subprocess.run([*OWN_NETWORK, IP, *CABLE],
                           capture_output=True, text=True)
    return None if probe.returncode == 0 else "no network of its own: " + probe.stderr.strip()


WHY_NOT = why_no_own_network()


class Subscriber:
    """A client that is subscribed for one profile."""

    def __init__(self, test, host, profile=""):
        channel = grpc.insecure_channel(
            host.addresses[0], options=[("grpc.use_local_subchannel_pool", 1)])
        test.addCleanup(channel.close)
        self._events = queue.SimpleQueue()
        self._outgoing = queue.SimpleQueue()
        test.addCleanup(self._outgoing.put, None)
        self._call = profile_pb2_grpc.ProfileStub(channel).WhenNetworkChanged(
            iter(self._outgoing.get, None))
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        self.subscribe(profile)

    def subscribe(self, profile):
        self._outgoing.put(event_subscription_pb2.EventSubscription(
            key=identifiers_pb2.ProfileId(value=profile),
            action=event_subscription_pb2.EventSubscription.SUBSCRIBE))

    def _read(self):
        with contextlib.suppress(grpc.RpcError):
            for event in self._call:
                self._events.put(event)

    def next(self):
        return self._events.get(timeout=programs.PATIENCE_SECONDS)

    def is_silent_to_the_end(self):
        """Whether nothing more comes until the host ends the stream."""
        self._reader.join(programs.PATIENCE_SECONDS)
        return not self._reader.is_alive() and self._events.empty()

    def wait_for(self, is_wanted):
        """The next event that is one of these; those before it are passed over."""
        while not is_wanted(event := self.next()):
            pass
        return event


def interface(event, name):
    return next((each for each in event.interfaces if each.name == name), None)


def addresses(event, name):
    found = interface(event, name)
    return [] if found is None else list(found.addresses)


@unittest.skipIf(WHY_NOT is not None, WHY_NOT)
class NetworkChangesTest(programs.HostTestCase):
    def setUp(self):
        super().setUp()
        self.host = self.start_host(*OWN_NETWORK[1:], str(programs.HOST),
                                    program=OWN_NETWORK[0])

    def ip(self, *arguments):
        subprocess.run(
            ["nsenter", "--target", str(self.host.process.pid), "--user", "--net",
             "--preserve-credentials", IP, *arguments], check=True)

    def plug_in(self):
        """A cable from `here` to `there`, by which the way leads out."""
        self.ip(*CABLE)
        self.ip("link", "set", "there", "up")
        self.ip("link", "set", "here", "up")
        self.ip("address", "add", "192.0.2.2/24", "dev", "here")
        self.ip("route", "add", "default", "via", "192.0.2.1")

    def test_subscriber_gets_the_state_at_once_and_each_change_after_it(self):
        subscriber = Subscriber(self, self.host)

        first = subscriber.next()
        self.assertEqual((first.online, first.connection_type, list(first.interfaces)),
                         (False, NetworkChanged.NONE, []))
        self.plug_in()
        online = subscriber.wait_for(lambda event: event.online)
        self.assertEqual(online.connection_type, NetworkChanged.ETHERNET)
        self.assertTrue(interface(online, "here").up)
        self.assertIn("192.0.2.2", interface(online, "here").addresses)
        self.ip("link", "set", "there", "down")
        offline = subscriber.wait_for(lambda event: not event.online)
        self.assertEqual(offline.connection_type, NetworkChanged.NONE)
        self.assertFalse(interface(offline, "here").up)
        self.ip("link", "set", "there", "up")
        subscriber.wait_for(lambda event: interface(event, "here").up)
        self.ip("link", "delete", "here")
        subscriber.wait_for(lambda event: not event.interfaces)

    def test_late_subscriber_gets_what_is_so_by_then(self):
        witness = Subscriber(self, self.host)
        self.plug_in()
        witness.wait_for(lambda event: event.online)

        late = Subscriber(self, self.host, profile="Default")

        first = late.next()
        self.assertTrue(first.online)
        self.assertEqual(first.profile_id.value, "Default")

    def test_every_profile_of_a_client_gets_each_change_under_its_name(self):
        subscriber = Subscriber(self, self.host, profile="")
        subscriber.subscribe("Default")
        self.assertEqual([subscriber.next().profile_id.value for _ in range(2)], ["", "Default"])

        self.plug_in()

        told = set()
        while told != {"", "Default"}:
            told.add(subscriber.wait_for(lambda event: event.online).profile_id.value)

    def test_burst_of_changes_is_a_few_events_that_end_in_the_truth(self):
        subscriber = Subscriber(self, self.host)
        subscriber.next()
        self.ip(*CABLE)
        batch = self.folder / "batch"
        batch.write_text("".join(
            f"address add 192.0.2.{i}/32 dev here\naddress del 192.0.2.{i}/32 dev here\n"
            for i in range(1, 250)) + "address add 198.51.100.1/32 dev here\n")

        self.ip("-batch", str(batch))

        events = [subscriber.next()]
        while "198.51.100.1" not in addresses(events[-1], "here"):
            events.append(subscriber.next())
        self.assertEqual(addresses(events[-1], "here"), ["198.51.100.1"])
        self.assertLess(len(events), 20)


# What a sandbox without AF_NETLINK does: socket() fails with EPERM.
FORBID_NETLINK = """
import ctypes, os, struct, sys
socket_number = {"x86_64": 41, "aarch64": 198}[os.uname().machine]
code = b"".join(struct.pack("HBBI", *line) for line in (
    (0x20, 0, 0, 0), (0x15, 0, 3, socket_number),  # The system call's number.
    (0x20, 0, 0, 16), (0x15, 0, 1, 16),            # Its first argument: AF_NETLINK.
    (0x06, 0, 0, 0x00050001), (0x06, 0, 0, 0x7fff0000)))
buffer = ctypes.create_string_buffer(code)
program = ctypes.create_string_buffer(struct.pack("HxxxxxxQ", len(code) // 8,
                                                  ctypes.addressof(buffer)))
libc = ctypes.CDLL(None)
if libc.prctl(38, 1, 0, 0, 0) or libc.prctl(22, 2, program, 0, 0):
    sys.exit("no system call can be filtered here")
os.execv(sys.argv[1], sys.argv[1:])
"""


class ForbiddenNetworkTest(programs.HostTestCase):
    @unittest.skipUnless(platform.machine() in ("x86_64", "aarch64"), "the filter is not for this")
    def test_host_that_may_not_ask_serves_all_the_same_and_says_so_once(self):
        host = programs.Host("-c", FORBID_NETLINK, programs.HOST, program=sys.executable,
                             env=self.environment)
        self.addCleanup(host.__exit__)
        if "no system call can be filtered" in host.stderr():
            self.skipTest(host.stderr())
        subscriber = Subscriber(self, host)

        result = programs.ctl("path", env=self.environment)

        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(host.stop(), 0)
        self.assertEqual(host.stderr().count("Network changes are not published"), 1)
        self.assertIn("Operation not permitted", host.stderr())
        self.assertTrue(subscriber.is_silent_to_the_end())


if __name__ == "__main__":
    unittest.main()
