"""What a client says to a stream_host: the messages of rpc.Profile, and a connection that knows the
host's methods."""

import time

# Finds the modules of the messages.
import foreign  # noqa: F401  pylint: disable=unused-import

# pylint: disable=wrong-import-order
from rpc import event_subscription_pb2, identifiers_pb2
from rpc.profile import profile_pb2

import programs

SUBSCRIBE = event_subscription_pb2.EventSubscription.SUBSCRIBE
UNSUBSCRIBE = event_subscription_pb2.EventSubscription.UNSUBSCRIBE


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


class Peer:
    """A connection of a client to a stream_host."""

    def __init__(self, channel):
        self.channel = channel

    def call(self, method, request, **options):
        return self.channel.call(f"/rpc.Profile/{method}", request, **options)

    def open(self, method, **options):
        return self.channel.open(f"/rpc.Profile/{method}", **options)

    def ask(self, method, profile, **options):
        """Begins a call that lets the host ask something."""
        return self.call(method, profile_id(profile), **options)

    def ask_for_file(self, profile, path):
        return self.call(
            "CreateBrowser",
            profile_pb2.BrowserOptions(profile_id=profile_id(profile), url=path),
        )

    def publish(self, profile):
        return int(self.ask("Name", profile).result().value)

    def publish_text(self, profile, text):
        request = profile_pb2.SetAcceptLanguageRequest(
            profile_id=profile_id(profile), accept_language=text
        )
        self.call("SetAcceptLanguage", request).result()

    def count(self, what, profile=""):
        counts = self.ask("GetUserAgentMetadata", profile).result().brands
        return next(int(count.version) for count in counts if count.brand == what)

    def wait_for(self, what, count, profile=""):
        """Asks until the host has so many; what a client sends arrives in the host's own time."""
        end = time.monotonic() + programs.PATIENCE_SECONDS
        while (found := self.count(what, profile)) != count:
            if time.monotonic() > end:
                raise AssertionError(f"{found} {what} of {profile!r} instead of {count}")

    def subscribe_to_network(self, *profiles):
        stream = self.open("WhenNetworkChanged")
        for profile in profiles:
            before = self.count("subscribers", profile)
            stream.send(subscription(profile))
            self.wait_for("subscribers", before + 1, profile)
        return stream

    def answer_for_files(self, profile, **options):
        stream = self.open("OnCanAccessFile", **options)
        stream.send(files(profile, subscribe=True))
        self.wait_for("file answerers", 1, profile)
        return stream

    def answer_for_credentials(self, profile):
        stream = self.open("OnAuthenticate")
        stream.send(credentials(profile, subscribe=True))
        self.wait_for("credentials answerers", 1, profile)
        return stream
