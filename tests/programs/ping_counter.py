"""Stands between a client and a host, and sees the pings that pass."""

import contextlib
import itertools
import pathlib
import socket
import threading

import programs

HEAD_BYTES = 9
PING, GOAWAY = 6, 7
ACK = 1


class PingCounter:
    """Passes on what a client without TLS and its host say to each other. Use it as a context
    manager."""

    def __init__(self, address, folder):
        """`address` is the host's, as it prints it; the counter's own is of the same kind."""
        self._host = address
        self._changed = threading.Condition()  # Of what follows.
        self.connections = 0
        self.answered_pings = 0
        self.goaways = []  # Codes and texts.
        self._sockets = []
        self._threads = []
        self._acceptor = threading.Thread(target=self._accept)
        self._listener, self.target = listen_like(address, folder)

    def wait_for_pings(self, count):
        """Until the host has answered so many more of them."""
        with self._changed:
            wanted = self.answered_pings + count
            enough = self._changed.wait_for(lambda: self.answered_pings >= wanted,
                                            programs.PATIENCE_SECONDS)
        if not enough:
            raise AssertionError(f"{self.answered_pings} pings instead of {wanted}")

    def __enter__(self):
        self._acceptor.start()
        return self

    def __exit__(self, *_):
        self._end([self._listener], [self._acceptor])
        self._end(self._sockets, self._threads)

    @staticmethod
    def _end(sockets, threads):
        for sock in sockets:
            with contextlib.suppress(OSError):
                sock.shutdown(socket.SHUT_RDWR)
        for thread in threads:
            thread.join()
        for sock in sockets:
            sock.close()

    def _start(self, *arguments):
        thread = threading.Thread(target=self._pass_on, args=arguments)
        self._threads.append(thread)
        thread.start()

    def _accept(self):
        with contextlib.suppress(OSError):  # At the end.
            while True:
                client, _ = self._listener.accept()
                host = connect(self._host)
                self._sockets += [client, host]
                self.connections += 1
                self._start(client, host, lambda data: None)
                self._start(host, client, FrameReader(self._on_frame).read)

    @staticmethod
    def _pass_on(source, sink, look):
        with contextlib.suppress(OSError):
            while data := source.recv(1 << 16):
                look(data)
                sink.sendall(data)
        with contextlib.suppress(OSError):
            sink.shutdown(socket.SHUT_WR)

    def _on_frame(self, kind, flags, content):
        with self._changed:
            if kind == PING and flags & ACK:
                self.answered_pings += 1
                self._changed.notify_all()
            if kind == GOAWAY:
                self.goaways.append((int.from_bytes(content[4:8], "big"), content[8:].decode()))


class FrameReader:
    """Finds frames in what a host sends."""

    def __init__(self, on_frame):
        self._on_frame = on_frame
        self._unread = b""

    def read(self, data):
        self._unread += data
        while len(self._unread) >= HEAD_BYTES:
            end = HEAD_BYTES + int.from_bytes(self._unread[:3], "big")
            if len(self._unread) < end:
                break
            self._on_frame(self._unread[3], self._unread[4], self._unread[HEAD_BYTES:end])
            self._unread = self._unread[end:]


numbers = itertools.count(1)


def listen_like(address, folder):
    """A listening socket, and what a client calls it."""
    if address.startswith("unix:"):
        path = pathlib.Path(folder) / f"counter-{next(numbers)}.sock"
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(str(path))
        listener.listen()
        return listener, f"unix:{path}"
    listener = socket.create_server(("127.0.0.1", 0))
    return listener, f"127.0.0.1:{listener.getsockname()[1]}"


def connect(address):
    if address.startswith("unix:"):
        sock = socket.socket(socket.AF_UNIX)
        sock.connect(address.removeprefix("unix:"))
        return sock
    host, port = address.rsplit(":", 1)
    return socket.create_connection((host, int(port)))
