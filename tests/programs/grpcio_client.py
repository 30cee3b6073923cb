"""A client that has nothing of ours but the proto files: python3-grpcio, and the stubs that its own
plugin makes. Does what lines on its standard input say; foreign.py has the protocol."""

import base64
import json
import os
import pathlib
import queue
import sys
import threading

import grpc

sys.path.insert(0, os.environ["VARNIC_PYTHON_STUBS"])
# pylint: disable=wrong-import-position
import download_pb2  # noqa: E402
import download_pb2_grpc  # noqa: E402
from interop import test_pb2, test_pb2_grpc  # noqa: E402
from rpc.profile import profile_pb2, profile_pb2_grpc  # noqa: E402

STUBS = {
    "rpc.Profile": profile_pb2_grpc.ProfileStub,
    "download.Downloads": download_pb2_grpc.DownloadsStub,
    "grpc.testing.TestService": test_pb2_grpc.TestServiceStub,
    "grpc.testing.UnimplementedService": test_pb2_grpc.UnimplementedServiceStub,
}
SERVICES = {
    service.full_name: service
    for file in (profile_pb2.DESCRIPTOR, download_pb2.DESCRIPTOR, test_pb2.DESCRIPTOR)
    for service in file.services_by_name.values()
}
output = threading.Lock()


def write(**event):
    with output:
        print(json.dumps(event), flush=True)


def encode(data):
    return base64.b64encode(data).decode()


def metadata_to_json(metadata):
    return [[key, encode(value) if key.endswith("-bin") else value] for key, value in metadata]


def metadata_from_json(metadata):
    return [
        (key, base64.b64decode(value) if key.endswith("-bin") else value)
        for key, value in metadata
    ]


def connect(command):
    options = {"compression": grpc.Compression.Gzip if command["gzip"] else None,
               "options": [("grpc.use_local_subchannel_pool", 1), *command["options"].items()]}
    if command["ca"] is None:
        return grpc.insecure_channel(command["target"], **options)
    file = lambda name: command[name] and pathlib.Path(command[name]).read_bytes()
    credentials = grpc.ssl_channel_credentials(file("ca"), file("key"), file("certificate"))
    return grpc.secure_channel(command["target"], credentials, **options)


class Call:
    """One call, with a thread of its own that waits for what comes."""

    def __init__(self, channel, command):
        self._number = command["call"]
        self._begin, self._parse, self._serialise = method(channel, command)
        self._options = {"timeout": command["seconds"],
                         "metadata": metadata_from_json(command["metadata"])}
        self._call = None
        if command["unary"]:
            return
        self._outgoing = queue.SimpleQueue()
        if command["first"] is not None:
            self._outgoing.put(self._parse(base64.b64decode(command["first"])))
        self._call = self._begin(iter(self._outgoing.get, None), **self._options)
        if command["read"]:
            self.read()

    def send(self, data):
        message = self._parse(data)
        if self._call is not None:
            self._outgoing.put(message)
            return
        self._call = self._begin(message, **self._options)
        threading.Thread(target=self._wait_for_response, daemon=True).start()

    def half_close(self):
        if hasattr(self, "_outgoing"):
            self._outgoing.put(None)

    def cancel(self):
        self._call.cancel()
        self.half_close()

    def read(self):
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        try:
            write(call=self._number, metadata=metadata_to_json(self._call.initial_metadata()))
            for message in self._call:
                self._write_message(message)
        except grpc.RpcError:
            pass
        self._write_end()
        self.half_close()

    def _wait_for_response(self):
        try:
            response = self._call.result()
            write(call=self._number, metadata=metadata_to_json(self._call.initial_metadata()))
            self._write_message(response)
        except (grpc.RpcError, grpc.FutureCancelledError):
            write(call=self._number, metadata=metadata_to_json(self._call.initial_metadata()))
        self._write_end()

    def _write_message(self, message):
        write(call=self._number, message=encode(self._serialise(message)))

    def _write_end(self):
        write(call=self._number, code=self._call.code().value[0], text=self._call.details(),
              metadata=metadata_to_json(self._call.trailing_metadata()))


def method(channel, command):
    """How to begin the call, what makes a request of bytes, and what makes bytes of a response."""
    if command["raw"]:
        if command["unary"]:
            return channel.unary_unary(command["method"]).future, bytes, bytes
        return channel.stream_stream(command["method"]), bytes, bytes
    _, service, name = command["method"].split("/")
    callable_ = getattr(STUBS[service](channel), name)
    descriptor = SERVICES[service].methods_by_name[name]
    begin = callable_.future if command["unary"] else callable_
    return (begin, descriptor.input_type._concrete_class.FromString,
            lambda message: message.SerializeToString())


def main():
    channels = {}
    calls = {}
    for line in sys.stdin:
        command = json.loads(line)
        what = command["do"]
        if what == "connect":
            channels[command["channel"]] = connect(command)
        elif what == "close":
            channels.pop(command["channel"]).close()
        elif what == "open":
            calls[command["call"]] = Call(channels[command["channel"]], command)
        elif what == "send":
            calls[command["call"]].send(base64.b64decode(command["message"]))
        else:
            getattr(calls[command["call"]], what)()
    # Without waiting for threads whose calls are open.
    os._exit(0)


if __name__ == "__main__":
    main()
