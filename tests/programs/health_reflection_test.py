"""varnic-host tells probes how it is, and tools what it serves: python3-grpcio asks."""

import json
import os
import queue
import time
import unittest

import grpc
from google.protobuf import descriptor_pb2, descriptor_pool, message_factory

import programs

STUBS = os.environ["VARNIC_PYTHON_STUBS"]
# The generated modules are in the package of gRPC itself.
grpc.__path__.append(f"{STUBS}/grpc")
# pylint: disable=wrong-import-position
from grpc.health.v1 import health_pb2, health_pb2_grpc  # noqa: E402
from grpc.reflection.v1 import reflection_pb2, reflection_pb2_grpc  # noqa: E402
from grpc.reflection.v1alpha import reflection_pb2 as alpha_pb2  # noqa: E402
from grpc.reflection.v1alpha import reflection_pb2_grpc as alpha_pb2_grpc  # noqa: E402

SERVING = health_pb2.HealthCheckResponse.SERVING
NOT_SERVING = health_pb2.HealthCheckResponse.NOT_SERVING
SERVICE_UNKNOWN = health_pb2.HealthCheckResponse.SERVICE_UNKNOWN

VERSIONS = ((reflection_pb2, reflection_pb2_grpc), (alpha_pb2, alpha_pb2_grpc))
SERVICES = [
    "grpc.health.v1.Health",
    "grpc.reflection.v1.ServerReflection",
    "grpc.reflection.v1alpha.ServerReflection",
    "rpc.BrowserHost",
    "rpc.Profile",
]
DEADLINE_SECONDS = 30
# How long the host would wait for a call that does not end when it is told to stop.
HOST_PATIENCE_SECONDS = 10


def health_request(service):
    return health_pb2.HealthCheckRequest(service=service)


class ReflectionStream:
    """One stream, on which one thing is asked at a time."""

    def __init__(self, channel, messages, stubs):
        self._request = messages.ServerReflectionRequest
        self._outgoing = queue.SimpleQueue()
        stub = stubs.ServerReflectionStub(channel)
        self.call = stub.ServerReflectionInfo(
            iter(self._outgoing.get, None), timeout=programs.PATIENCE_SECONDS
        )

    def ask(self, **question):
        self._outgoing.put(self._request(**question))
        return next(self.call)

    def services(self):
        return [each.name for each in self.ask(list_services="").list_services_response.service]

    def files_of(self, symbol):
        """The files that declare a symbol, by name, without those that came before."""
        response = self.ask(file_containing_symbol=symbol)
        files = map(
            descriptor_pb2.FileDescriptorProto.FromString,
            response.file_descriptor_response.file_descriptor_proto,
        )
        return {file.name: file for file in files}

    def close(self):
        """Half-closes the stream, and returns its status."""
        self._outgoing.put(None)
        return self.call.code()


def pool_of(files):
    """A pool with these files, each behind those that it needs."""
    pool = descriptor_pool.DescriptorPool()
    added = set()

    def add(name):
        if name in added:
            return
        added.add(name)
        for dependency in files[name].dependency:
            add(dependency)
        pool.Add(files[name])

    for name in files:
        add(name)
    return pool


class HealthReflectionTest(programs.HostTestCase):
    def start_host(self, *arguments):
        host = super().start_host("--listen", "127.0.0.1:0", *arguments)
        channel = grpc.insecure_channel(host.addresses[0])
        self.addCleanup(channel.close)
        return host, channel

    def assert_fails(self, code, call):
        with self.assertRaises(grpc.RpcError) as failure:
            call()
        self.assertEqual(failure.exception.code(), code)

    def test_probe_learns_of_the_host_and_of_each_service(self):
        _, channel = self.start_host()
        health = health_pb2_grpc.HealthStub(channel)
        check = lambda service: health.Check(health_request(service), timeout=DEADLINE_SECONDS)

        listed = health.List(health_pb2.HealthListRequest(), timeout=DEADLINE_SECONDS)

        for service in ["", *SERVICES]:
            self.assertEqual(check(service).status, SERVING, service)
            self.assertEqual(listed.statuses[service].status, SERVING, service)
        self.assertEqual(len(listed.statuses), 1 + len(SERVICES))
        self.assert_fails(grpc.StatusCode.NOT_FOUND, lambda: check("rpc.Unknown"))

    def test_watch_tells_the_status_at_once_and_stays_open(self):
        _, channel = self.start_host()
        health = health_pb2_grpc.HealthStub(channel)

        known = health.Watch(health_request("rpc.Profile"))
        unknown = health.Watch(health_request("rpc.Unknown"))

        self.assertEqual(next(known).status, SERVING)
        self.assertEqual(next(unknown).status, SERVICE_UNKNOWN)
        for watch in (known, unknown):
            self.assertTrue(watch.is_active())
            watch.cancel()

    def test_tool_without_proto_files_finds_and_calls_a_method(self):
        _, channel = self.start_host()
        for messages, stubs in VERSIONS:
            stream = ReflectionStream(channel, messages, stubs)
            services = stream.services()
            files = {}
            for service in services:
                files.update(stream.files_of(service))
            self.assertEqual(stream.close(), grpc.StatusCode.OK)

            self.assertEqual(services, SERVICES)
            pool = pool_of(files)
            for service in services:
                self.assertEqual(pool.FindServiceByName(service).full_name, service)
            method = pool.FindServiceByName("rpc.Profile").FindMethodByName("Path")
            make = message_factory.MessageFactory(pool).GetPrototype
            call = channel.unary_unary(
                "/rpc.Profile/Path",
                request_serializer=make(method.input_type).SerializeToString,
                response_deserializer=make(method.output_type).FromString,
            )
            answer = call(make(method.input_type)(value="default"), timeout=DEADLINE_SECONDS)
            self.assertTrue(answer.value.endswith("/Default"), answer.value)

    def test_errors_are_responses_and_carry_their_requests(self):
        _, channel = self.start_host()
        for messages, stubs in VERSIONS:
            stream = ReflectionStream(channel, messages, stubs)

            unknown = stream.ask(host="one", file_by_filename="nowhere.proto")
            nothing = stream.ask(host="two")

            self.assertEqual(unknown.error_response.error_code, 5)
            self.assertIn("nowhere.proto", unknown.error_response.error_message)
            self.assertEqual(unknown.valid_host, "one")
            self.assertEqual(unknown.original_request.file_by_filename, "nowhere.proto")
            self.assertEqual(nothing.error_response.error_code, 3)
            self.assertEqual(stream.services(), SERVICES)
            self.assertEqual(stream.close(), grpc.StatusCode.OK)

    def test_host_that_stops_tells_watchers_and_waits_for_none(self):
        host, channel = self.start_host()
        health = health_pb2_grpc.HealthStub(channel)
        watch = health.Watch(health_request("rpc.Profile"))
        self.assertEqual(next(watch).status, SERVING)
        stream = ReflectionStream(channel, *VERSIONS[0])
        self.assertEqual(stream.services(), SERVICES)
        begin = time.monotonic()

        status = host.stop()

        self.assertEqual(status, 0)
        self.assertLess(time.monotonic() - begin, HOST_PATIENCE_SECONDS)
        self.assertEqual(next(watch).status, NOT_SERVING)
        for call in (watch, stream.call):
            self.assert_fails(grpc.StatusCode.UNAVAILABLE, lambda call=call: next(call))

    def test_host_without_reflection_answers_probes_alone(self):
        _, channel = self.start_host("--no-reflection")
        health = health_pb2_grpc.HealthStub(channel)

        self.assertEqual(
            health.Check(health_request(""), timeout=DEADLINE_SECONDS).status, SERVING
        )
        for version in VERSIONS:
            self.assert_fails(
                grpc.StatusCode.UNIMPLEMENTED, ReflectionStream(channel, *version).services
            )

    def test_policy_rules_probes_and_tools_like_everybody(self):
        policy = self.folder / "policy.json"
        policy.write_text(json.dumps({
            "roles": {"probe": {"anyone": True}},
            "methods": {"/grpc.health.v1.Health/Check": ["probe"]},
        }))
        _, channel = self.start_host("--policy", str(policy))
        health = health_pb2_grpc.HealthStub(channel)

        self.assertEqual(
            health.Check(health_request(""), timeout=DEADLINE_SECONDS).status, SERVING
        )
        self.assert_fails(
            grpc.StatusCode.PERMISSION_DENIED, lambda: next(health.Watch(health_request("")))
        )
        self.assert_fails(
            grpc.StatusCode.PERMISSION_DENIED, ReflectionStream(channel, *VERSIONS[0]).services
        )


if __name__ == "__main__":
    unittest.main()
