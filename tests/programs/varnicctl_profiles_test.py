"""The commands of varnicctl about what a host has: as a person, a program, and somebody else's client
see it. The host's browsers are nothing but entries in a list."""

import json
import os
import pathlib
import queue
import shutil
import signal
import sys
import tempfile
import unittest

import grpc

import programs
from ctl_process import HARMFUL, HOSTILE, Ctl

STUBS = os.environ["VARNIC_PYTHON_STUBS"]
sys.path.insert(0, STUBS)
# The generated modules are in the package of gRPC itself.
grpc.__path__.append(f"{STUBS}/grpc")
# pylint: disable=wrong-import-position
from google.protobuf import empty_pb2  # noqa: E402
from grpc.reflection.v1 import reflection_pb2, reflection_pb2_grpc  # noqa: E402
from rpc import event_subscription_pb2, identifiers_pb2  # noqa: E402
from rpc.host import browser_host_pb2, browser_host_pb2_grpc  # noqa: E402

HOST = os.environ["VARNIC_LISTED_PROFILES_HOST"]


class ProfilesTestCase(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        self.target = f"unix:{self.folder}/host.sock"

    def start_host(self):
        host = programs.Host(self.target, program=HOST)
        self.addCleanup(host.__exit__)
        self.assertNotEqual(host.addresses, [], host.stderr())
        return host

    def call(self, *arguments):
        result = programs.ctl("--target", self.target, *arguments)
        self.assertEqual((result.returncode, result.stderr), (0, ""), arguments)
        return result.stdout

    def assert_fails(self, arguments, status, *texts):
        result = programs.ctl("--target", self.target, *arguments)
        self.assertEqual((result.returncode, result.stdout), (status, ""), result.stderr)
        for text in texts:
            self.assertIn(text, result.stderr)

    def start(self, *arguments):
        ctl = Ctl("--target", self.target, *arguments)
        self.addCleanup(ctl.close)
        return ctl


class ProfilesTest(ProfilesTestCase):
    def test_people_read_tables(self):
        self.start_host()
        self.assertEqual(self.call("new-profile", "For work"), "profile-1\n")
        self.assertEqual(
            self.call("create-browser", "--headless", "--url", "https://example.com/"), "1\n"
        )
        self.assertEqual(self.call("create-browser", "--incognito"), "2\n")

        self.assertEqual(
            self.call("profiles"),
            "ID                   NAME        STATE               BROWSERS\n"
            "default              default     default, running    1\n"
            'profile-1            "For work"  -                   0\n'
            "default-incognito-1  default     incognito, running  1\n",
        )
        self.assertEqual(
            self.call("browsers"),
            "ID  PROFILE              KIND      URL                   TITLE\n"
            '1   default              headless  https://example.com/  ""\n'
            '2   default-incognito-1  window    about:blank           ""\n',
        )
        self.assertEqual(self.call("browsers", "profile-1"), "ID  PROFILE  KIND  URL  TITLE\n")

    def test_programs_read_json(self):
        self.start_host()
        profile = json.loads(self.call("--json", "new-profile"))
        self.assertEqual((profile["id"]["value"], profile["name"]), ("profile-1", "profile-1"))
        self.call("create-browser", "profile-1")

        profiles = json.loads(self.call("--json", "profiles"))["profiles"]
        browsers = json.loads(self.call("--json", "browsers", "profile-1"))["browsers"]

        self.assertEqual([each["isDefault"] for each in profiles], [True, False])
        self.assertEqual(profiles[1]["browsers"], browsers)
        self.assertEqual(browsers[0]["url"], "about:blank")

    def test_what_is_deleted_or_closed_is_gone(self):
        self.start_host()
        profile = self.call("new-profile").strip()
        browser = self.call("create-browser", profile).strip()

        self.assertEqual(self.call("close-browser", browser), "")
        self.assertEqual(self.call("delete-profile", profile), "")

        self.assert_fails(["close-browser", browser], 15, "varnicctl browsers")
        self.assert_fails(["delete-profile", profile], 15, profile, "varnicctl profiles")
        self.assert_fails(["browsers", profile], 15, profile)
        self.assert_fails(["delete-profile", "default"], 19, "default profile")

    def test_names_do_nothing_to_the_terminal(self):
        self.start_host()
        self.call("new-profile", HOSTILE)
        table = self.call("profiles")
        self.assertNotRegex(table, HARMFUL)
        self.assertEqual(table.count("\n"), 3)

    def test_wrong_command_line_is_a_usage_error(self):
        for arguments, text in (
            (["profiles", "default"], "default"),
            (["new-profile", "For", "work"], "work"),
            (["delete-profile"], "the id of a profile"),
            (["close-browser"], "the id of a browser"),
            (["close-browser", "first"], "first"),
            (["watch-profiles", "--timeout", "1"], "--timeout"),
        ):
            self.assert_fails(arguments, 2, text, "--help")

    def test_help_names_the_commands(self):
        text = self.call("help")
        for command in ("profiles", "new-profile", "delete-profile", "browsers", "close-browser",
                        "watch-profiles"):
            self.assertRegex(text, rf"\n  {command} ")
        self.assertIn('"absent"', self.call("help", "watch-profiles"))


class WatchProfilesTest(ProfilesTestCase):
    def test_people_read_what_happens(self):
        self.start_host()
        ctl = self.start("watch-profiles")
        ctl.out.wait_for("is there: .*\n")

        self.call("new-profile", "Work")
        ctl.out.wait_for("created: .*\n")
        self.call("create-browser", "profile-1", "--headless")
        ctl.out.wait_for("opened: .*\n")
        self.call("set-accept-language", "A title", "profile-1")
        ctl.out.wait_for("shows .*\n")
        self.call("close-browser", "1")
        ctl.out.wait_for("closed\n")
        self.call("delete-profile", "profile-1")
        ctl.out.wait_for("deleted\n")

        self.assertEqual(ctl.stop(), 0)
        lines = [line[19:] for line in ctl.out.text.splitlines()]
        self.assertEqual(
            lines,
            [
                "  default              is there: default (default)",
                "  profile-1            created: Work",
                "  profile-1            started",
                '  profile-1            browser 1 opened: about:blank "" (headless)',
                '  profile-1            browser 1 shows https://example.com/ "A title"',
                "  profile-1            browser 1 closed",
                "  profile-1            deleted",
            ],
        )
        self.assertRegex(ctl.err.text, r"varnicctl: connected\n$")

    def test_programs_read_an_object_for_each_thing(self):
        self.start_host()
        ctl = self.start("--json", "watch-profiles", "default")
        self.assertEqual(ctl.json_line(1)["type"], "up")
        present = ctl.json_line(2)
        self.assertEqual(
            (present["type"], present["profile"], present["change"], present["state"]["isDefault"]),
            ("profile", "default", "present", True),
        )

        self.call("new-profile")
        self.call("create-browser")

        self.assertEqual(ctl.json_line(3)["change"], "started")
        opened = ctl.json_line(4)
        self.assertEqual(list(opened), ["time", "type", "profile", "change", "browser"])
        self.assertEqual((opened["type"], opened["change"]), ("browser", "opened"))
        self.assertEqual(opened["browser"]["id"], {"value": "1"})
        self.assertEqual(ctl.stop(signal.SIGTERM), 0)
        self.assertEqual((ctl.out.text.count("\n"), ctl.err.text), (4, ""))

    def test_profile_may_come_later(self):
        self.start_host()
        ctl = self.start("watch-profiles", "profile-1")
        ctl.out.wait_for("profile-1 .* is not there\n")
        self.call("new-profile")
        ctl.out.wait_for("profile-1 .* created: profile-1\n")

    def test_what_happens_without_a_connection_is_told_behind_it(self):
        host = self.start_host()
        self.call("create-browser")
        ctl = self.start("watch-profiles")
        ctl.out.wait_for("browser 1 is open: .*\n")

        host.process.kill()
        host.process.wait(programs.PATIENCE_SECONDS)
        ctl.err.wait_for("varnicctl: connection lost: .*\n")
        self.start_host()

        ctl.err.wait_for("varnicctl: connected again\n")
        ctl.out.wait_for("browser 1 closed\n")
        ctl.out.wait_for("stopped\n")

    def test_pages_do_nothing_to_the_terminal(self):
        self.start_host()
        self.call("create-browser")
        people = self.start("watch-profiles")
        program = self.start("--json", "watch-profiles")
        people.out.wait_for("is open.*\n")
        program.out.wait_for('"present".*\n', 2)

        self.call("set-accept-language", HOSTILE)

        people.out.wait_for("shows .*\n")
        program.out.wait_for('"shows".*\n')
        self.assertEqual(program.json_line(4)["browser"]["title"], HOSTILE)
        self.assertNotRegex(people.out.text + program.out.text, HARMFUL)
        self.assertEqual(people.out.text.count("\n"), 3)


class ForeignClientTest(ProfilesTestCase):
    """python3-grpcio with stubs of its own."""

    def setUp(self):
        super().setUp()
        self.start_host()
        self.channel = grpc.insecure_channel(self.target)
        self.addCleanup(self.channel.close)
        self.stub = browser_host_pb2_grpc.BrowserHostStub(self.channel)

    def test_unary_methods_are_called(self):
        created = self.stub.CreateProfile(browser_host_pb2.CreateProfileRequest(name="Work"))
        listed = self.stub.ListProfiles(empty_pb2.Empty())
        self.assertEqual([each.name for each in listed.profiles], ["default", "Work"])
        self.assertEqual(len(self.stub.ListBrowsers(created.id).browsers), 0)
        self.stub.DeleteProfile(created.id)
        with self.assertRaises(grpc.RpcError) as raised:
            self.stub.CloseBrowser(identifiers_pb2.BrowserId(value=9))
        self.assertEqual(raised.exception.code(), grpc.StatusCode.NOT_FOUND)

    def test_stream_tells_the_state_and_its_changes(self):
        outgoing = queue.SimpleQueue()
        stream = self.stub.WhenProfilesChanged(
            iter(outgoing.get, None), timeout=programs.PATIENCE_SECONDS
        )
        self.addCleanup(outgoing.put, None)
        subscription = event_subscription_pb2.EventSubscription
        outgoing.put(
            subscription(key=identifiers_pb2.ProfileId(value=""), action=subscription.SUBSCRIBE)
        )
        self.assertEqual([each.id.value for each in next(stream).profiles], ["default"])

        self.call("new-profile", "Work")

        self.assertEqual([each.name for each in next(stream).profiles], ["default", "Work"])

    def test_reflection_lists_the_service(self):
        request = reflection_pb2.ServerReflectionRequest
        stub = reflection_pb2_grpc.ServerReflectionStub(self.channel)
        questions = [
            request(list_services=""),
            request(file_containing_symbol="rpc.BrowserHost"),
        ]
        services, files = stub.ServerReflectionInfo(
            iter(questions), timeout=programs.PATIENCE_SECONDS
        )
        names = [each.name for each in services.list_services_response.service]
        self.assertIn("rpc.BrowserHost", names)
        self.assertIn(
            b"browser_host.proto", b"".join(files.file_descriptor_response.file_descriptor_proto)
        )


if __name__ == "__main__":
    unittest.main()
