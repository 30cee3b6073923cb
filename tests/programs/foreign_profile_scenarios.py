"""What a gRPC client that is not ours does with rpc.Profile, over each transport: all twelve methods,
answers and events, and everything that goes wrong. Which client, says $VARNIC_FOREIGN_CLIENT; see
stream_host.cc for what the host does when it is called."""

import os
import unittest

import foreign
from foreign import Code

# pylint: disable=wrong-import-order
from rpc import event_subscription_pb2
from rpc.profile import profile_pb2
from rpc.transport import stream_message_pb2

from profile_peer import (
    SUBSCRIBE, UNSUBSCRIBE, Peer, credentials_answer, file_answer, files, subscription,
)


class ProfileScenarios(foreign.Scenarios):
    host_program = os.environ["VARNIC_STREAM_HOST"]

    def setUp(self):
        self.peer = Peer(self.channel)
        # Streams that a test leaves open are not there for the next one.
        self.streams = []
        self.addCleanup(self.end_streams)

    def end_streams(self):
        for stream in self.streams:
            stream.cancel()
        self.peer.wait_for("streams", 0)

    def kept(self, stream):
        self.streams.append(stream)
        return stream

    # The same as the peer's, for streams that may still be open when the test ends.

    def open(self, method, **options):
        return self.kept(self.peer.open(method, **options))

    def subscribe_to_network(self, *profiles):
        return self.kept(self.peer.subscribe_to_network(*profiles))

    def answer_for_files(self, profile, **options):
        return self.kept(self.peer.answer_for_files(profile, **options))

    def answer_for_credentials(self, profile):
        return self.kept(self.peer.answer_for_credentials(profile))

    def assert_ended(self, stream, code, text=""):
        """The stream has ended so; the host serves on, and keeps nothing of it."""
        self.assert_ends(stream, code, text)
        self.peer.wait_for("streams", 0)

    def assert_answers(self, stream, profile):
        """The stream still answers questions."""
        call = self.peer.ask("Path", profile)
        stream.send(file_answer(stream.receive(), True))
        self.assertEqual(call.result().value, "allowed")

    # Unary calls.

    def test_every_unary_method_is_answered(self):
        self.assertEqual(self.peer.publish("P"), 0)
        self.peer.publish_text("P", "de")
        self.assertTrue(self.peer.ask("IsDefault", "").result().value)
        self.assertFalse(self.peer.ask("IsDefault", "P").result().value)
        self.assertFalse(self.peer.ask("IsIncognito", "P").result().value)
        self.assertEqual(self.peer.count("questions"), 0)
        for call in (self.peer.ask("Path", "P"), self.peer.ask_for_file("P", "/"),
                     self.peer.ask("GetAcceptLanguage", "P"), self.peer.ask("GetUserAgent", "P")):
            self.assert_ends(call, Code.NOT_FOUND)

    def test_unknown_method_is_unimplemented_by_name(self):
        for path, text in (("/rpc.Profile/Sing", "Unknown method Sing of service rpc.Profile"),
                           ("/rpc.Nobody/Path", "Unknown service rpc.Nobody")):
            call = self.channel.open(path, raw=True, unary=True)
            call.send(b"")

            self.assert_ends(call, Code.UNIMPLEMENTED, text)

    def test_request_that_does_not_parse_is_internal_by_type(self):
        call = self.peer.open("Path", raw=True)

        call.send(b"\x0a\x7f")

        self.assert_ends(call, Code.INTERNAL, "ProfileId")

    def test_metadata_reaches_the_host(self):
        blob = (("x-blob-bin", b"\x00\xff"), ("x-incognito", "yes"), ("x-trace", "a, b"))

        self.assertTrue(self.peer.ask("IsIncognito", "P", metadata=blob).result().value)

    def test_call_ends_at_its_deadline(self):
        stream = self.answer_for_files("P")

        call = self.peer.ask("Path", "P", seconds=0.2)

        self.assert_ends(call, Code.DEADLINE_EXCEEDED)
        # The host has not stopped to ask, and an answer that is late does no harm.
        stream.send(file_answer(stream.receive(), True))
        self.assert_answers(stream, "P")

    def test_cancelled_call_is_over_at_once(self):
        stream = self.answer_for_files("P")
        call = self.peer.ask("Path", "P")
        question = stream.receive()

        call.cancel()

        self.assert_ends(call, Code.CANCELLED)
        stream.send(file_answer(question, True))
        self.assert_answers(stream, "P")

    def test_request_past_the_limit_is_refused_with_both_sizes(self):
        call = self.peer.ask_for_file("P", "x" * (5 << 20))

        self.assert_ends(call, Code.RESOURCE_EXHAUSTED, str(4 << 20))

    def test_compressed_request_is_unimplemented_and_the_connection_stays(self):
        packed = Peer(self.new_channel(gzip=True))

        self.assert_ends(packed.ask("Name", "P" * 1000), Code.UNIMPLEMENTED, "Compressed")

        # Too short to be worth it for some; others have learned from grpc-accept-encoding.
        self.assertEqual(packed.publish("P"), 0)

    def test_many_calls_share_a_connection(self):
        calls = [self.peer.ask("Name", "P") for _ in range(200)]

        self.assertEqual({call.result().value for call in calls}, {"0"})

    # Events.

    def test_event_reaches_the_client_that_subscribed(self):
        stream = self.subscribe_to_network("P")

        self.assertEqual(self.peer.publish("Q"), 0)
        self.assertEqual(self.peer.publish("P"), 1)

        event = stream.receive()
        self.assertTrue(event.online)
        self.assertEqual(event.profile_id.value, "P")

    def test_events_arrive_in_the_order_in_which_they_were_published(self):
        stream = self.subscribe_to_network("P")

        for i in range(50):
            self.peer.publish_text("P", str(i))

        names = [stream.receive().interfaces[0].name for _ in range(50)]
        self.assertEqual(names, [str(i) for i in range(50)])

    def test_stream_may_subscribe_under_two_profiles_and_leave_one(self):
        stream = self.subscribe_to_network("P", "Q")
        self.peer.publish("P")
        self.peer.publish("Q")
        self.assertEqual([stream.receive().profile_id.value for _ in "PQ"], ["P", "Q"])

        stream.send(subscription("P", UNSUBSCRIBE))
        self.peer.wait_for("subscribers", 0, "P")

        self.assertEqual(self.peer.publish("P"), 0)
        self.assertEqual(self.peer.publish("Q"), 1)
        self.assertEqual(stream.receive().profile_id.value, "Q")

    def test_absent_key_is_the_default_profile(self):
        stream = self.open("WhenNetworkChanged")
        stream.send(event_subscription_pb2.EventSubscription(action=SUBSCRIBE))
        self.peer.wait_for("subscribers", 1, "")

        self.assertEqual(self.peer.publish(""), 1)

        self.assertTrue(stream.receive().online)

    def test_half_close_ends_an_event_stream_with_ok(self):
        stream = self.subscribe_to_network("P")

        stream.half_close()

        self.assert_ended(stream, Code.OK)
        self.assertEqual(self.peer.publish("P"), 0)

    def test_cancelled_event_stream_is_forgotten_and_others_are_not(self):
        cancelled = self.subscribe_to_network("P")
        kept = self.subscribe_to_network("P")

        cancelled.cancel()
        self.assert_ends(cancelled, Code.CANCELLED)
        self.peer.wait_for("streams", 1)

        self.assertEqual(self.peer.publish("P"), 1)
        self.assertTrue(kept.receive().online)

    def test_hundred_streams_share_a_connection(self):
        streams = [self.open("WhenNetworkChanged") for _ in range(100)]
        for stream in streams:
            stream.send(subscription("P"))
        self.peer.wait_for("subscribers", 100, "P")

        self.assertEqual(self.peer.publish("P"), 100)

        for stream in streams:
            self.assertTrue(stream.receive().online)
        for stream in streams:
            stream.half_close()
        for stream in streams:
            self.assert_ends(stream, Code.OK)
        self.peer.wait_for("streams", 0)

    # Questions.

    def test_answer_reaches_the_asker(self):
        stream = self.answer_for_files("P")
        for allow, answer in ((True, "allowed"), (False, "refused")):
            call = self.peer.ask("Path", "P")

            question = stream.receive()
            stream.send(file_answer(question, allow))

            self.assertEqual(question.profile_id.value, "P")
            self.assertEqual(question.request.path, "/etc/motd")
            self.assertEqual(question.request.access, profile_pb2.CanAccessFile.READ)
            self.assertNotEqual(question.call_id, 0)
            self.assertEqual(call.result().value, answer)

    def test_answers_may_come_in_another_order_than_the_questions(self):
        stream = self.answer_for_files("P")
        calls = {f"/{i}": self.peer.ask_for_file("P", f"/{i}") for i in range(20)}
        questions = [stream.receive() for _ in calls]

        for question in reversed(questions):
            stream.send(file_answer(question, question.request.path.endswith("7")))

        allowed = [path for path, call in calls.items() if call.result().value == 1]
        self.assertEqual(allowed, ["/7", "/17"])

    def test_credentials_are_given_or_refused(self):
        stream = self.answer_for_credentials("P")

        call = self.peer.ask("GetUserAgent", "P")
        question = stream.receive()
        stream.send(credentials_answer(question, username="zoë", password="pass"))
        self.assertEqual(question.request.scheme, "basic")
        self.assertEqual(call.result().value, "zoë:pass")

        call = self.peer.ask("GetUserAgent", "P")
        stream.send(credentials_answer(stream.receive(), cancel=True))
        self.assertEqual(call.result().value, "cancel")

    def test_error_of_the_client_fails_the_question_and_nothing_else(self):
        stream = self.answer_for_files("P")
        call = self.peer.ask("Path", "P")
        question = stream.receive()

        stream.send(files("P", call_id=question.call_id, error="no such page"))

        self.assert_ends(call, Code.ABORTED)
        self.assert_answers(stream, "P")

    def test_question_whose_time_is_up_is_withdrawn(self):
        stream = self.answer_for_files("P")

        call = self.peer.ask("GetAcceptLanguage", "P")

        question = stream.receive()
        withdrawal = stream.receive()
        self.assertEqual(withdrawal.error, "withdrawn")
        self.assertEqual(withdrawal.call_id, question.call_id)
        self.assertEqual(withdrawal.profile_id.value, "P")
        self.assert_ends(call, Code.DEADLINE_EXCEEDED)
        # An answer that is late is nobody's, and does no harm.
        stream.send(file_answer(question, True))
        self.assert_answers(stream, "P")

    def test_nobody_is_asked_when_nobody_answers(self):
        self.assert_ends(self.peer.ask("Path", "P"), Code.NOT_FOUND)

    def test_client_that_stops_to_answer_is_not_asked(self):
        stream = self.answer_for_files("P")
        call = self.peer.ask("Path", "P")
        stream.receive()

        stream.send(files("P", subscribe=False))

        self.assert_ends(call, Code.CANCELLED)
        self.assert_ends(self.peer.ask("Path", "P"), Code.NOT_FOUND)
        stream.half_close()
        self.assert_ended(stream, Code.OK)

    def test_last_of_two_clients_for_one_profile_is_asked(self):
        first = self.answer_for_files("P")
        before = self.peer.ask("Path", "P")
        question = first.receive()
        second = self.kept(Peer(self.new_channel()).open("OnCanAccessFile"))
        second.send(files("P", subscribe=True))
        # Messages of one stream stay in order: when this one has arrived, so has the other.
        second.send(files("Q", subscribe=True))
        self.peer.wait_for("file answerers", 1, "Q")

        after = self.peer.ask("Path", "P")
        second.send(file_answer(second.receive(), False))
        first.send(file_answer(question, True))

        self.assertEqual(before.result().value, "allowed")
        self.assertEqual(after.result().value, "refused")
        # The first one's end takes nothing away from the second.
        first.half_close()
        self.assert_ends(first, Code.OK)
        self.peer.wait_for("file answerers", 1, "P")

    def test_half_close_ends_a_callback_stream_with_ok_and_its_questions(self):
        stream = self.answer_for_files("P")
        call = self.peer.ask("Path", "P")
        stream.receive()

        stream.half_close()

        self.assert_ended(stream, Code.OK)
        self.assert_ends(call, Code.CANCELLED)
        self.assert_ends(self.peer.ask("Path", "P"), Code.NOT_FOUND)

    def test_cancelled_callback_stream_is_forgotten(self):
        stream = self.answer_for_files("P")
        call = self.peer.ask("Path", "P")
        stream.receive()

        stream.cancel()

        self.assert_ends(call, Code.CANCELLED)
        self.peer.wait_for("streams", 0)
        self.assert_ends(self.peer.ask("Path", "P"), Code.NOT_FOUND)

    # What a client may send.

    def test_callback_message_without_a_meaning_ends_its_stream_alone(self):
        healthy = self.answer_for_files("healthy")
        for message, text in (
            (profile_pb2.CanAccessFile(), "not none of them"),
            (files("P", call_id=7), "not none of them"),
            (files("P", request=profile_pb2.CanAccessFile.Request()), "not `request`"),
        ):
            stream = self.answer_for_files("P")

            stream.send(message)

            end = self.assert_ends(stream, Code.INVALID_ARGUMENT, "rpc.CanAccessFile")
            self.assertIn(text, end.text)
        self.assert_answers(healthy, "healthy")

    def test_bytes_that_do_not_parse_end_their_stream(self):
        for method, type_name in (
            ("WhenNetworkChanged", "rpc.EventSubscription"),
            ("OnCanAccessFile", "rpc.CanAccessFile"),
            ("OnAuthenticate", "rpc.Authenticate"),
        ):
            stream = self.open(method, raw=True)

            stream.send(b"\x0a\x7f")

            self.assert_ended(stream, Code.INVALID_ARGUMENT, type_name)

    def test_too_many_subscriptions_end_their_stream(self):
        stream = self.open("WhenNetworkChanged")

        for i in range(257):
            stream.send(subscription(str(i)))

        self.assert_ended(stream, Code.RESOURCE_EXHAUSTED, "256 subscriptions")
        self.assertEqual(self.peer.publish("0"), 0)

    def test_too_many_subscription_messages_end_their_stream(self):
        stream = self.open("OnCanAccessFile")

        for i in range(4097):
            stream.send(files("P", subscribe=i % 2 == 0))

        self.assert_ended(stream, Code.RESOURCE_EXHAUSTED, "4096 subscription messages")

    def test_metadata_and_unknown_framings_mean_nothing(self):
        stream = self.answer_for_files(
            "P", metadata=(("x-trace", "1"), ("x-blob-bin", b"\x00\xff"), ("varnic-framing", "?"))
        )

        self.assert_answers(stream, "P")

    def test_client_may_choose_envelopes(self):
        stream = self.open(
            "OnCanAccessFile", raw=True, metadata=(("varnic-framing", "envelope"),)
        )

        def send(message, **fields):
            stream.send(stream_message_pb2.StreamMessage(
                payload=message.SerializeToString(), **fields))

        def receive():
            return stream_message_pb2.StreamMessage.FromString(stream.receive())

        error_kind = stream_message_pb2.StreamMessage.ERROR
        send(files("P", subscribe=True))
        self.peer.wait_for("file answerers", 1, "P")

        call = self.peer.ask("Path", "P")
        question = receive()
        message = profile_pb2.CanAccessFile.FromString(question.payload)
        self.assertEqual(message.request.path, "/etc/motd")
        answer = files("P", response=profile_pb2.CanAccessFile.Response(allow=True))
        send(answer, call_id=question.call_id)
        self.assertEqual(call.result().value, "allowed")

        call = self.peer.ask("Path", "P")
        send(files("P"), call_id=receive().call_id, kind=error_kind)
        self.assert_ends(call, Code.ABORTED)

        call = self.peer.ask("Path", "P")
        # An error text makes an error of a message, however its envelope is marked.
        send(files("P", error="no such page"), call_id=receive().call_id)
        self.assert_ends(call, Code.ABORTED)

        call = self.peer.ask("GetAcceptLanguage", "P")
        question = receive()
        withdrawal = receive()
        self.assertEqual(withdrawal.kind, error_kind)
        self.assertEqual(withdrawal.call_id, question.call_id)
        self.assert_ends(call, Code.DEADLINE_EXCEEDED)

    # Sizes.

    def test_long_questions_answers_and_events_arrive_whole(self):
        file_stream = self.answer_for_files("P")
        credentials_stream = self.answer_for_credentials("P")
        event_stream = self.subscribe_to_network("P")
        for size in (64 << 10, 3 << 20):
            text = "0123456789abcdef" * (size // 16)

            call = self.peer.ask_for_file("P", text)
            question = file_stream.receive()
            self.assertTrue(question.request.path == text, size)
            file_stream.send(file_answer(question, True))
            self.assertEqual(call.result().value, 1)

            call = self.peer.ask("GetUserAgent", "P")
            question = credentials_stream.receive()
            credentials_stream.send(credentials_answer(question, username=text, password="p"))
            self.assertTrue(call.result().value == text + ":p", size)

            self.peer.publish_text("P", text)
            self.assertTrue(event_stream.receive().interfaces[0].name == text, size)

    def test_message_past_the_limit_ends_its_stream_and_its_question(self):
        stream = self.answer_for_credentials("P")
        call = self.peer.ask("GetUserAgent", "P")
        question = stream.receive()

        stream.send(credentials_answer(question, username="x" * (5 << 20)))

        self.assert_ended(stream, Code.RESOURCE_EXHAUSTED, str(4 << 20))
        self.assert_ends(call, Code.CANCELLED)

    def test_compressed_message_ends_its_stream(self):
        peer = Peer(self.new_channel(gzip=True))

        # At once: a client that has seen which encodings the host takes stops compressing.
        stream = self.kept(peer.open("WhenNetworkChanged", first=subscription("P" * 1000)))

        self.assert_ended(stream, Code.UNIMPLEMENTED)

    def test_client_that_does_not_read_loses_its_stream(self):
        stream = self.kept(Peer(self.new_channel()).open("OnCanAccessFile", read=False))
        stream.send(files("P", subscribe=True))
        self.peer.wait_for("file answerers", 1, "P")
        calls = []

        while self.peer.count("streams") == 1:
            calls.append(self.peer.ask_for_file("P", "x" * (1 << 20)))

        stream.read()
        self.assert_ended(stream, Code.RESOURCE_EXHAUSTED)
        for call in calls:
            self.assertNotEqual(call.end().code, Code.OK)

    def test_stream_ends_at_its_deadline(self):
        stream = self.answer_for_files("P")
        hurried = self.open("WhenNetworkChanged", seconds=0.1)

        self.assert_ends(hurried, Code.DEADLINE_EXCEEDED)

        self.peer.wait_for("streams", 1)
        stream.half_close()
        self.assert_ended(stream, Code.OK)

    # Ends of processes.

    def test_drain_ends_every_stream_and_then_the_process(self):
        host = self.start_host(self.addCleanup)
        peer = Peer(self.connect(host))
        events = [peer.subscribe_to_network("P") for _ in range(10)]
        answerer = Peer(self.connect(host)).answer_for_files("P")
        call = peer.ask("Path", "P")
        answerer.receive()

        status = host.stop()

        # A client that was writing meanwhile may see no more than the end of the connection.
        for stream in [*events, answerer]:
            self.assert_ends(stream, Code.UNAVAILABLE)
        self.assertIn(call.end().code, (Code.CANCELLED, Code.UNAVAILABLE))
        self.assertEqual(status, 0, host.stderr())

    def test_killed_client_ends_its_question(self):
        doomed = foreign.Client(self.client_name)
        self.addCleanup(doomed.close)
        connection = self.transport.connection(self.shared_host.addresses[0])
        stream = Peer(doomed.connect(**connection)).open("OnCanAccessFile")
        stream.send(files("P", subscribe=True))
        self.peer.wait_for("file answerers", 1, "P")
        call = self.peer.ask("Path", "P")
        self.assertEqual(stream.receive().request.path, "/etc/motd")

        doomed.kill()

        self.assert_ends(call, Code.CANCELLED)
        self.peer.wait_for("streams", 0)
        self.assert_ends(self.peer.ask("Path", "P"), Code.NOT_FOUND)


foreign.over_each_transport(ProfileScenarios, globals())


class CertificateScenarios(foreign.Scenarios):
    """Only where there are certificates."""

    host_program = os.environ["VARNIC_STREAM_HOST"]
    transport_type = foreign.Mtls

    def test_client_without_a_certificate_is_not_served(self):
        peer = Peer(self.new_channel(certificate=None, key=None))

        self.assert_ends(peer.ask("Name", "P"), Code.UNAVAILABLE)

    def test_host_of_an_unknown_authority_is_not_used(self):
        peer = Peer(self.new_channel(ca=self.transport.file("client.pem")))

        self.assert_ends(peer.ask("Name", "P"), Code.UNAVAILABLE)

    def test_client_without_tls_is_not_served(self):
        peer = Peer(self.new_channel(ca=None))

        self.assert_ends(peer.ask("Name", "P"), Code.UNAVAILABLE)


def load_tests(loader, *_):
    """The classes with a transport."""
    classes = [globals()[name] for name in foreign.TRANSPORTS] + [CertificateScenarios]
    return unittest.TestSuite(map(loader.loadTestsFromTestCase, classes))


if __name__ == "__main__":
    unittest.main()
