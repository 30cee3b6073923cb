"""Two gRPC clients that are not ours use the streams of a running host: python3-grpcio here, and
grpc++ in a process of its own. See stream_host.cc for what the host does when it is called."""

import json
import os
import queue
import subprocess
import sys
import tempfile
import time
import unittest

import grpc

import programs

sys.path.insert(0, os.environ["VARNIC_PYTHON_STUBS"])
# pylint: disable=wrong-import-position
from rpc import event_subscription_pb2, identifiers_pb2  # noqa: E402
from rpc.profile import profile_pb2, profile_pb2_grpc  # noqa: E402
from rpc.transport import stream_message_pb2  # noqa: E402

STREAM_HOST = os.environ["VARNIC_STREAM_HOST"]
GRPCPP_STREAM_CLIENT = os.environ["VARNIC_GRPCPP_STREAM_CLIENT"]
SUBSCRIBE = event_subscription_pb2.EventSubscription.SUBSCRIBE
UNSUBSCRIBE = event_subscription_pb2.EventSubscription.UNSUBSCRIBE
CHANNEL_OPTIONS = [
    # Every channel has a connection of its own.
    ("grpc.use_local_subchannel_pool", 1),
    ("grpc.max_receive_message_length", -1),
]


def profile_id(value):
    return identifiers_pb2.ProfileId(value=value)


def subscription(profile, action=SUBSCRIBE):
    return event_subscription_pb2.EventSubscription(key=profile_id(profile), action=action)


def files(profile, **fields):
    return profile_pb2.CanAccessFile(profile_id=profile_id(profile), **fields)


def file_answer(question, allow):
    return profile_pb2.CanAccessFile(
        profile_id=question.profile_id,
        call_id=question.call_id,
        response=profile_pb2.CanAccessFile.Response(allow=allow),
    )


def credentials(profile, **fields):
    return profile_pb2.Authenticate(profile_id=profile_id(profile), **fields)


def credentials_answer(question, **fields):
    return profile_pb2.Authenticate(
        profile_id=question.profile_id,
        call_id=question.call_id,
        response=profile_pb2.Authenticate.Response(**fields),
    )


class Stream:
    """One open stream; what runs into its deadline has failed."""

    def __init__(self, method, seconds=programs.PATIENCE_SECONDS, **options):
        self._outgoing = queue.SimpleQueue()
        self.call = method(iter(self._outgoing.get, None), timeout=seconds, **options)

    def send(self, message):
        self._outgoing.put(message)

    def half_close(self):
        self._outgoing.put(None)

    def receive(self):
        return next(self.call)

    def cancel(self):
        self.call.cancel()
        self.half_close()

    def end(self):
        """Waits for the end; its status, and the messages that came before it."""
        messages = []
        try:
            for message in self.call:
                messages.append(message)
        except grpc.RpcError:
            pass
        self.half_close()
        return self.call.code(), self.call.details(), messages


class Client:
    """One connection."""

    def __init__(self, target):
        self.channel = grpc.insecure_channel(target, options=CHANNEL_OPTIONS)
        self.stub = profile_pb2_grpc.ProfileStub(self.channel)

    def raw(self, method, serialise=bytes, parse=bytes):
        """The method, with messages of the caller's own making."""
        return self.channel.stream_stream(f"/rpc.Profile/{method}", serialise, parse)

    def ask(self, method, profile):
        """Begins a call that lets the host ask something."""
        return getattr(self.stub, method).future(
            profile_id(profile), timeout=programs.PATIENCE_SECONDS
        )

    def ask_for_file(self, profile, path):
        return self.stub.CreateBrowser.future(
            profile_pb2.BrowserOptions(profile_id=profile_id(profile), url=path),
            timeout=programs.PATIENCE_SECONDS,
        )

    def publish(self, profile):
        return int(self.ask("Name", profile).result().value)

    def publish_text(self, profile, text):
        request = profile_pb2.SetAcceptLanguageRequest(
            profile_id=profile_id(profile), accept_language=text
        )
        self.stub.SetAcceptLanguage(request, timeout=programs.PATIENCE_SECONDS)

    def count(self, what, profile):
        counts = self.ask("GetUserAgentMetadata", profile).result().brands
        return next(int(count.version) for count in counts if count.brand == what)

    def wait_for(self, what, count, profile=""):
        """Asks until the host has so many; what a client sends arrives in the host's own time."""
        end = time.monotonic() + programs.PATIENCE_SECONDS
        while (found := self.count(what, profile)) != count:
            if time.monotonic() > end:
                raise AssertionError(f"{found} {what} of {profile!r} instead of {count}")

    def subscribe_to_network(self, *profiles):
        stream = Stream(self.stub.WhenNetworkChanged)
        for profile in profiles:
            before = self.count("subscribers", profile)
            stream.send(subscription(profile))
            self.wait_for("subscribers", before + 1, profile)
        return stream

    def answer_for_files(self, profile, **options):
        stream = Stream(self.stub.OnCanAccessFile, **options)
        stream.send(files(profile, subscribe=True))
        self.wait_for("file answerers", 1, profile)
        return stream

    def answer_for_credentials(self, profile):
        stream = Stream(self.stub.OnAuthenticate)
        stream.send(credentials(profile, subscribe=True))
        self.wait_for("credentials answerers", 1, profile)
        return stream

    def close(self):
        self.channel.close()


class GrpcppStream:
    """One stream of grpc++, in a process of its own."""

    def __init__(self, target, profile, what, count):
        self.process = subprocess.Popen(
            [GRPCPP_STREAM_CLIENT, target, profile, what, str(count)],
            stdout=subprocess.PIPE,
            text=True,
        )

    def line(self):
        return json.loads(self.process.stdout.readline())

    def end(self):
        """The lines that are left; the last one is the status."""
        lines = [json.loads(line) for line in self.process.stdout]
        self.process.wait(programs.PATIENCE_SECONDS)
        return lines

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


class StreamTests:
    """What holds over every kind of socket."""

    def listen_address(self, folder):
        raise NotImplementedError

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.host = programs.Host(self.listen_address(folder.name), program=STREAM_HOST)
        self.addCleanup(self.host.__exit__)
        self.addCleanup(self.assert_host_stops_well)
        self.address = self.host.addresses[0]
        self.client = self.new_client()

    def assert_host_stops_well(self):
        status = self.host.process.poll()
        if status is None:
            status = self.host.stop()
        self.assertEqual(status, 0, self.host.stderr())

    def new_client(self):
        client = Client(self.address)
        self.addCleanup(client.close)
        return client

    def grpcpp(self, profile, what, count=0):
        stream = GrpcppStream(self.address, profile, what, count)
        self.addCleanup(stream.close)
        return stream

    def assert_fails(self, call, code, text=""):
        with self.assertRaises(grpc.RpcError) as caught:
            call.result()
        self.assertEqual(caught.exception.code(), code)
        self.assertIn(text, caught.exception.details())

    def assert_ended(self, stream, code, text=""):
        """The stream has ended so; the host serves on, and keeps nothing of it."""
        found, details, _ = stream.end()
        self.assertEqual(found, code, details)
        self.assertIn(text, details)
        self.client.wait_for("streams", 0)

    # Events.

    def test_event_reaches_the_client_that_subscribed(self):
        stream = self.client.subscribe_to_network("P")

        self.assertEqual(self.client.publish("Q"), 0)
        self.assertEqual(self.client.publish("P"), 1)

        event = stream.receive()
        self.assertTrue(event.online)
        self.assertEqual(event.profile_id.value, "P")

    def test_events_arrive_in_the_order_in_which_they_were_published(self):
        stream = self.client.subscribe_to_network("P")

        for i in range(50):
            self.client.publish_text("P", str(i))

        names = [stream.receive().interfaces[0].name for _ in range(50)]
        self.assertEqual(names, [str(i) for i in range(50)])

    def test_stream_may_subscribe_under_two_profiles_and_leave_one(self):
        stream = self.client.subscribe_to_network("P", "Q")
        self.client.publish("P")
        self.client.publish("Q")
        self.assertEqual([stream.receive().profile_id.value for _ in "PQ"], ["P", "Q"])

        stream.send(subscription("P", UNSUBSCRIBE))
        self.client.wait_for("subscribers", 0, "P")

        self.assertEqual(self.client.publish("P"), 0)
        self.assertEqual(self.client.publish("Q"), 1)
        self.assertEqual(stream.receive().profile_id.value, "Q")

    def test_absent_key_is_the_default_profile(self):
        stream = Stream(self.client.stub.WhenNetworkChanged)
        stream.send(event_subscription_pb2.EventSubscription(action=SUBSCRIBE))
        self.client.wait_for("subscribers", 1, "")

        self.assertEqual(self.client.publish(""), 1)

        self.assertTrue(stream.receive().online)

    def test_half_close_ends_an_event_stream_with_ok(self):
        stream = self.client.subscribe_to_network("P")

        stream.half_close()

        self.assert_ended(stream, grpc.StatusCode.OK)
        self.assertEqual(self.client.publish("P"), 0)

    def test_cancelled_event_stream_is_forgotten_and_others_are_not(self):
        cancelled = self.client.subscribe_to_network("P")
        kept = self.client.subscribe_to_network("P")

        cancelled.cancel()
        self.client.wait_for("streams", 1)

        self.assertEqual(self.client.publish("P"), 1)
        self.assertTrue(kept.receive().online)

    def test_hundred_streams_share_a_connection(self):
        streams = [Stream(self.client.stub.WhenNetworkChanged) for _ in range(100)]
        for stream in streams:
            stream.send(subscription("P"))
        self.client.wait_for("subscribers", 100, "P")

        self.assertEqual(self.client.publish("P"), 100)

        for stream in streams:
            self.assertTrue(stream.receive().online)
        for stream in streams:
            stream.half_close()
        for stream in streams:
            self.assertEqual(stream.end()[0], grpc.StatusCode.OK)
        self.client.wait_for("streams", 0)

    # Questions.

    def test_answer_reaches_the_asker(self):
        stream = self.client.answer_for_files("P")
        for allow, answer in ((True, "allowed"), (False, "refused")):
            call = self.client.ask("Path", "P")

            question = stream.receive()
            stream.send(file_answer(question, allow))

            self.assertEqual(question.profile_id.value, "P")
            self.assertEqual(question.request.path, "/etc/motd")
            self.assertEqual(question.request.access, profile_pb2.CanAccessFile.READ)
            self.assertNotEqual(question.call_id, 0)
            self.assertEqual(call.result().value, answer)

    def test_answers_may_come_in_another_order_than_the_questions(self):
        stream = self.client.answer_for_files("P")
        calls = {f"/{i}": self.client.ask_for_file("P", f"/{i}") for i in range(20)}
        questions = [stream.receive() for _ in calls]

        for question in reversed(questions):
            stream.send(file_answer(question, question.request.path.endswith("7")))

        allowed = [path for path, call in calls.items() if call.result().value == 1]
        self.assertEqual(allowed, ["/7", "/17"])

    def test_credentials_are_given_or_refused(self):
        stream = self.client.answer_for_credentials("P")

        call = self.client.ask("GetUserAgent", "P")
        question = stream.receive()
        stream.send(credentials_answer(question, username="zoë", password="pass"))
        self.assertEqual(question.request.scheme, "basic")
        self.assertEqual(call.result().value, "zoë:pass")

        call = self.client.ask("GetUserAgent", "P")
        stream.send(credentials_answer(stream.receive(), cancel=True))
        self.assertEqual(call.result().value, "cancel")

    def test_error_of_the_client_fails_the_question_and_nothing_else(self):
        stream = self.client.answer_for_files("P")
        call = self.client.ask("Path", "P")
        question = stream.receive()

        stream.send(files("P", call_id=question.call_id, error="no such page"))

        self.assert_fails(call, grpc.StatusCode.ABORTED)
        call = self.client.ask("Path", "P")
        stream.send(file_answer(stream.receive(), True))
        self.assertEqual(call.result().value, "allowed")

    def test_question_whose_time_is_up_is_withdrawn(self):
        stream = self.client.answer_for_files("P")

        call = self.client.ask("GetAcceptLanguage", "P")

        question = stream.receive()
        withdrawal = stream.receive()
        self.assertEqual(withdrawal.error, "withdrawn")
        self.assertEqual(withdrawal.call_id, question.call_id)
        self.assertEqual(withdrawal.profile_id.value, "P")
        self.assert_fails(call, grpc.StatusCode.DEADLINE_EXCEEDED)
        # An answer that is late is nobody's, and does no harm.
        stream.send(file_answer(question, True))
        call = self.client.ask("Path", "P")
        stream.send(file_answer(stream.receive(), False))
        self.assertEqual(call.result().value, "refused")

    def test_nobody_is_asked_when_nobody_answers(self):
        self.assert_fails(self.client.ask("Path", "P"), grpc.StatusCode.NOT_FOUND)

    def test_client_that_stops_to_answer_is_not_asked(self):
        stream = self.client.answer_for_files("P")
        call = self.client.ask("Path", "P")
        stream.receive()

        stream.send(files("P", subscribe=False))

        self.assert_fails(call, grpc.StatusCode.CANCELLED)
        self.assert_fails(self.client.ask("Path", "P"), grpc.StatusCode.NOT_FOUND)
        stream.half_close()
        self.assert_ended(stream, grpc.StatusCode.OK)

    def test_last_of_two_clients_for_one_profile_is_asked(self):
        first = self.client.answer_for_files("P")
        before = self.client.ask("Path", "P")
        question = first.receive()
        second = Stream(self.new_client().stub.OnCanAccessFile)
        second.send(files("P", subscribe=True))
        # Messages of one stream stay in order: when this one has arrived, so has the other.
        second.send(files("Q", subscribe=True))
        self.client.wait_for("file answerers", 1, "Q")

        after = self.client.ask("Path", "P")
        second.send(file_answer(second.receive(), False))
        first.send(file_answer(question, True))

        self.assertEqual(before.result().value, "allowed")
        self.assertEqual(after.result().value, "refused")
        # The first one's end takes nothing away from the second.
        first.half_close()
        self.assertEqual(first.end()[0], grpc.StatusCode.OK)
        self.client.wait_for("file answerers", 1, "P")

    def test_half_close_ends_a_callback_stream_with_ok_and_its_questions(self):
        stream = self.client.answer_for_files("P")
        call = self.client.ask("Path", "P")
        stream.receive()

        stream.half_close()

        self.assert_ended(stream, grpc.StatusCode.OK)
        self.assert_fails(call, grpc.StatusCode.CANCELLED)
        self.assert_fails(self.client.ask("Path", "P"), grpc.StatusCode.NOT_FOUND)

    def test_cancelled_callback_stream_is_forgotten(self):
        stream = self.client.answer_for_files("P")
        call = self.client.ask("Path", "P")
        stream.receive()

        stream.cancel()

        self.assert_fails(call, grpc.StatusCode.CANCELLED)
        self.client.wait_for("streams", 0)
        self.assert_fails(self.client.ask("Path", "P"), grpc.StatusCode.NOT_FOUND)

    # What a client may send.

    def test_callback_message_without_a_meaning_ends_its_stream_alone(self):
        healthy = self.client.answer_for_files("healthy")
        for message, text in (
            (profile_pb2.CanAccessFile(), "not none of them"),
            (files("P", call_id=7), "not none of them"),
            (files("P", request=profile_pb2.CanAccessFile.Request()), "not `request`"),
        ):
            stream = self.client.answer_for_files("P")

            stream.send(message)

            code, details, _ = stream.end()
            self.assertEqual(code, grpc.StatusCode.INVALID_ARGUMENT)
            self.assertIn("rpc.CanAccessFile", details)
            self.assertIn(text, details)
        call = self.client.ask("Path", "healthy")
        healthy.send(file_answer(healthy.receive(), True))
        self.assertEqual(call.result().value, "allowed")

    def test_bytes_that_do_not_parse_end_their_stream(self):
        for method, type_name in (
            ("WhenNetworkChanged", "rpc.EventSubscription"),
            ("OnCanAccessFile", "rpc.CanAccessFile"),
            ("OnAuthenticate", "rpc.Authenticate"),
        ):
            stream = Stream(self.client.raw(method))

            stream.send(b"\x0a\x7f")

            self.assert_ended(stream, grpc.StatusCode.INVALID_ARGUMENT, type_name)

    def test_too_many_subscriptions_end_their_stream(self):
        stream = Stream(self.client.stub.WhenNetworkChanged)

        for i in range(257):
            stream.send(subscription(str(i)))

        self.assert_ended(stream, grpc.StatusCode.RESOURCE_EXHAUSTED, "256 subscriptions")
        self.assertEqual(self.client.publish("0"), 0)

    def test_too_many_subscription_messages_end_their_stream(self):
        stream = Stream(self.client.stub.OnCanAccessFile)

        for i in range(4097):
            stream.send(files("P", subscribe=i % 2 == 0))

        self.assert_ended(stream, grpc.StatusCode.RESOURCE_EXHAUSTED, "4096 subscription messages")

    def test_metadata_and_unknown_framings_mean_nothing(self):
        stream = self.client.answer_for_files(
            "P", metadata=(("x-trace", "1"), ("x-blob-bin", b"\x00\xff"), ("varnic-framing", "?"))
        )
        call = self.client.ask("Path", "P")

        stream.send(file_answer(stream.receive(), True))

        self.assertEqual(call.result().value, "allowed")

    def test_client_may_choose_envelopes(self):
        envelope_type = stream_message_pb2.StreamMessage
        method = self.client.raw(
            "OnCanAccessFile", envelope_type.SerializeToString, envelope_type.FromString
        )
        stream = Stream(method, metadata=(("varnic-framing", "envelope"),))
        control = files("P", subscribe=True)
        stream.send(envelope_type(payload=control.SerializeToString()))
        self.client.wait_for("file answerers", 1, "P")

        call = self.client.ask("Path", "P")
        question = stream.receive()
        message = profile_pb2.CanAccessFile.FromString(question.payload)
        self.assertEqual(message.request.path, "/etc/motd")
        answer = files("P", response=profile_pb2.CanAccessFile.Response(allow=True))
        stream.send(
            envelope_type(payload=answer.SerializeToString(), call_id=question.call_id)
        )
        self.assertEqual(call.result().value, "allowed")

        call = self.client.ask("Path", "P")
        error = envelope_type(
            payload=files("P").SerializeToString(),
            call_id=stream.receive().call_id,
            kind=envelope_type.ERROR,
        )
        stream.send(error)
        self.assert_fails(call, grpc.StatusCode.ABORTED)

        call = self.client.ask("Path", "P")
        # An error text makes an error of a message, however its envelope is marked.
        error = envelope_type(
            payload=files("P", error="no such page").SerializeToString(),
            call_id=stream.receive().call_id,
        )
        stream.send(error)
        self.assert_fails(call, grpc.StatusCode.ABORTED)

        call = self.client.ask("GetAcceptLanguage", "P")
        question = stream.receive()
        withdrawal = stream.receive()
        self.assertEqual(withdrawal.kind, envelope_type.ERROR)
        self.assertEqual(withdrawal.call_id, question.call_id)
        self.assert_fails(call, grpc.StatusCode.DEADLINE_EXCEEDED)

    # Sizes.

    def test_long_questions_answers_and_events_arrive_whole(self):
        file_stream = self.client.answer_for_files("P")
        credentials_stream = self.client.answer_for_credentials("P")
        event_stream = self.client.subscribe_to_network("P")
        for size in (64 << 10, 3 << 20):
            text = "0123456789abcdef" * (size // 16)

            call = self.client.ask_for_file("P", text)
            question = file_stream.receive()
            self.assertTrue(question.request.path == text, size)
            file_stream.send(file_answer(question, True))
            self.assertEqual(call.result().value, 1)

            call = self.client.ask("GetUserAgent", "P")
            question = credentials_stream.receive()
            credentials_stream.send(credentials_answer(question, username=text, password="p"))
            self.assertTrue(call.result().value == text + ":p", size)

            self.client.publish_text("P", text)
            self.assertTrue(event_stream.receive().interfaces[0].name == text, size)

    def test_message_past_the_limit_ends_its_stream_and_its_question(self):
        stream = self.client.answer_for_credentials("P")
        call = self.client.ask("GetUserAgent", "P")
        question = stream.receive()

        stream.send(credentials_answer(question, username="x" * (5 << 20)))

        self.assert_ended(stream, grpc.StatusCode.RESOURCE_EXHAUSTED, str(4 << 20))
        self.assert_fails(call, grpc.StatusCode.CANCELLED)

    def test_compressed_message_ends_its_stream(self):
        stream = Stream(self.client.stub.WhenNetworkChanged, compression=grpc.Compression.Gzip)

        stream.send(subscription("P" * 1000))

        self.assert_ended(stream, grpc.StatusCode.UNIMPLEMENTED)

    def test_client_that_does_not_read_loses_its_stream(self):
        stream = self.new_client().answer_for_files("P")
        calls = []

        while self.client.count("streams", "P") == 1:
            calls.append(self.client.ask_for_file("P", "x" * (1 << 20)))

        self.assert_ended(stream, grpc.StatusCode.RESOURCE_EXHAUSTED)
        for call in calls:
            with self.assertRaises(grpc.RpcError):
                call.result()

    def test_stream_ends_at_its_deadline(self):
        stream = self.client.answer_for_files("P")
        hurried = Stream(self.client.stub.WhenNetworkChanged, seconds=0.1)

        self.assertEqual(hurried.end()[0], grpc.StatusCode.DEADLINE_EXCEEDED)

        self.client.wait_for("streams", 1)
        stream.half_close()
        self.assert_ended(stream, grpc.StatusCode.OK)

    # Ends of processes.

    def test_drain_ends_every_stream_and_then_the_process(self):
        events = [self.client.subscribe_to_network("P") for _ in range(10)]
        answerer = self.new_client().answer_for_files("P")
        call = self.client.ask("Path", "P")
        answerer.receive()

        status = self.host.stop()

        # A client that was writing meanwhile may see no more than the end of the connection.
        for stream in [*events, answerer]:
            self.assertEqual(stream.end()[0], grpc.StatusCode.UNAVAILABLE)
        self.assertIn(
            call.exception().code(), (grpc.StatusCode.CANCELLED, grpc.StatusCode.UNAVAILABLE)
        )
        self.assertEqual(status, 0, self.host.stderr())

    def test_killed_client_ends_its_question(self):
        killed = self.grpcpp("P", "hold")
        self.client.wait_for("file answerers", 1, "P")
        call = self.client.ask("Path", "P")
        self.assertEqual(killed.line()["request"]["path"], "/etc/motd")

        killed.process.kill()

        self.assert_fails(call, grpc.StatusCode.CANCELLED)
        self.client.wait_for("streams", 0)
        self.assert_fails(self.client.ask("Path", "P"), grpc.StatusCode.NOT_FOUND)

    # grpc++.

    def test_grpcpp_gets_events(self):
        stream = self.grpcpp("P", "events", 20)
        self.client.wait_for("subscribers", 1, "P")

        for i in range(20):
            self.client.publish_text("P", str(i))

        *events, status = stream.end()
        self.assertEqual([event["profileId"]["value"] for event in events], ["P"] * 20)
        names = [event["interfaces"][0]["name"] for event in events]
        self.assertEqual(names, [str(i) for i in range(20)])
        self.assertEqual(status, {"code": 0, "message": ""})
        self.client.wait_for("streams", 0)

    def test_grpcpp_answers_questions(self):
        stream = self.grpcpp("P", "answer", 3)
        self.client.wait_for("file answerers", 1, "P")

        for path, answer in (("/etc/motd", 1), ("/secret/key", 0), ("/" + "x" * (3 << 20), 1)):
            call = self.client.ask_for_file("P", path)
            self.assertTrue(stream.line()["request"]["path"] == path)
            self.assertEqual(call.result().value, answer)

        self.assertEqual(stream.end(), [{"code": 0, "message": ""}])

    def test_grpcpp_fails_questions(self):
        stream = self.grpcpp("P", "fail", 1)
        self.client.wait_for("file answerers", 1, "P")

        self.assert_fails(self.client.ask("Path", "P"), grpc.StatusCode.ABORTED)

        self.assertEqual(stream.end()[-1], {"code": 0, "message": ""})

    def test_grpcpp_is_told_that_the_host_shuts_down(self):
        stream = self.grpcpp("P", "hold")
        self.client.wait_for("file answerers", 1, "P")

        status = self.host.stop()

        self.assertEqual([line["code"] for line in stream.end()], [14])
        self.assertEqual(status, 0, self.host.stderr())


class UnixStreamTest(StreamTests, unittest.TestCase):
    def listen_address(self, folder):
        return f"unix:{folder}/host.sock"


class TcpStreamTest(StreamTests, unittest.TestCase):
    def listen_address(self, folder):
        return "127.0.0.1:0"


if __name__ == "__main__":
    unittest.main()
