"""How browsers begin and end with a varnic-host, and what is said when they cannot begin."""

import contextlib
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import unittest

import browser_host
import programs
import web_site
from browser_host import Code

OWN_USERS = ["unshare", "--user", "--map-root-user"]
# Runs what follows with the folder that stands first on a disk of 2 MiB.
SMALL_DISK = [*OWN_USERS, "--mount", "sh", "-c",
              'mount -t tmpfs -o size=2m tmpfs "$1" && shift && exec "$@"', "sh"]

# A browser of another day: says so, with --version and on its pipe.
OLD_BROWSER = f"""#!{sys.executable}
import json, os, sys
VERSION = "100.0.4896.60"
if "--version" in sys.argv:
    print("Chromium", VERSION)
    sys.exit(0)
text = b""
while not text.endswith(b"\\0"):
    text += os.read(3, 1) or sys.exit(0)
command = json.loads(text[:-1])
answer = {{"product": "Chrome/" + VERSION, "userAgent": "Mozilla/5.0"}}
os.write(4, json.dumps({{"id": command["id"], "result": answer}}).encode() + b"\\0")
os.read(3, 1)
"""


def why_not(command):
    """A text where a command that has to succeed does not, or None."""
    probe = subprocess.run(command, capture_output=True, text=True)
    return None if probe.returncode == 0 else probe.stderr.strip()


class LifeTest(browser_host.BrowserTestCase):
    def setUp(self):
        super().setUp()
        self.site = web_site.Site()
        self.addCleanup(self.site.close)

    def open_reporting_page(self, profile="", script=""):
        url = self.site.add_page("/page", script + "report('here');")
        browser = self.open_page(url, profile=profile)
        self.assertEqual(self.site.next_report(), "here")
        return browser

    def try_to_open(self, profile=""):
        return self.client.call("Profile", "CreateBrowser",
                                {"profileId": {"value": profile}, "headless": True})

    def assert_cannot_open(self, code, *texts):
        answer = self.try_to_open()
        self.assertEqual(answer.code, code, answer.text)
        for text in texts:
            self.assertIn(text, answer.text)
        # And the host goes on.
        self.assertEqual(self.ask("Name")["value"] == "", False)

    def singleton_files(self, profile="default"):
        return [name for name in ("SingletonLock", "SingletonCookie", "SingletonSocket")
                if os.path.lexists(self.profiles / profile / name)]

    def exit_type(self, profile="default"):
        preferences = self.profiles / profile / "Default" / "Preferences"
        return json.loads(preferences.read_text())["profile"]["exit_type"]

    def test_sigterm_ends_every_browser_in_order(self):
        self.start_host()
        other = self.ask_host("CreateProfile", {"name": "Other"})["id"]["value"]
        for profile in ("default", other):
            self.open_reporting_page(profile)

        self.stop_host()

        self.assert_no_browser_is_left()
        for profile in ("default", other):
            self.assertEqual(self.exit_type(profile), "Normal")
            self.assertEqual(self.singleton_files(profile), [])
        self.assertEqual(os.listdir(self.folder / "tmp"), [])

    def test_browsers_cost_the_host_no_thread(self):
        self.start_host()
        other = self.ask_host("CreateProfile", {"name": "Other"})["id"]["value"]

        for profile in ("default", other):
            self.open_reporting_page(profile)

        self.assertEqual(programs.threads(self.host), programs.HOST_THREADS)

    def test_browsers_end_with_a_host_that_is_killed(self):
        self.start_host()
        self.open_reporting_page()
        self.assertNotEqual(browser_host.processes_with(str(self.profiles)), [])

        self.host.process.kill()
        self.host.process.wait()

        self.assert_no_browser_is_left()

    def test_host_after_one_that_was_killed_has_its_profiles_and_browsers(self):
        self.start_host()
        self.set_languages("eo")
        self.open_reporting_page(script="localStorage.kept = 'yes';")
        pid = self.browser_pid()
        os.kill(pid, signal.SIGKILL)  # Before it can clear anything away.
        self.host.process.kill()
        self.host.process.wait()
        self.assert_no_browser_is_left()

        self.start_host()
        self.open_reporting_page()

        self.assertEqual(self.ask("GetAcceptLanguage")["value"], "eo")
        self.assertNotEqual(self.browser_pid(), pid)

    def leave_lock(self, holder):
        """What a browser leaves that could not end in order."""
        self.start_host()
        self.open_reporting_page()
        self.stop_host()
        os.symlink(holder, self.profiles / "default" / "SingletonLock")

    def test_lock_of_a_dead_process_is_cleared(self):
        child = subprocess.Popen(["true"])
        child.wait()
        self.leave_lock(f"{socket.gethostname()}-{child.pid}")

        self.start_host()
        self.open_reporting_page()

        self.assertNotEqual(self.browser_pid(), child.pid)

    def test_lock_of_another_machine_is_told_by_its_name(self):
        self.leave_lock("elsewhere-4711")

        self.start_host()

        self.assert_cannot_open(Code.FAILED_PRECONDITION, "elsewhere", "4711", "close that browser")
        self.assertEqual(self.singleton_files(), ["SingletonLock"])

    def test_browser_that_is_killed_comes_back_when_it_is_wanted(self):
        self.start_host()
        browser = self.open_reporting_page()
        pid = self.browser_pid()

        self.kill_browser()

        browser_host.wait_until(lambda: not self.browsers(), "its windows stay in the list")
        answer = self.client.call("BrowserHost", "CloseBrowser", {"value": browser})
        self.assertEqual(answer.code, Code.NOT_FOUND)
        browser_host.wait_until(lambda: self.try_to_open().code == Code.OK, "it does not come back")
        self.assertNotEqual(self.browser_pid(), pid)

    def test_missing_program_is_told_with_the_package_that_has_it(self):
        self.start_host("--browser", "/nowhere/chromium")

        self.assert_cannot_open(Code.FAILED_PRECONDITION, "/nowhere/chromium",
                                'install Chromium (Debian\'s package "chromium")')

    def test_old_program_is_told_with_the_version_that_is_needed(self):
        program = self.folder / "old-browser"
        program.write_text(OLD_BROWSER)
        program.chmod(0o755)
        self.start_host("--browser", str(program))

        self.assert_cannot_open(Code.FAILED_PRECONDITION, str(program), "Chrome/100.0.4896.60",
                                "132", "update it")

    def test_program_that_ends_at_once_is_told_with_its_exit_code(self):
        program = self.folder / "broken-browser"
        program.write_text(
            "#!/bin/sh\n[ \"$1\" = --version ] && echo Chromium 156.0.1.2 || exit 7\n")
        program.chmod(0o755)
        self.start_host("--browser", str(program))

        self.assert_cannot_open(Code.UNAVAILABLE, str(program), "exit code 7")

    def test_root_is_told_what_to_do_about_the_sandbox(self):
        prefix = [] if browser_host.IS_ROOT else OWN_USERS
        if why := why_not([*prefix, "true"]):
            self.skipTest(why)
        self.start_host(prefix=prefix, sandbox=[])

        self.assert_cannot_open(Code.FAILED_PRECONDITION, "sandbox", "root", "--no-sandbox")

    def test_window_without_a_display_is_told_what_to_ask_for(self):
        self.start_host()

        answer = self.client.call("Profile", "CreateBrowser", {"url": "about:blank"})

        self.assertEqual(answer.code, Code.FAILED_PRECONDITION)
        self.assertIn("display", answer.text)
        self.assertIn("headless", answer.text)

    def test_full_disk_is_told_and_leaves_no_half_profile(self):
        self.profiles.mkdir()
        command = [*SMALL_DISK, str(self.profiles)]
        if why := why_not([*command, "true"]):
            self.skipTest(f"no disk of its own: {why}")
        self.start_host(prefix=command, sandbox=["--no-sandbox"])
        before = self.ask_host("ListProfiles")["profiles"]
        disk = pathlib.Path(f"/proc/{self.host.process.pid}/root") / str(self.profiles)[1:]
        ballast = disk / "ballast"
        with contextlib.suppress(OSError), ballast.open("wb", buffering=0) as file:
            while file.write(bytes(4096)):
                pass

        answer = self.client.call("BrowserHost", "CreateProfile", {"name": "No room"})
        opened = self.try_to_open()

        self.assertNotEqual(answer.code, Code.OK)
        self.assertIn("No space left on device", answer.text)
        self.assertNotEqual(opened.code, Code.OK)
        self.assertEqual(self.ask_host("ListProfiles")["profiles"], before)
        ballast.unlink()
        self.ask_host("CreateProfile", {"name": "Room"})
        self.assertEqual(len(self.ask_host("ListProfiles")["profiles"]), len(before) + 1)

    def test_second_host_on_the_same_profiles_is_refused(self):
        self.start_host()
        self.open_reporting_page()

        programs.assert_host_refuses(
            self, 1, [str(self.profiles), "in use"],
            ["--listen", f"unix:{self.folder}/second.sock", "--profiles-dir", str(self.profiles)],
            self.environment)

        self.assertEqual(len(self.browsers()), 1)

    def test_profile_that_is_deleted_is_gone_with_its_browser_and_its_folder(self):
        self.start_host()
        profile = self.ask_host("CreateProfile", {"name": "Short"})["id"]["value"]
        self.open_reporting_page(profile)
        folder = self.profiles / profile
        self.assertTrue(folder.exists())

        self.ask_host("DeleteProfile", {"value": profile})

        self.assertFalse(folder.exists())
        self.assertEqual(browser_host.processes_with(str(folder)), [])
        answer = self.client.call("Profile", "Name", {"value": profile})
        self.assertEqual(answer.code, Code.NOT_FOUND)

    def test_sigterm_does_not_wait_for_answers(self):
        self.start_host()
        (self.folder / "file.txt").write_text("text")
        answerer = self.answer_files(lambda question: None)
        self.open_page((self.folder / "file.txt").as_uri())
        answerer.next_question()

        self.stop_host()

        self.assertEqual(answerer.stream.answer().code, Code.UNAVAILABLE)


if __name__ == "__main__":
    unittest.main()
