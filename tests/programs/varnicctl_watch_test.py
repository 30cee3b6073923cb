"""The commands of varnicctl that run until they are stopped, as a person or a program uses them."""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

import programs
from ctl_process import HARMFUL, HOSTILE, Ctl, CtlOnTerminal

STREAM_HOST = os.environ["VARNIC_STREAM_HOST"]
INTEROP_HOST = os.environ["VARNIC_INTEROP_HOST"]


class WatchTestCase(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)
        self.target = f"unix:{self.folder}/host.sock"

    def start_host(self, program=STREAM_HOST):
        host = programs.Host(self.target, program=program)
        self.addCleanup(host.__exit__)
        self.assertNotEqual(host.addresses, [], host.stderr())
        return host

    def closed_pipe(self):
        """A pipe that nobody reads."""
        reader, writer = os.pipe()
        os.close(reader)
        self.addCleanup(os.close, writer)
        return writer

    def full_pipe(self):
        """A pipe that takes nothing, as nobody has read it for long, and its other end."""
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        self.addCleanup(os.close, writer)
        os.set_blocking(writer, False)
        with self.assertRaises(BlockingIOError):
            while True:
                os.write(writer, b"." * 4096)
        os.set_blocking(writer, True)
        return writer, reader

    def kill(self, host):
        host.process.kill()
        host.process.wait(programs.PATIENCE_SECONDS)

    def start(self, *arguments, terminal=False, **options):
        start = CtlOnTerminal if terminal else Ctl
        ctl = start("--target", self.target, *arguments, **options)
        self.addCleanup(ctl.close)
        return ctl

    def call(self, *arguments):
        """What a unary call answers; it makes the host publish or ask something."""
        result = programs.ctl("--target", self.target, "--timeout", "50", *arguments)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout.rstrip("\n")

    def begin(self, *arguments):
        """A call that is answered later."""
        return self.start("--timeout", "50", *arguments)

    def assert_answer(self, call, answer):
        self.assertEqual(call.wait(), 0, call.err.text)
        self.assertEqual(call.out.text, answer + "\n")

    def count(self, what, profile=""):
        counts = json.loads(self.call("--json", "get-user-agent-metadata", profile))["brands"]
        return next(int(count["version"]) for count in counts if count["brand"] == what)

    def wait_for(self, what, count, profile=""):
        end = time.monotonic() + programs.PATIENCE_SECONDS
        while (found := self.count(what, profile)) != count:
            self.assertLess(time.monotonic(), end, f"{found} {what} instead of {count}")

    def start_watching(self, *arguments, profiles=("",), **options):
        ctl = self.start(*arguments, **options)
        for profile in profiles:
            self.wait_for("subscribers", 1, profile)
        return ctl

    def start_answering(self, kind, *arguments, profile="", **options):
        ctl = self.start(*arguments, **options)
        self.wait_for(f"{kind} answerers", 1, profile)
        return ctl


class WatchNetworkTest(WatchTestCase):
    def test_people_read_a_line_for_each_change(self):
        self.start_host()
        ctl = self.start_watching("watch-network", "P", "", profiles=("P", ""))

        self.call("name", "P")
        self.call("name")
        self.call("set-accept-language", "wlan 0", "P")

        ctl.out.wait_for("\n", 3)
        time_text = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d"
        self.assertRegex(
            ctl.out.text,
            rf"^{time_text}  P          online   unknown      unknown  -\n"
            rf"{time_text}  \(default\)  online   unknown      unknown  -\n"
            rf'{time_text}  P          offline  unknown      unknown  -            "wlan 0" .*\n$',
        )
        self.assertRegex(ctl.err.text, rf"^{time_text}  varnicctl: connected\n$")

    def test_programs_read_an_object_for_each_change(self):
        self.start_host()
        ctl = self.start_watching("--json", "watch-network", "--profile", "P", profiles=("P",))

        self.call("name", "P")

        self.assertEqual(ctl.json_line(1)["type"], "up")
        event = ctl.json_line(2)
        self.assertEqual(list(event), ["time", "type", "profile", "change"])
        self.assertRegex(event["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
        self.assertEqual((event["type"], event["profile"]), ("network", "P"))
        self.assertEqual(event["change"]["online"], True)
        self.assertEqual(event["change"]["connectionType"], "CONNECTION_TYPE_UNKNOWN")
        self.assertEqual(ctl.err.text, "")

    def test_signals_end_it_cleanly(self):
        self.start_host()
        for number in (signal.SIGINT, signal.SIGTERM):
            ctl = self.start_watching("watch-network", "P", profiles=("P",))
            self.call("name", "P")
            ctl.out.wait_for("\n")

            self.assertEqual(ctl.stop(number), 0)

            self.assertEqual(ctl.out.text.count("\n"), 1)
            self.assertTrue(ctl.out.text.endswith("\n") and ctl.err.text.endswith("\n"))
            self.wait_for("subscribers", 0, "P")

    def test_lost_host_is_told_and_found_again(self):
        host = self.start_host()
        people = self.start_watching("watch-network", "P", profiles=("P",))
        program = self.start("--json", "watch-network", "P")
        self.wait_for("subscribers", 2, "P")

        self.kill(host)

        people.err.wait_for(r"varnicctl: connection lost: .* \(UNAVAILABLE\); trying again (now|in )")
        down = program.json_line(2)
        self.assertEqual((down["type"], down["error"]["status"]), ("down", "UNAVAILABLE"))
        self.assertIsInstance(down["retryInSeconds"], (int, float))
        self.start_host()
        people.err.wait_for(r"varnicctl: connected again\n")
        self.wait_for("subscribers", 2, "P")
        self.call("name", "P")
        people.out.wait_for("online .*\n")
        program.out.wait_for('"type":"up".*\n', 2)
        program.out.wait_for('"type":"network".*\n')

    def test_host_may_come_later(self):
        ctl = self.start("watch-network")
        ctl.err.wait_for(
            r"varnicctl: no connection: .* \(UNAVAILABLE\); trying again in \d+\.\d s\n"
            r"Is a host listening there\?.*\n"
        )

        self.start_host()

        ctl.err.wait_for(r"varnicctl: connected\n")
        self.assertEqual(ctl.stop(), 0)

    def test_folder_of_the_default_host_has_to_be_private(self):
        folder = self.folder / "varnic"
        folder.mkdir()
        folder.chmod(0o777)
        environment = dict(os.environ, XDG_RUNTIME_DIR=str(self.folder))

        result = programs.ctl("watch-network", env=environment)

        self.assertEqual(result.returncode, 19)
        self.assertIn(str(folder), result.stderr)

    def test_signal_ends_the_search_for_a_host(self):
        ctl = self.start("watch-network")
        ctl.err.wait_for("no connection")
        self.assertEqual(ctl.stop(), 0)

    def test_stream_that_the_host_does_not_serve_is_a_failure(self):
        self.start_host(INTEROP_HOST)
        ctl = self.start("watch-network")
        self.assertEqual(ctl.wait(), 22)
        self.assertRegex(ctl.err.text, r"varnicctl: watch-network: .* \(UNIMPLEMENTED\)\n")
        ctl = self.start("--json", "watch-network")
        self.assertEqual(ctl.wait(), 22)
        self.assertEqual(json.loads(ctl.err.text)["error"]["status"], "UNIMPLEMENTED")

    def test_target_that_can_never_work_is_a_failure(self):
        ctl = Ctl("--target", "nowhere", "watch-network")
        self.addCleanup(ctl.close)
        self.assertEqual(ctl.wait(), 13)
        self.assertIn("nowhere", ctl.err.text)

    def test_output_that_cannot_be_written_ends_it(self):
        self.start_host()
        with open("/dev/full", "wb") as full:
            ctl = self.start_watching("watch-network", stdout=full)
            self.call("name")
            self.assertEqual(ctl.wait(), 1)
        self.assertIn("standard output", ctl.err.text)

    def test_reader_that_is_gone_ends_it(self):
        self.start_host()
        ctl = self.start_watching("watch-network", stdout=self.closed_pipe())
        self.call("name")
        self.assertEqual(ctl.wait(), 1)
        self.assertIn("standard output: Broken pipe", ctl.err.text)

    def test_standard_files_that_are_closed_stay_so(self):
        self.start_host()
        command = [programs.CTL, "--target", self.target, "watch-network"]
        ctl = subprocess.Popen(["sh", "-c", 'exec "$@" <&- >&-', "sh", *command],
                               stderr=subprocess.PIPE, text=True)
        self.addCleanup(ctl.communicate)
        self.addCleanup(ctl.kill)
        self.wait_for("subscribers", 1)

        self.call("name")

        _, errors = ctl.communicate(timeout=programs.PATIENCE_SECONDS)
        self.assertEqual(ctl.returncode, 1)
        self.assertIn("cannot write to the standard output: Bad file descriptor", errors)

    def test_names_of_interfaces_do_nothing_to_the_terminal(self):
        self.start_host()
        people = self.start_watching("watch-network")
        program = self.start("--json", "watch-network")
        self.wait_for("subscribers", 2)

        self.call("set-accept-language", HOSTILE)

        people.out.wait_for("\n")
        change = program.json_line(2)["change"]
        self.assertEqual(change["interfaces"][0]["name"], HOSTILE)
        self.assertNotRegex(people.out.text + program.out.text, HARMFUL)
        self.assertEqual(people.out.text.count("\n"), 1)


class AnswerFilesTest(WatchTestCase):
    def ask(self, path, profile=""):
        """Whether the client lets the host's page read a file."""
        return {"1": True, "0": False}[self.call("create-browser", profile, "--url", path)]

    def test_rules_answer(self):
        self.start_host()
        ctl = self.start_answering(
            "file", "answer-files", "--profile", "P", "--allow", "/home/**", "--allow", "/etc/*",
            "--deny", "**/.ssh", profile="P",
        )

        self.assertTrue(self.ask("/home/zoë/a.txt", "P"))
        self.assertTrue(self.ask("/etc/motd", "P"))
        self.assertFalse(self.ask("/etc/ssl/key", "P"))
        self.assertFalse(self.ask("/home/zoë/.ssh/id", "P"))
        self.assertFalse(self.ask("/home/zoë/../../etc/shadow", "P"))

        ctl.out.wait_for("\n", 5)
        lines = [line[19:] for line in ctl.out.text.splitlines()]
        self.assertEqual(
            lines,
            [
                '  P  allow      read    /home/zoë/a.txt  for ""  (--allow /home/**)',
                '  P  allow      read    /etc/motd  for ""  (--allow /etc/*)',
                '  P  deny       read    /etc/ssl/key  for ""  (no rule matches)',
                '  P  deny       read    /home/zoë/.ssh/id  for ""  (--deny **/.ssh)',
                '  P  deny       read    /home/zoë/../../etc/shadow  for ""  '
                "(not a plain absolute path)",
            ],
        )

    def test_programs_read_an_object_for_each_answer(self):
        self.start_host()
        ctl = self.start_answering("file", "--json", "answer-files", "--allow", "/a")

        self.ask("/a")
        self.ask("/" + HOSTILE)

        first, second = ctl.json_line(2), ctl.json_line(3)
        self.assertEqual(list(first), ["time", "type", "profile", "request", "answer", "reason"])
        self.assertEqual((first["type"], first["profile"], first["answer"]), ("file", "", "allow"))
        self.assertEqual(first["request"], {"path": "/a", "access": "READ", "origin": ""})
        self.assertEqual((second["request"]["path"], second["answer"]), ("/" + HOSTILE, "deny"))
        self.assertNotRegex(ctl.out.text, HARMFUL)

    def test_output_that_nobody_reads_does_not_stop_the_answers(self):
        self.start_host()
        writer, reader = self.full_pipe()
        ctl = self.start_answering(
            "file", "--json", "answer-files", "--allow", "/a", stdout=writer
        )
        for _ in range(3):
            self.assertTrue(self.ask("/a"))

        text = ""
        while text.count('"allow"') < 3:
            text += os.read(reader, 65536).decode()

        self.assertEqual(ctl.stop(), 0)

    def test_signal_ends_it_while_nobody_reads_its_output(self):
        self.start_host()
        for number in (signal.SIGINT, signal.SIGTERM):
            ctl = self.start_answering(
                "file", "answer-files", "--allow", "/a", stdout=self.full_pipe()[0]
            )
            self.assertTrue(self.ask("/a"))
            self.assertEqual(ctl.stop(number), 0)
            self.wait_for("file answerers", 0)

    def test_signal_ends_it_while_its_terminal_is_stopped(self):
        self.start_host()
        ctl = self.start_answering("file", "answer-files", "--ask", terminal=True)
        ctl.type("\x13")  # Ctrl-S.
        call = self.begin("create-browser", "--url", "/file")
        self.wait_for("questions", 1)

        self.assertEqual(ctl.stop(signal.SIGTERM), 0)

        self.assertNotEqual(call.wait(), 0)

    def test_folders_are_denied_with_a_slash_too(self):
        self.start_host()
        for glob in ("/home/zoë/", "/home/*/", "**/zoë/", "/"):
            ctl = self.start_answering("file", "answer-files", "--allow", "/**", "--deny", glob)
            self.assertFalse(self.ask("/home/zoë/a.txt"), glob)
            self.assertEqual(ctl.stop(), 0)
            self.wait_for("file answerers", 0)

    def test_signal_ends_the_answers(self):
        self.start_host()
        ctl = self.start_answering("file", "answer-files", "--allow", "/a")
        self.assertEqual(ctl.stop(), 0)
        self.wait_for("file answerers", 0)

    def test_answers_go_on_when_the_host_is_back(self):
        self.kill_and_start_again_under(
            self.start_host(), "answer-files", "--allow", "/a"
        )
        self.assertTrue(self.ask("/a"))

    def kill_and_start_again_under(self, host, *arguments, **options):
        ctl = self.start_answering("file", *arguments, **options)
        self.kill(host)
        ctl.err.wait_for("connection lost")
        self.start_host()
        ctl.err.wait_for("connected again")
        self.wait_for("file answerers", 1)
        return ctl

    def test_path_does_nothing_to_the_terminal(self):
        self.start_host()
        ctl = self.start_answering("file", "answer-files", "--allow", "/a", "--ask", terminal=True)
        call = self.begin("create-browser", "--url", "/" + HOSTILE)

        ctl.terminal.wait_for(r"\[y/N\] ")
        ctl.type("n\n")

        self.assert_answer(call, "0")
        ctl.out.wait_for("\n")
        # The terminal itself begins its lines with returns.
        self.assertNotRegex(ctl.terminal.text.replace("\r", ""), HARMFUL)
        self.assertNotRegex(ctl.out.text, HARMFUL)
        self.assertEqual(ctl.out.text.count("\n"), 1)

    def test_person_answers_what_no_rule_does(self):
        self.start_host()
        ctl = self.start_answering("file", "answer-files", "--deny", "/no", "--ask", terminal=True)
        self.assertFalse(self.ask("/no"))
        for count, (answer, browser) in enumerate(
            (("y", "1"), ("n", "0"), ("YES", "1"), ("", "0"), ("yesterday", "0")), 1
        ):
            call = self.begin("create-browser", "--url", f"/file{count}")
            ctl.terminal.wait_for(
                rf'May the page of "" read /file{count}\? Profile \(default\) \[y/N\] '
            )
            ctl.type(answer + "\n")
            self.assert_answer(call, browser)
        ctl.out.wait_for("\n", 6)
        self.assertEqual(ctl.out.text.count("(answered at the terminal)"), 5)

    def test_questions_are_asked_one_after_the_other(self):
        self.start_host()
        ctl = self.start_answering("file", "answer-files", "--ask", terminal=True)
        first = self.begin("create-browser", "--url", "/first")
        ctl.terminal.wait_for(r"/first\? .*\] ")
        second = self.begin("create-browser", "--url", "/second")
        self.wait_for("questions", 2)

        ctl.type("y\n")
        self.assert_answer(first, "1")
        ctl.terminal.wait_for(r"/second\? .*\] ")
        ctl.type("n\n")
        self.assert_answer(second, "0")

    def test_rules_and_the_connection_go_on_while_a_person_thinks(self):
        host = self.start_host()
        ctl = self.start_answering("file", "answer-files", "--ask", "--allow", "/a", terminal=True)
        self.begin("create-browser", "--url", "/slow")
        ctl.terminal.wait_for(r"/slow\? .*\] ")

        self.assertTrue(self.ask("/a"))
        # The line that came between has not taken the question away.
        ctl.terminal.wait_for(r"/slow\? .*\] ", 2)

        self.kill(host)
        ctl.terminal.wait_for(r"\(Nobody waits for this answer any more\.\)")
        ctl.out.wait_for(r"withdrawn .*/slow")

    def test_withdrawn_question_is_told_and_the_next_one_asked(self):
        self.start_host()
        ctl = self.start_answering("file", "--json", "answer-files", "--ask", terminal=True)

        result = programs.ctl("--target", self.target, "get-accept-language")
        self.assertEqual(result.returncode, 14)

        ctl.terminal.wait_for(r"\(Nobody waits for this answer any more\.\)")
        withdrawn = ctl.json_line(2)
        self.assertEqual(
            (withdrawn["answer"], withdrawn["request"]["path"]), ("withdrawn", "/etc/motd")
        )
        call = self.begin("create-browser", "--url", "/next")
        ctl.terminal.wait_for(r"/next\? .*\] ")
        ctl.type("y\n")
        self.assert_answer(call, "1")

    def test_control_d_denies_one_question(self):
        self.start_host()
        ctl = self.start_answering("file", "answer-files", "--ask", terminal=True)
        for count in (1, 2):
            call = self.begin("create-browser", "--url", f"/file{count}")
            ctl.terminal.wait_for(rf"/file{count}\? .*\] ")
            ctl.type("\x04")
            self.assert_answer(call, "0")
        ctl.out.wait_for(r"given up at the terminal", 2)

    def test_control_c_in_a_question_ends_the_command(self):
        self.start_host()
        ctl = self.start_answering("file", "answer-files", "--ask", terminal=True)
        call = self.begin("create-browser", "--url", "/file")
        ctl.terminal.wait_for(r"\] ")

        ctl.type("\x03")

        self.assertEqual(ctl.wait(), 0)
        self.assertNotEqual(call.wait(), 0)
        self.assertIn("the client reported an error (ABORTED)", call.err.text)
        ctl.terminal.wait_for(r"\[y/N\] (\^C)?\r\n")
        self.wait_for("file answerers", 0)

    def test_asking_needs_a_terminal(self):
        ctl = self.start("answer-files", "--ask")
        self.assertEqual(ctl.wait(), 2)
        self.assertIn("--ask: there is no terminal", ctl.err.text)


class AnswerAuthTest(WatchTestCase):
    def setUp(self):
        super().setUp()
        self.password_file = self.folder / "password"
        self.write_password("secret\n")

    def write_password(self, text, mode=0o600):
        self.password_file.write_text(text)
        self.password_file.chmod(mode)

    def start_with_file(self, *arguments):
        return self.start_answering(
            "credentials", *arguments, "answer-auth", "--user", "zoë", "--password-file",
            str(self.password_file),
        )

    def start_asking(self):
        return self.start_answering("credentials", "answer-auth", "--ask", terminal=True)

    def test_password_comes_from_the_file_as_it_is_now(self):
        self.start_host()
        ctl = self.start_with_file()
        self.assertEqual(self.call("get-user-agent"), "zoë:secret")

        self.write_password("new one")

        self.assertEqual(self.call("get-user-agent"), "zoë:new one")
        ctl.out.wait_for(r"\(default\)  sent       basic .* as zoë ", 2)
        self.assertNotIn("secret", ctl.out.text + ctl.err.text)

    def test_refused_password_is_not_sent_again(self):
        self.start_host()
        ctl = self.start_with_file("--json")
        self.write_password("wrong\n")

        self.assertEqual(self.call("get-user-agent"), "cancel")
        self.write_password("right\n")
        self.assertEqual(self.call("get-user-agent"), "zoë:right")

        lines = [ctl.json_line(count) for count in (2, 3, 4)]
        self.assertEqual(
            [(line["type"], line["answer"], line["username"]) for line in lines],
            [("credentials", "sent", "zoë"), ("credentials", "cancelled", ""),
             ("credentials", "sent", "zoë")],
        )
        self.assertIn("refused", lines[1]["reason"])
        self.assertEqual(lines[0]["request"]["scheme"], "basic")
        self.assertNotIn("wrong", ctl.out.text)

    def test_first_attempt_of_another_page_gets_the_password_again(self):
        self.start_host()
        ctl = self.start_with_file("--json")
        self.write_password("wrong\n")

        self.assertEqual(self.call("get-user-agent"), "cancel")
        self.assertEqual(self.call("get-user-agent"), "cancel")

        lines = [ctl.json_line(count) for count in (2, 3, 4, 5)]
        self.assertEqual(
            [(line["answer"], line["request"]["firstAttempt"]) for line in lines],
            [("sent", True), ("cancelled", False)] * 2,
        )

    def test_only_challengers_that_are_named_get_credentials(self):
        self.start_host()
        ctl = self.start_answering(
            "credentials", "answer-auth", "--user", "zoë", "--password-file",
            str(self.password_file), "--challenger", "example.com",
        )
        self.assertEqual(self.call("get-user-agent"), "cancel")
        ctl.out.wait_for(r"cancelled .*\(not a --challenger\)\n")

    def test_file_that_others_may_read_is_refused_at_once(self):
        self.start_host()
        self.write_password("secret\n", 0o644)
        ctl = self.start("answer-auth", "--user", "zoë", "--password-file", str(self.password_file))
        self.assertEqual(ctl.wait(), 2)
        self.assertIn(f"--password-file: {self.password_file}: open to other users", ctl.err.text)

    def test_file_that_is_a_pipe_is_refused_at_once(self):
        self.start_host()
        pipe = self.folder / "pipe"
        os.mkfifo(pipe, 0o600)
        ctl = self.start("answer-auth", "--user", "zoë", "--password-file", str(pipe))
        self.assertEqual(ctl.wait(), 2)
        self.assertIn("not a regular file", ctl.err.text)

    def test_file_that_goes_bad_fails_the_question(self):
        self.start_host()
        ctl = self.start_with_file()
        self.password_file.unlink()

        result = programs.ctl("--target", self.target, "get-user-agent")

        self.assertNotEqual(result.returncode, 0)
        self.assertNotIn(str(self.folder), result.stderr)
        ctl.out.wait_for(rf"failed .*\({self.password_file}: .*\)\n")

    def test_person_types_a_password_that_nobody_sees(self):
        self.start_host()
        ctl = self.start_asking()
        call = self.begin("get-user-agent")
        ctl.terminal.wait_for(r"User name \(empty: cancel\): ")
        ctl.type("zoë\n")
        ctl.terminal.wait_for("Password: ")
        self.assertFalse(ctl.echoes())

        ctl.type("geheim\n")

        self.assert_answer(call, "zoë:geheim")
        ctl.out.wait_for("sent .* as zoë .*\n")
        self.assertTrue(ctl.echoes())
        self.assertNotIn("geheim", ctl.terminal.text + ctl.out.text + ctl.err.text)

    def test_empty_user_name_cancels(self):
        self.start_host()
        ctl = self.start_asking()
        call = self.begin("get-user-agent")
        ctl.terminal.wait_for("User name")
        ctl.type("\n")
        self.assert_answer(call, "cancel")
        self.assertNotIn("Password", ctl.terminal.text)

    def test_terminal_echoes_again_whatever_ends_the_command(self):
        self.start_host()
        for number, status in ((signal.SIGINT, 0), (signal.SIGTERM, 0), (signal.SIGHUP, -1),
                               (signal.SIGQUIT, -3), (signal.SIGABRT, -6)):
            ctl = self.start_asking()
            self.begin("get-user-agent")
            ctl.terminal.wait_for("User name")
            ctl.type("zoë\n")
            ctl.terminal.wait_for("Password: ")
            self.assertFalse(ctl.echoes())

            self.assertEqual(ctl.stop(number), status)

            self.assertTrue(ctl.echoes())
            self.wait_for("credentials answerers", 0)


class CommandLineTest(unittest.TestCase):
    def test_help_of_each_command_says_how_it_is_used(self):
        for command, texts in (
            ("watch-network", ("--json", "Ctrl-C", '"type":"down"')),
            ("answer-files", ("--allow GLOB", "**/", "--ask", "withdrawn")),
            ("answer-auth", ("--password-file FILE", "--challenger", "0600")),
        ):
            for arguments in (("help", command), (command, "--help")):
                result = programs.ctl(*arguments)
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                self.assertIn(f"Usage: varnicctl {command}", result.stdout)
                for text in texts:
                    self.assertIn(text, result.stdout)
            self.assertIn(command, programs.ctl("help").stdout)

    def test_text_that_cannot_be_written_is_an_error(self):
        for arguments in (["--version"], ["help"]):
            with open("/dev/full", "wb") as full:
                ctl = Ctl(*arguments, stdout=full)
                self.addCleanup(ctl.close)
                self.assertEqual(ctl.wait(), 1)
            self.assertIn("standard output: No space left", ctl.err.text)

    def test_wrong_command_line_is_a_usage_error(self):
        for arguments, text in (
            (["answer-files"], "--allow"),
            (["answer-files", "--allow", "*.txt"], "*.txt"),
            (["answer-auth"], "--user"),
            (["answer-auth", "--user", "zoë", "--password-file", "/nowhere"], "/nowhere"),
            (["watch-network", "--timeout", "1"], "--timeout"),
            (["path", "--allow", "/a"], "--allow"),
            (["answer-files", "--deny", "/home//a"], "--deny: glob /home//a: it has an empty name"),
            (["help", "frobnicate"], "unknown command frobnicate"),
        ):
            result = programs.ctl("--target", "unix:/nowhere", *arguments)
            self.assertEqual(result.returncode, 2, arguments)
            self.assertIn(text, result.stderr)


if __name__ == "__main__":
    unittest.main()
